#pragma once

#include <windows.h>

#include <string>

namespace hosts {

struct FileDigest {
  /// Why the file could not be read to its end; 0 when it could.
  DWORD error = ERROR_SUCCESS;
  /// SHA-256 of its bytes, 64 hexadecimal digits in small letters.
  std::string sha256;
};

/// Reads a file with nobody else beside it. @throws std::runtime_error when the system computes no digest.
FileDigest DigestOf(const std::wstring& path);

}  // namespace hosts
