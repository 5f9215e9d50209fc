#include "hosts/service/service_control.h"

#include <array>
#include <string>

#include "hosts/common/event_log.h"
#include "hosts/common/owners.h"
#include "hosts/common/text.h"
#include "hosts/service/identity.h"

// Not in every set of the system's headers.
#if !defined(SERVICE_SID_TYPE_UNRESTRICTED)
#define SERVICE_SID_TYPE_UNRESTRICTED 0x00000001
#endif

namespace hosts {

namespace {

constexpr DWORD kPollMs = 100;
constexpr DWORD kLongestStopMs = kShutdownLimitMs;
constexpr DWORD kLongestProcessEndMs = 30000;
constexpr DWORD kLongestDeletionMs = 30000;
constexpr DWORD kFailureResetSeconds = 24 * 60 * 60;

ControlResult Failed(const char* step) {
  return {::GetLastError(), step};
}

OwnedService OpenManager(DWORD access) {
  return OwnedService(::OpenSCManagerW(nullptr, nullptr, access));
}

OwnedService OpenFlashService(SC_HANDLE manager, DWORD access) {
  return OwnedService(::OpenServiceW(manager, kServiceName, access));
}

/// Restarts a service that failed, by ending early too, with growing delays.
bool SetFailureActions(SC_HANDLE service) {
  std::array<SC_ACTION, 3> actions{
      {{SC_ACTION_RESTART, 5000}, {SC_ACTION_RESTART, 30000}, {SC_ACTION_RESTART, 60000}}};
  SERVICE_FAILURE_ACTIONSW failure{};
  failure.dwResetPeriod = kFailureResetSeconds;
  failure.cActions = static_cast<DWORD>(actions.size());
  failure.lpsaActions = actions.data();
  SERVICE_FAILURE_ACTIONS_FLAG alsoErrors{TRUE};
  return ::ChangeServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS, &failure) &&
         ::ChangeServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, &alsoErrors);
}

bool SetDescription(SC_HANDLE service) {
  std::wstring text = kDescription;
  SERVICE_DESCRIPTIONW description{text.data()};
  return ::ChangeServiceConfig2W(service, SERVICE_CONFIG_DESCRIPTION, &description) != FALSE;
}

/// The system's own limit would end a download that is under way when the PC shuts down.
bool SetPreShutdownLimit(SC_HANDLE service) {
  SERVICE_PRESHUTDOWN_INFO limit{kShutdownLimitMs};
  return ::ChangeServiceConfig2W(service, SERVICE_CONFIG_PRESHUTDOWN_INFO, &limit) != FALSE;
}

bool QueryStatus(SC_HANDLE service, SERVICE_STATUS_PROCESS& status) {
  DWORD needed = 0;
  return ::QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                                sizeof status, &needed) != FALSE;
}

/// Waits while the service is in `passing`. @return the state after that, or when the time is up.
DWORD WaitWhile(SC_HANDLE service, DWORD passing, DWORD longestMs) {
  SERVICE_STATUS_PROCESS status{};
  for (DWORD waited = 0;
       QueryStatus(service, status) && status.dwCurrentState == passing && waited < longestMs;
       waited += kPollMs) {
    ::Sleep(kPollMs);
  }
  return status.dwCurrentState;
}

/// The running service's process; nothing when there is none, or it is not open to this user.
OwnedHandle ProcessOf(SC_HANDLE service) {
  SERVICE_STATUS_PROCESS status{};
  if (!QueryStatus(service, status) || status.dwProcessId == 0) return nullptr;
  return OwnedHandle(::OpenProcess(SYNCHRONIZE, FALSE, status.dwProcessId));
}

/// Sends a stop. What the manager knows of the service may be a moment old, and it refuses or passes on a
/// stop by that, so the service is first made to say whether it can be stopped now.
bool AskToStop(SC_HANDLE service, bool forced) {
  SERVICE_STATUS status{};
  return ::ControlService(service, forced ? kControlAllowInterruption : SERVICE_CONTROL_INTERROGATE,
                          &status) &&
         ::ControlService(service, SERVICE_CONTROL_STOP, &status);
}

ControlResult WhyItDoesNotRun(SC_HANDLE service) {
  constexpr const char* kStep = "get the service to run";
  SERVICE_STATUS_PROCESS status{};
  if (!QueryStatus(service, status)) return Failed(kStep);
  const DWORD error = status.dwWin32ExitCode != NO_ERROR ? status.dwWin32ExitCode : ERROR_SERVICE_NOT_ACTIVE;
  return {.error = error, .step = kStep, .serviceCode = status.dwServiceSpecificExitCode};
}

/// The program and its arguments as the manager starts them. Quoted: a blank in an unquoted path lets another
/// program be started in its place.
std::wstring ServiceCommand(const InstallOptions& options) {
  return L"\"" + ProgramPath() + L"\"" +
         (options.restartsWhenStuck ? L" " + ToWide(kRestartWhenStuckOption) : std::wstring());
}

/// What the library does as the service: it looks through folders that it may not list, has the device tree
/// searched anew, and speaks to other services of the system.
constexpr const wchar_t* kNeededPrivileges[] = {L"SeChangeNotifyPrivilege", L"SeLoadDriverPrivilege",
                                                L"SeImpersonatePrivilege", L"SeCreateGlobalPrivilege"};

ControlResult Restrict(SC_HANDLE service) {
  std::wstring list;
  for (const wchar_t* const privilege : kNeededPrivileges) list.append(privilege).push_back(L'\0');
  SERVICE_REQUIRED_PRIVILEGES_INFOW privileges{list.data()};
  if (!::ChangeServiceConfig2W(service, SERVICE_CONFIG_REQUIRED_PRIVILEGES_INFO, &privileges)) {
    return Failed("limit the privileges of the service");
  }
  SERVICE_SID_INFO identity{SERVICE_SID_TYPE_UNRESTRICTED};
  if (!::ChangeServiceConfig2W(service, SERVICE_CONFIG_SERVICE_SID_INFO, &identity)) {
    return Failed("give the service an identity of its own");
  }
  return {};
}

DWORD StartType(bool automatic) {
  return automatic ? SERVICE_AUTO_START : SERVICE_DEMAND_START;
}

/// A service that was deleted keeps its name until the last program that looks at it lets it go: the Services
/// window, or a management system that reads all services right then.
OwnedService CreateFlashService(SC_HANDLE manager, const InstallOptions& options) {
  const std::wstring command = ServiceCommand(options);
  for (DWORD waited = 0;; waited += kPollMs) {
    OwnedService service(::CreateServiceW(manager, kServiceName, kDisplayName, SERVICE_ALL_ACCESS,
                                          SERVICE_WIN32_OWN_PROCESS, StartType(options.automatic),
                                          SERVICE_ERROR_NORMAL, command.c_str(), nullptr, nullptr, nullptr,
                                          nullptr, nullptr));
    const bool isLeaving = service == nullptr && ::GetLastError() == ERROR_SERVICE_MARKED_FOR_DELETE;
    if (!isLeaving || waited >= kLongestDeletionMs) return service;
    ::Sleep(kPollMs);
  }
}

/// Whether it was restricted: that gives it an identity of its own.
bool IsRestricted(SC_HANDLE service) {
  constexpr DWORD kNoIdentity = 0;  // SERVICE_SID_TYPE_NONE, which some sets of the system's headers lack
  SERVICE_SID_INFO identity{};
  DWORD needed = 0;
  return ::QueryServiceConfig2W(service, SERVICE_CONFIG_SERVICE_SID_INFO, reinterpret_cast<BYTE*>(&identity),
                                sizeof identity, &needed) &&
         identity.dwServiceSidType != kNoIdentity;
}

/// Gives a new service all that it needs beyond its entry in the manager's list.
ControlResult Furnish(SC_HANDLE service, const InstallOptions& options) {
  if (!SetDescription(service)) return Failed("describe the service");
  if (!SetPreShutdownLimit(service)) return Failed("set the time limit of a shutdown");
  const ControlResult restriction = options.restricted ? Restrict(service) : ControlResult{};
  if (restriction.error != ERROR_SUCCESS) return restriction;
  const bool restarts = SetFailureActions(service);
  // A manager that does not know such a setting runs the service all the same.
  if (!restarts && ::GetLastError() != ERROR_INVALID_LEVEL) return Failed("set the failure actions");
  return {RegisterEventSourceMessages(), "register the messages of the event log",
          restarts ? "" : "a restart after a failure"};
}

ControlResult Remove(SC_HANDLE service) {
  if (!::DeleteService(service)) return Failed("delete the service");
  UnregisterEventSourceMessages();
  return {};
}

}  // namespace

ControlResult InstallService(const InstallOptions& options) {
  const OwnedService manager = OpenManager(SC_MANAGER_CREATE_SERVICE);
  if (manager == nullptr) return Failed("open the service manager");
  const OwnedService service = CreateFlashService(manager.get(), options);
  if (service == nullptr) return Failed("create the service");
  const ControlResult furnished = Furnish(service.get(), options);
  if (furnished.error != ERROR_SUCCESS) Remove(service.get());
  return furnished;
}

bool IsInstalledLikeThis(const InstallOptions& options) {
  const OwnedService manager = OpenManager(SC_MANAGER_CONNECT);
  const OwnedService service = OpenFlashService(manager.get(), SERVICE_QUERY_CONFIG);
  // The largest that the system gives.
  alignas(QUERY_SERVICE_CONFIGW) std::array<BYTE, 8192> memory{};
  auto* const configuration = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(memory.data());
  DWORD needed = 0;
  return service != nullptr &&
         ::QueryServiceConfigW(service.get(), configuration, static_cast<DWORD>(memory.size()), &needed) &&
         configuration->dwStartType == StartType(options.automatic) &&
         (options.restricted || !IsRestricted(service.get())) &&
         ::CompareStringOrdinal(configuration->lpBinaryPathName, -1, ServiceCommand(options).c_str(), -1,
                                TRUE) == CSTR_EQUAL;
}

ControlResult RestrictInstalledService() {
  const OwnedService manager = OpenManager(SC_MANAGER_CONNECT);
  if (manager == nullptr) return Failed("open the service manager");
  const OwnedService service = OpenFlashService(manager.get(), SERVICE_CHANGE_CONFIG);
  if (service == nullptr) return Failed("open the service");
  return Restrict(service.get());
}

ControlResult UninstallService() {
  const OwnedService manager = OpenManager(SC_MANAGER_CONNECT);
  if (manager == nullptr) return Failed("open the service manager");
  const OwnedService service = OpenFlashService(manager.get(), DELETE | SERVICE_QUERY_STATUS);
  if (service == nullptr) return Failed("open the service");
  SERVICE_STATUS_PROCESS status{};
  if (QueryStatus(service.get(), status) && status.dwCurrentState != SERVICE_STOPPED) {
    const ControlResult stopped = StopFlashService(false);
    if (stopped.error != ERROR_SUCCESS && stopped.error != ERROR_SERVICE_NOT_ACTIVE) return stopped;
  }
  return Remove(service.get());
}

ControlResult StartFlashService() {
  const OwnedService manager = OpenManager(SC_MANAGER_CONNECT);
  if (manager == nullptr) return Failed("open the service manager");
  const OwnedService service = OpenFlashService(manager.get(), SERVICE_START | SERVICE_QUERY_STATUS);
  if (service == nullptr) return Failed("open the service");
  const bool started = ::StartServiceW(service.get(), 0, nullptr) != FALSE;
  if (!started && ::GetLastError() != ERROR_SERVICE_ALREADY_RUNNING) {
    const ControlResult failed = Failed("start the service");
    // One that ends at once may be gone before the manager has its answer, but not before it said why.
    const ControlResult ended = WhyItDoesNotRun(service.get());
    return failed.error == ERROR_SERVICE_REQUEST_TIMEOUT && ended.serviceCode != 0 ? ended : failed;
  }
  switch (WaitWhile(service.get(), SERVICE_START_PENDING, kLongestStartMs)) {
    case SERVICE_RUNNING:
      return {started ? static_cast<DWORD>(ERROR_SUCCESS) : ERROR_SERVICE_ALREADY_RUNNING,
              "start the service"};
    case SERVICE_STOP_PENDING:
      return {ERROR_SERVICE_CANNOT_ACCEPT_CTRL, "start the service"};
    default:
      return WhyItDoesNotRun(service.get());
  }
}

ControlResult StopFlashService(bool forced) {
  const OwnedService manager = OpenManager(SC_MANAGER_CONNECT);
  if (manager == nullptr) return Failed("open the service manager");
  const OwnedService service =
      OpenFlashService(manager.get(), SERVICE_STOP | SERVICE_QUERY_STATUS |
                                          (forced ? SERVICE_USER_DEFINED_CONTROL : SERVICE_INTERROGATE));
  if (service == nullptr) return Failed("open the service");
  WaitWhile(service.get(), SERVICE_START_PENDING, kLongestStartMs);
  const OwnedHandle process = ProcessOf(service.get());
  if (!AskToStop(service.get(), forced) && ::GetLastError() != ERROR_SERVICE_CANNOT_ACCEPT_CTRL) {
    return Failed("stop the service");
  }
  // It is stopping, because of this request or of an earlier one.
  if (WaitWhile(service.get(), SERVICE_STOP_PENDING, kLongestStopMs) != SERVICE_STOPPED) {
    return {ERROR_SERVICE_REQUEST_TIMEOUT, "see the service stopped"};
  }
  // Whoever stops a service wants to replace its files next, which the process has open until it ends.
  if (process != nullptr) ::WaitForSingleObject(process.get(), kLongestProcessEndMs);
  return {};
}

ControlResult QueryFlashService(ServiceState& state) {
  const OwnedService manager = OpenManager(SC_MANAGER_CONNECT);
  if (manager == nullptr) return Failed("open the service manager");
  const OwnedService service = OpenFlashService(manager.get(), SERVICE_QUERY_STATUS);
  if (service == nullptr) {
    return ::GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST ? ControlResult{} : Failed("open the service");
  }
  SERVICE_STATUS_PROCESS status{};
  if (!QueryStatus(service.get(), status)) return Failed("ask for the service's state");
  state = {.installed = true,
           .state = status.dwCurrentState,
           .processId = status.dwProcessId,
           .win32ExitCode = status.dwWin32ExitCode,
           .serviceExitCode = status.dwServiceSpecificExitCode};
  return {};
}

const char* NameOfState(DWORD state) {
  switch (state) {
    case SERVICE_STOPPED:
      return "stopped";
    case SERVICE_START_PENDING:
      return "starting";
    case SERVICE_STOP_PENDING:
      return "stopping";
    case SERVICE_RUNNING:
      return "running";
    default:
      return "in another state";
  }
}

std::string MeaningOfServiceCode(DWORD code) {
  switch (code) {
    case kFailedNoLibrary:
      return "the flash library cannot be loaded";
    case kFailedNoConfiguration:
      return "the configuration cannot be loaded";
    case kFailedNoResources:
      return "the system refused a resource";
    case kEndedBecauseStuck:
      return "a flash stood still";
    default:
      return "for a reason of its own";
  }
}

}  // namespace hosts
