#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "hosts/common/owners.h"

namespace hosts::flashlog {

/// The bytes of a log: a file that somebody may be writing to, or standard input.
class LogSource {
 public:
  enum class Outcome {
    Bytes,      ///< some have come
    Nothing,    ///< none at present; of a pipe: none any more
    BeganAnew,  ///< the file was emptied or replaced; the next bytes are those of its beginning
    Failed,     ///< Error() says why
  };

  /// @param path in UTF-8; "-" is standard input.
  explicit LogSource(const std::string& path);

  /// The next bytes, which Bytes() holds until the next call. Waits for those of a pipe.
  Outcome Read();
  std::string_view Bytes() const { return m_Bytes; }
  /// Whether more may come at some time, behind Nothing.
  bool CanGrow() const { return !m_IsPipe; }
  /// Whether it can be read at all. @return the system's error.
  DWORD Error() const { return m_Error; }

 private:
  bool Open();
  bool BeganAnew();
  /// The first bytes of the file; of a log they hold the time of its beginning.
  std::string Head() const;

  std::wstring m_Path;
  bool m_IsPipe;
  OwnedHandle m_File;
  std::uint64_t m_Position = 0;
  std::string m_Head;
  std::string m_Buffer;
  std::string_view m_Bytes;
  DWORD m_Error = ERROR_SUCCESS;
};

}  // namespace hosts::flashlog
