#include "hosts/common/event_log.h"

#include "hosts/common/facts.h"
#include "hosts/common/text.h"

namespace hosts {

namespace {

constexpr DWORD kSeverityShift = 30;
constexpr DWORD kTypes = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;

std::wstring SourceKey() {
  return std::wstring(L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\") + kServiceName;
}

WORD TypeOf(DWORD message) {
  switch (message >> kSeverityShift) {
    case 3:
      return EVENTLOG_ERROR_TYPE;
    case 2:
      return EVENTLOG_WARNING_TYPE;
    default:
      return EVENTLOG_INFORMATION_TYPE;
  }
}

}  // namespace

DWORD RegisterEventSourceMessages() {
  const std::wstring program = ProgramPath();
  const auto size = static_cast<DWORD>((program.size() + 1) * sizeof(wchar_t));
  LSTATUS status = ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, SourceKey().c_str(), L"EventMessageFile",
                                     REG_EXPAND_SZ, program.c_str(), size);
  if (status == ERROR_SUCCESS) {
    status = ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, SourceKey().c_str(), L"TypesSupported", REG_DWORD, &kTypes,
                               sizeof kTypes);
  }
  return static_cast<DWORD>(status);
}

void UnregisterEventSourceMessages() {
  ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, SourceKey().c_str());
}

void WriteEvent(DWORD message, const std::wstring& insertion) {
  const HANDLE source = ::RegisterEventSourceW(nullptr, kServiceName);
  if (source == nullptr) return;
  const wchar_t* insertions[] = {insertion.c_str()};
  ::ReportEventW(source, TypeOf(message), 0, message, nullptr, 1, 0, insertions, nullptr);
  ::DeregisterEventSource(source);
}

}  // namespace hosts
