#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "hosts/common/owners.h"
#include "hosts/flashlog/input_reader.h"

namespace hosts::flashlog {

/// Opens a file for reading and holds up nobody who writes, renames or deletes it; empty on failure.
OwnedHandle OpenShared(const std::wstring& path);
/// Whether two paths mean one file, which need not be there when they are spelt alike.
bool IsSameFile(const std::wstring& one, const std::wstring& other);

/// The bytes of a log: a file that somebody may be writing to, or standard input.
class LogSource {
 public:
  enum class Outcome {
    Bytes,      ///< some have come
    Nothing,    ///< none at present; of standard input: none any more
    BeganAnew,  ///< the file was emptied or replaced; the next bytes are those of its beginning
    Failed,     ///< Error() says why; the next call tries again
  };

  /// @param path in UTF-8; "-" is standard input.
  explicit LogSource(const std::string& path);

  /// The next bytes, which Bytes() holds until the next call. Waits for those of standard input.
  Outcome Read();
  std::string_view Bytes() const { return m_Bytes; }
  /// Whether Read() would not wait: there are bytes, or an end or an error is to be told. False behind the
  /// end of standard input.
  bool IsReady() const;
  /// Whether more may come at some time.
  bool CanGrow() const { return !m_HasEnded; }
  /// What the last Read() failed with.
  DWORD Error() const { return m_Error; }
  /// Whether it was there at any time; standard input always is.
  bool HasBeenThere() const { return m_HasBeenThere; }
  /// Whether it failed although the log is there, so that what it holds is not all known.
  bool BrokeOff() const { return m_Error != ERROR_SUCCESS && (m_Input || m_File != nullptr); }

 private:
  Outcome ReadInput();
  bool Open();
  /// The same file again, where it was read to.
  void OpenAgain();
  bool BeganAnew();
  /// Whether the file still begins as it did; of a log the first bytes hold the time of its beginning.
  bool BeginsAsBefore() const;

  std::wstring m_Path;
  /// In the place of a file.
  std::optional<InputReader> m_Input;
  bool m_HasEnded = false;
  bool m_HasBeenThere = false;
  OwnedHandle m_File;
  std::uint64_t m_Position = 0;
  std::string m_Head;
  std::string m_Buffer;
  std::string_view m_Bytes;
  DWORD m_Error = ERROR_SUCCESS;
};

}  // namespace hosts::flashlog
