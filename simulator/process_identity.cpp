#include "simulator/process_identity.h"

#include "common/handles.h"

using corvel::UniqueHandle;

namespace simulator {

ProcessIdentity IdentityOf(HANDLE process) {
  FILETIME begun{};
  FILETIME unused{};
  ::GetProcessTimes(process, &begun, &unused, &unused, &unused);
  return {::GetProcessId(process), (std::uint64_t{begun.dwHighDateTime} << 32) | begun.dwLowDateTime};
}

ProcessIdentity ThisProcess() {
  static const ProcessIdentity identity = IdentityOf(::GetCurrentProcess());
  return identity;
}

bool Lives(const ProcessIdentity& identity) {
  if (identity == ThisProcess()) return true;
  const UniqueHandle process(
      ::OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, identity.id));
  if (!process) return ::GetLastError() == ERROR_ACCESS_DENIED;
  return IdentityOf(process.get()) == identity && ::WaitForSingleObject(process.get(), 0) == WAIT_TIMEOUT;
}

}  // namespace simulator
