#include "hosts/common/shared_names.h"

#include <sddl.h>

#include <utility>

#include "hosts/common/accounts.h"
#include "hosts/common/text.h"

namespace hosts {

namespace {

using Opener = HANDLE(WINAPI*)(DWORD access, BOOL inherit, LPCWSTR name);

/// Nothing where the name is free or the object would do.
std::optional<TakenName> Judge(const wchar_t* name, DWORD error) {
  if (error == ERROR_SUCCESS || error == ERROR_FILE_NOT_FOUND || error == ERROR_ALREADY_EXISTS) {
    return std::nullopt;
  }
  return TakenName{name, error};
}

DWORD ErrorOf(const OwnedHandle& opened) {
  return opened != nullptr ? ERROR_SUCCESS : ::GetLastError();
}

HANDLE WINAPI OpenSection(DWORD, BOOL inherit, LPCWSTR name) {
  return ::OpenFileMappingW(FILE_MAP_READ, inherit, name);
}

/// Opening a semaphore as something else leaves it alone: the system looks at the kind first.
bool IsOfAnotherKind(const wchar_t* name) {
  const Opener otherKinds[] = {&::OpenEventW, &::OpenMutexW, &::OpenWaitableTimerW, &OpenSection,
                               &::OpenJobObjectW};
  for (const Opener open : otherKinds) {
    const OwnedHandle opened(open(SYNCHRONIZE, FALSE, name));
    const DWORD error = ErrorOf(opened);
    if (error == ERROR_SUCCESS || error == ERROR_ACCESS_DENIED) return true;
  }
  return false;
}

/// The system and administrators may do anything with what has these.
constexpr wchar_t kForAdministrators[] = L"D:(A;;GA;;;SY)(A;;GA;;;BA)";

std::string WhatIsWrong(DWORD error) {
  switch (error) {
    case ERROR_INVALID_HANDLE:
      return "for an object of another kind";
    case ERROR_ACCESS_DENIED:
      return "and refuses access to it";
    default:
      return "or the system refuses it: " + SystemErrorText(error);
  }
}

}  // namespace

std::string TakenName::Message() const {
  return "another program has the name \"" + ToUtf8(name) + "\" " + WhatIsWrong(error) +
         (name == kPortSemaphoreName ? ", so the library cannot hear of the modem's flash port"
                                     : ", so the library cannot hear of a request");
}

std::string AdviceOnTakenNames() {
  return "End that program; a tool that searches handles by name tells which one it is. Or start the PC "
         "anew.";
}

std::optional<TakenName> LookAtEvent(const wchar_t* name) {
  // With the access that the library asks for.
  const OwnedHandle event(::OpenEventW(EVENT_ALL_ACCESS, FALSE, name));
  return Judge(name, ErrorOf(event));
}

std::optional<TakenName> LookAtSemaphore(const wchar_t* name, PortSearch search) {
  if (IsOfAnotherKind(name)) return TakenName{name, ERROR_INVALID_HANDLE};
  if (search == PortSearch::MayBeRunning) return std::nullopt;
  const OwnedHandle semaphore(::OpenSemaphoreW(SEMAPHORE_ALL_ACCESS, FALSE, name));
  return Judge(name, ErrorOf(semaphore));
}

std::vector<TakenName> FindTakenNames(PortSearch search) {
  std::vector<TakenName> taken;
  if (auto event = LookAtEvent(kRequestEventName)) taken.push_back(std::move(*event));
  if (auto semaphore = LookAtSemaphore(kPortSemaphoreName, search)) taken.push_back(std::move(*semaphore));
  return taken;
}

std::optional<TakenName> HeldRequestEvent::Take() {
  if (m_Event != nullptr) return std::nullopt;
  // As the library makes it, but that administrators in the service's session may use it too: their command
  // line waits by the same event.
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const bool isOpen =
      IsRunByAdministrator() && ::ConvertStringSecurityDescriptorToSecurityDescriptorW(
                                    kForAdministrators, SDDL_REVISION_1, &descriptor, nullptr);
  const LocalMemory owner(descriptor);
  SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), descriptor, FALSE};
  m_Event.reset(::CreateEventW(isOpen ? &attributes : nullptr, FALSE, TRUE, m_Name));
  return Judge(m_Name, ErrorOf(m_Event));
}

}  // namespace hosts
