#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "hosts/common/owners.h"

namespace hosts {

// Two names of the system's are the library's and, at the same time, everybody's in its session: an event, by
// which it hears of requests, and a semaphore, by which it hears of the modem's flash port. A program that
// has one of them for an object of another kind, or for one that refuses access, silences the library.

inline constexpr wchar_t kRequestEventName[] = L"RegistryNotify";
inline constexpr wchar_t kPortSemaphoreName[] = L"CFirmwareDownloader";

/// A name that the library cannot use as things are.
struct TakenName {
  std::wstring name;
  DWORD error = ERROR_SUCCESS;

  bool operator==(const TakenName&) const = default;
  /// What is wrong and what it comes to, without a full stop.
  std::string Message() const;
};
/// What to do about any of them.
std::string AdviceOnTakenNames();

/// Whether a look may open the semaphore for a moment. While somebody searches the port it must not: the
/// library counts on a semaphore that goes with its search.
enum class PortSearch { MayBeRunning, IsNotRunning };

/// Looks at an event without keeping it.
std::optional<TakenName> LookAtEvent(const wchar_t* name);
/// Looks at a semaphore. While a search may be running it sees an object of another kind, but not one that
/// refuses access.
std::optional<TakenName> LookAtSemaphore(const wchar_t* name, PortSearch search);
/// Looks at both of the library's names.
std::vector<TakenName> FindTakenNames(PortSearch search);

/// Keeps the library's event open, so that its name cannot be taken between two rounds of the library's wait.
/// The rounds stay as they are: the library resets the event and looks at the request each time it arms its
/// watch.
class HeldRequestEvent {
 public:
  explicit HeldRequestEvent(const wchar_t* name = kRequestEventName) : m_Name(name) {}

  /// Takes hold of it if that has not been possible so far. @return why it still is not; nothing when it is.
  std::optional<TakenName> Take();

 private:
  const wchar_t* m_Name;
  OwnedHandle m_Event;
};

}  // namespace hosts
