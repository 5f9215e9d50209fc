#include "simulator/ude_driver.h"

#include <algorithm>
#include <atomic>
#include <memory>

#include "common/handles.h"
#include "simulator/device_tree.h"
#include "simulator/import_patch.h"
#include "simulator/machine.h"

using corvel::LastErrorKeeper;
using corvel::OwnFileHandle;
using corvel::UniqueHandle;

namespace simulator {

namespace {

constexpr DWORD kProbeCode = 0x220014;
constexpr DWORD kResetCode = 0x220020;

/// One open instance of the driver. The product holds the client end of an overlapped pipe; a request is a
/// read on it that stays pending until the server end says something.
class DriverInstance : public SimulatedDevice {
 public:
  DriverInstance(UniqueHandle server, bool isRight) : isRightOne(isRight), m_Server(std::move(server)) {}

  /// Begins a request. @return as ReadFile does.
  BOOL Request(HANDLE client, LPOVERLAPPED overlapped) {
    return ::ReadFile(client, &m_Answer, sizeof(m_Answer), nullptr, overlapped);
  }
  /// Completes the request that is pending, or the one that comes next.
  void Complete() {
    const char answer = 0;
    DWORD written = 0;
    ::WriteFile(m_Server.get(), &answer, kAnswerSize, &written, nullptr);
  }

  const bool isRightOne;

 private:
  /// The request has no output: an empty message ends the read with no bytes.
  static constexpr DWORD kAnswerSize = 0;

  char m_Answer = 0;
  UniqueHandle m_Server;
};

std::wstring NextPipeName() {
  static std::atomic<int> number{0};
  return L"\\\\.\\pipe\\virtual_pc_" + std::to_wstring(::GetCurrentProcessId()) + L"_" +
         std::to_wstring(++number);
}

std::optional<HANDLE> Refused(DWORD error) {
  ::SetLastError(error);
  return nullptr;
}

/// Both ends of a message pipe, so that an empty message is one.
HANDLE OpenPipe(Machine& machine, bool isRight) {
  const std::wstring name = NextPipeName();
  UniqueHandle server = OwnFileHandle(
      ::CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX,
                         PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT, 1, 64, 64, 0, nullptr));
  if (!server) return nullptr;
  UniqueHandle client = OwnFileHandle(::CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                                    OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
  DWORD mode = PIPE_READMODE_MESSAGE;
  if (!client || !::SetNamedPipeHandleState(client.get(), &mode, nullptr, nullptr)) return nullptr;
  machine.handles.Add(client.get(), std::make_shared<DriverInstance>(std::move(server), isRight));
  return client.release();
}

void CompleteLater(Machine& machine, std::shared_ptr<DriverInstance> instance) {
  const auto answer = static_cast<DWORD>(machine.options.timing.driverAnswer.count());
  const std::chrono::milliseconds delay(machine.clock.RealWait(answer));
  machine.scheduler.After(delay, [instance = std::move(instance)] { instance->Complete(); });
}

BOOL Probe(Machine& machine, const std::shared_ptr<DriverInstance>& instance, HANDLE file,
           LPOVERLAPPED overlapped) {
  if (!instance->isRightOne) instance->Complete();
  const BOOL result = instance->Request(file, overlapped);
  const LastErrorKeeper keep;
  if (instance->isRightOne) CompleteLater(machine, instance);
  return result;
}

BOOL Reset(Machine& machine, const std::shared_ptr<DriverInstance>& instance, HANDLE file,
           LPOVERLAPPED overlapped) {
  const auto& faults = machine.options.faults.driver;
  const int number = machine.CountLook("reset request");
  if (faults.requestError != ERROR_SUCCESS && faults.requestsRefused.Hits(number)) {
    ::SetLastError(faults.requestError);
    return FALSE;
  }
  if (instance->isRightOne && !faults.ignoresReset) machine.modem.ResetBaseband();
  const BOOL result = instance->Request(file, overlapped);
  const LastErrorKeeper keep;
  if (!faults.neverCompletes) CompleteLater(machine, instance);
  return result;
}

BOOL WINAPI SimulatedDeviceIoControl(HANDLE file, DWORD code, LPVOID input, DWORD inputSize, LPVOID output,
                                     DWORD outputSize, LPDWORD bytes, LPOVERLAPPED overlapped) {
  const auto machine = CurrentMachine();
  const auto instance = machine ? machine->handles.Find<DriverInstance>(file) : nullptr;
  if (!machine) return ::DeviceIoControl(file, code, input, inputSize, output, outputSize, bytes, overlapped);
  if (!instance)
    return ::DeviceIoControl(file, code, input, inputSize, output, outputSize, bytes, overlapped);
  if (code == kProbeCode) return Probe(*machine, instance, file, overlapped);
  if (code == kResetCode) return Reset(*machine, instance, file, overlapped);
  ::SetLastError(ERROR_INVALID_FUNCTION);
  return FALSE;
}

}  // namespace

std::optional<HANDLE> OpenDriver(Machine& machine, const std::wstring& path) {
  const auto& faults = machine.options.faults.driver;
  const auto paths = UdePaths(machine);
  if (std::ranges::none_of(paths, [&](const auto& each) { return EqualIgnoringCase(each, path); })) return {};
  if (faults.openError != ERROR_SUCCESS) return Refused(faults.openError);
  return OpenPipe(machine, EqualIgnoringCase(path, RightUdePath(machine)));
}

void PatchDriver(ImportPatch& patch) {
  patch.ReplaceIfImported("DeviceIoControl", &SimulatedDeviceIoControl);
}

}  // namespace simulator
