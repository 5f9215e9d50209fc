#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "hosts/common/owners.h"

namespace hosts {

/// Writes a ZIP archive: files as they are, without compression, with names in UTF-8. What it has written is
/// no archive before Finish.
class ZipFile {
 public:
  /// Makes the file, which must not be there.
  explicit ZipFile(const std::wstring& path);

  /// @param name with "/" between folders.
  /// @param modified local time of the last change.
  void Add(const std::string& name, std::string_view bytes, const SYSTEMTIME& modified);
  /// Writes what makes an archive of it, and closes it. @return the system's first error; 0 when all is
  /// written.
  DWORD Finish();
  /// The first error so far.
  DWORD Error() const { return m_Error; }

 private:
  struct Entry {
    std::string name;
    std::uint32_t time = 0;
    std::uint32_t checksum = 0;
    std::uint32_t size = 0;
    std::uint32_t offset = 0;
  };

  static void PutFacts(std::string& header, const Entry& entry);
  void Write(std::string_view bytes);

  OwnedHandle m_File;
  DWORD m_Error = ERROR_SUCCESS;
  std::uint64_t m_Written = 0;
  std::vector<Entry> m_Entries;
};

}  // namespace hosts
