#include "hosts/common/who_flashes.h"

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "hosts/common/facts.h"
#include "hosts/common/library_configuration.h"
#include "hosts/common/serving_notice.h"
#include "hosts/common/text.h"

namespace hosts {

namespace {

constexpr wchar_t kClaimName[] = L"Global\\corvel_cmdline flash";

// --- The command line ------------------------------------------------------------------------------------

/// What an attempt to make or to open the claim's object says about who holds it.
std::optional<Obstacle> Judge(DWORD error) {
  switch (error) {
    case ERROR_SUCCESS:
    case ERROR_FILE_NOT_FOUND:
      return std::nullopt;
    case ERROR_ALREADY_EXISTS:
    case ERROR_ACCESS_DENIED:  // Of a user with more rights.
      return Obstacle{"already_running", "A corvel_cmdline is flashing already", "Wait for its end."};
    case ERROR_INVALID_HANDLE:
      return Obstacle{"claim_impossible",
                      "Another program holds the name \"" + ToUtf8(kClaimName) +
                          "\" for something else, so this one cannot make sure that it flashes alone",
                      "End that program and try again."};
    default:
      return Obstacle{"claim_impossible",
                      "This program cannot make sure that it flashes alone: " + SystemErrorText(error),
                      "Run this program as an administrator."};
  }
}

// --- The service -----------------------------------------------------------------------------------------

/// The installed service, while it is neither stopped nor dead.
struct LivingService {
  DWORD processId;
  bool isStarting;
  std::wstring configuration;
  /// Nothing when it cannot be found.
  std::optional<HandshakeKey> key;

  std::string Text() const { return "The flash service (process " + std::to_string(processId) + ")"; }
};

OwnedService OpenInstalledService() {
  const OwnedService manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (manager == nullptr) ThrowLastError("The service manager cannot be opened");
  OwnedService service(
      ::OpenServiceW(manager.get(), kServiceName, SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG));
  if (service == nullptr && ::GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST)
    ThrowLastError("The flash service cannot be opened");
  return service;
}

SERVICE_STATUS_PROCESS StatusOf(SC_HANDLE service) {
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  if (!::QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                              sizeof status, &needed)) {
    ThrowLastError("The flash service's state cannot be read");
  }
  return status;
}

std::wstring CommandOf(SC_HANDLE service) {
  DWORD size = 0;
  ::QueryServiceConfigW(service, nullptr, 0, &size);
  std::vector<BYTE> buffer(size);
  auto* const configuration = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  if (!::QueryServiceConfigW(service, configuration, size, &size))
    ThrowLastError("The flash service's program cannot be read");
  return configuration->lpBinaryPathName;
}

/// The manager may take a moment to notice that a process has died.
bool Lives(DWORD processId) {
  const OwnedHandle process(::OpenProcess(SYNCHRONIZE, FALSE, processId));
  if (process == nullptr) return ::GetLastError() == ERROR_ACCESS_DENIED;
  return ::WaitForSingleObject(process.get(), 0) == WAIT_TIMEOUT;
}

bool IsFile(const std::wstring& path) {
  const DWORD attributes = ::GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

/// The program of a command, as the system finds it: without quotation marks a path may go on after a blank.
std::wstring ProgramOf(const std::wstring& command) {
  if (command.starts_with(L'"')) return command.substr(1, command.find(L'"', 1) - 1);
  std::size_t end = command.find(L' ');
  while (end != std::wstring::npos && !IsFile(command.substr(0, end))) end = command.find(L' ', end + 1);
  return command.substr(0, end);
}

std::wstring ConfigurationBeside(const std::wstring& program) {
  return program.substr(0, program.rfind(L'\\') + 1) + kConfigurationName;
}

std::optional<HandshakeKey> KeyOf(const std::wstring& configurationPath) {
  const auto configuration = LibraryConfiguration::Read(configurationPath);
  if (!configuration) return std::nullopt;
  return configuration->ServiceKey();
}

std::optional<LivingService> FindLivingService() {
  const OwnedService service = OpenInstalledService();
  if (service == nullptr) return std::nullopt;
  const SERVICE_STATUS_PROCESS status = StatusOf(service.get());
  const bool starts = status.dwCurrentState == SERVICE_START_PENDING;
  if (status.dwCurrentState == SERVICE_STOPPED) return std::nullopt;
  // At the very beginning of a start there is no process yet.
  if (!Lives(status.dwProcessId) && !(starts && status.dwProcessId == 0)) return std::nullopt;

  const std::wstring configuration = ConfigurationBeside(ProgramOf(CommandOf(service.get())));
  // A service that starts needs its configuration for itself.
  return LivingService{status.dwProcessId, starts, configuration,
                       starts ? std::nullopt : KeyOf(configuration)};
}

Obstacle CannotTell(const std::system_error& error) {
  return {"service_unknown",
          std::string("Nobody can tell whether the flash service is flashing: ") + error.what(),
          "Run this program as an administrator."};
}

Obstacle SharesTheKey(const std::string& service, const HandshakeKey& key) {
  return {"service_shares_key",
          service + " runs and would take the request too: it has the command line's key " + key.Text(),
          "Stop it first (corvel_service stop), or give it another [RegistryLocation]."};
}

Obstacle IsFlashing(const std::string& service, const HandshakeKey& key) {
  return {"service_flashing", service + " is flashing; its key is " + key.Text(),
          "Wait for its end: both would drive the same modem."};
}

Obstacle MayBeFlashing(const std::string& service, const std::string& why, std::string whatToDo) {
  return {"service_unknown", service + " may be flashing: " + why, std::move(whatToDo)};
}

std::optional<Obstacle> Judge(const std::string& service, const HandshakeKey& key,
                              const HandshakeKey& commandLineKey) {
  const Handshake values = ReadHandshake(key);
  if (values.IsJobOpen()) return IsFlashing(service, key);
  if (key.Identity() == commandLineKey.Identity()) return SharesTheKey(service, key);
  if (values.error == ERROR_SUCCESS) return std::nullopt;
  return MayBeFlashing(service, "its key " + key.Text() + " cannot be read: " + SystemErrorText(values.error),
                       "Run this program as an administrator.");
}

Obstacle IsStarting(const LivingService& service) {
  return {kServiceStarts, service.Text() + " is starting, and may begin to flash at once",
          "Try again in a moment."};
}

Obstacle HasUnreadableConfiguration(const LivingService& service) {
  return MayBeFlashing(
      service.Text(), "its configuration " + ToUtf8(service.configuration) + " cannot be read",
      "Close whatever holds the configuration open, or stop the service (corvel_service stop).");
}

std::optional<Obstacle> Judge(const LivingService& service, const HandshakeKey& commandLineKey) {
  if (service.isStarting) return IsStarting(service);
  if (!service.key) return HasUnreadableConfiguration(service);
  // The key of that name which the service uses is its account's own.
  if (service.key->root == HKEY_CURRENT_USER) {
    return MayBeFlashing(service.Text(), "nobody but itself sees its key " + service.key->Text(),
                         "Stop it first (corvel_service stop), or give it a [RegistryLocation] below HKLM.");
  }
  return Judge(service.Text(), *service.key, commandLineKey);
}

bool IsSameFolder(const std::wstring& left, const std::wstring& right) {
  std::error_code failed;
  if (std::filesystem::equivalent(left, right, failed)) return true;
  return ::CompareStringOrdinal(left.c_str(), -1, right.c_str(), -1, TRUE) == CSTR_EQUAL;
}

Obstacle UsesFolder(const std::string& service, const std::wstring& folder) {
  return {"service_uses_folder", service + " runs and takes its images from " + ToUtf8(folder),
          "Stop it first (corvel_service stop), and start it again when the flash is over."};
}

std::optional<Obstacle> JudgeFolder(const LivingService& service, const std::wstring& folder) {
  if (service.isStarting) return IsStarting(service);
  const auto configuration = LibraryConfiguration::Read(service.configuration);
  if (!configuration) return HasUnreadableConfiguration(service);
  if (!IsSameFolder(configuration->FirmwareFolder(), folder)) return std::nullopt;
  return UsesFolder(service.Text(), folder);
}

/// A service that runs in a terminal is not in the manager's list.
std::optional<Obstacle> FindServiceByNotice(const HandshakeKey& commandLineKey) {
  constexpr const char* kService = "A flash service (corvel_service run)";
  std::vector<HandshakeKey> keys{commandLineKey};
  if (const auto key = KeyOf(ProgramFolder() + kConfigurationName)) keys.push_back(*key);
  for (const HandshakeKey& key : keys) {
    if (!IsServedBy(Server::Service, key)) continue;
    if (auto obstacle = Judge(kService, key, commandLineKey)) return obstacle;
  }
  return std::nullopt;
}

}  // namespace

CommandLineClaim::CommandLineClaim() {
  ::SetLastError(ERROR_SUCCESS);
  m_Mutex.reset(::CreateMutexW(nullptr, FALSE, kClaimName));
  m_Error = ::GetLastError();
  // The other one's name goes with it, not with this process.
  if (m_Error != ERROR_SUCCESS) m_Mutex.reset();
}

std::optional<Obstacle> CommandLineClaim::WhoHoldsIt() const {
  return Judge(m_Error);
}

std::optional<Obstacle> FindFlashingCommandLine() {
  const OwnedHandle claim(::OpenMutexW(SYNCHRONIZE, FALSE, kClaimName));
  return Judge(claim != nullptr ? ERROR_ALREADY_EXISTS : ::GetLastError());
}

bool IsServiceStarting() try {
  const auto service = FindLivingService();
  return service && service->isStarting;
} catch (const std::system_error&) {
  return false;
}

std::optional<Obstacle> FindServiceThatUses(const std::wstring& folder) try {
  const std::optional<LivingService> service = FindLivingService();
  std::optional<Obstacle> obstacle = service ? JudgeFolder(*service, folder) : std::nullopt;
  if (obstacle) return obstacle;
  // One in a terminal is known by its key alone: that of this folder's configuration.
  const auto key = KeyOf(ProgramFolder() + kConfigurationName);
  if (!key || !IsServedBy(Server::Service, *key)) return std::nullopt;
  return UsesFolder("A flash service (corvel_service run)", folder);
} catch (const std::system_error& error) {
  return CannotTell(error);
}

std::optional<Obstacle> FindServiceInTheWay(const HandshakeKey& commandLineKey) try {
  const std::optional<LivingService> service = FindLivingService();
  std::optional<Obstacle> obstacle = service ? Judge(*service, commandLineKey) : std::nullopt;
  return obstacle ? obstacle : FindServiceByNotice(commandLineKey);
} catch (const std::system_error& error) {
  return CannotTell(error);
}

}  // namespace hosts
