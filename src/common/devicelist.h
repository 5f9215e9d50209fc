#pragma once

#include <windows.h>

#include <cfgmgr32.h>

#include <memory>

#include "common/handles.h"
#include "common/multistring.h"

namespace corvel {

/// Gives a block back to the process heap.
struct ProcessHeapFreer {
  void operator()(wchar_t* block) const noexcept {
    const LastErrorKeeper keep;
    ::HeapFree(::GetProcessHeap(), 0, block);
  }
};
using UniqueHeapText = std::unique_ptr<wchar_t[], ProcessHeapFreer>;

/// In characters: a list without entries has one, its end.
inline constexpr ULONG kShortestFilledList = 2;

/// How far the steps of getting a list came: ask its length, allocate, fetch.
enum class DeviceListOutcome { Fetched, LengthRefused, Empty, NoMemory, ListRefused };

/// A snapshot of a list of Configuration Manager. A list that grew between asking its length and
/// the fetch is refused (CR_BUFFER_SMALL); asking again is up to whoever polls.
struct DeviceList {
  DeviceListOutcome outcome = DeviceListOutcome::LengthRefused;
  /// Of the call that was refused; CR_SUCCESS otherwise.
  CONFIGRET error = CR_SUCCESS;
  /// In characters, all terminators included, as the length was told.
  ULONG length = 0;
  UniqueHeapText text;

  MultiStringView Entries() const;
};

/// Instance ids of all devices that are present now. Never `Empty`: a list without ids is fetched as such.
DeviceList FetchPresentDeviceIds();

/// Paths of the interfaces of a class that are present now; a list too short for one path is `Empty`.
DeviceList FetchPresentInterfaces(const GUID& interfaceClass);

}  // namespace corvel
