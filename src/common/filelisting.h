#pragma once

#include <windows.h>

#include "common/handles.h"
#include "common/tstring.h"

namespace corvel {

/// A walk over all entries that match a pattern, folders included, in the order of the file system.
class FileListing {
 public:
  explicit FileListing(const CTString& pattern) {
    const HANDLE search = ::FindFirstFileW(pattern, &m_Entry);
    m_Search.reset(search == INVALID_HANDLE_VALUE ? nullptr : search);
  }

  /// False when it could not be started, or nothing matches. Otherwise there is a first entry.
  bool IsStarted() const { return m_Search != nullptr; }
  const WIN32_FIND_DATAW& Entry() const { return m_Entry; }
  /// Goes to the next entry. @return false when there is none, or the listing broke off.
  bool GoOn() {
    if (::FindNextFileW(m_Search.get(), &m_Entry)) return true;
    m_End = ::GetLastError();
    return false;
  }
  /// Whether the walk broke off: what it has found is not all there is.
  bool BrokeOff() const { return m_End != ERROR_NO_MORE_FILES; }
  /// Why it ended.
  DWORD End() const { return m_End; }

 private:
  WIN32_FIND_DATAW m_Entry{};
  UniqueFileSearch m_Search;
  DWORD m_End = ERROR_NO_MORE_FILES;
};

}  // namespace corvel
