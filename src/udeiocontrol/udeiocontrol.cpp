#include "udeiocontrol/udeiocontrol.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <string_view>

#include "common/devicelist.h"
#include "common/facts.h"
#include "common/log.h"
#include "common/win32error.h"

using namespace corvel;

namespace {

constexpr std::uint32_t kProbeCode = 0x220014;
constexpr std::uint32_t kBasebandResetCode = 0x220020;

constexpr DWORD kRequestTimeLimitMs = 3000;
/// What a cancelled request gets to come back before its memory is given up.
constexpr DWORD kCancelGraceMs = 100;

constexpr std::size_t kPathBufferLength = 256;

constexpr int kErrorLevel = 1;
constexpr int kTraceLevel = 3;

}  // namespace

/// What an opening looks for, and how it tells of it: its records carry the name of the opening that was
/// called, and two of its errors have a level of its own.
struct corvel::InterfaceOpening {
  const char* function;
  GUID interfaceClass;
  int loopErrorLevel;
};

namespace {

constexpr InterfaceOpening kControlOpening{"CUdeIoControl::OpenUdeDeviceInterface", facts::kControlClass,
                                           kErrorLevel};
constexpr InterfaceOpening kFlashOpening{"CUdeIoControl::OpenUdeDeviceFlashInterface", facts::kResetClass,
                                         kTraceLevel};

/// One overlapped request of its own event. The driver writes to the request's memory whenever it completes
/// it, which may be long after the caller's patience: memory that is still in use is never freed.
class DeviceRequest {
 public:
  enum class Start { Completed, Pending, Refused };

  /// The driver gets a copy of `output`: the caller's may be gone when it writes.
  DeviceRequest(const void* output, std::uint32_t outputSize) : m_Memory(MakeMemory(output, outputSize)) {
    if (m_Memory == nullptr) {
      ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return;
    }
    m_Done.reset(::CreateEventExW(nullptr, nullptr, CREATE_EVENT_MANUAL_RESET, EVENT_ALL_ACCESS));
    m_Memory->overlapped.hEvent = m_Done.get();
  }
  ~DeviceRequest();
  DeviceRequest(const DeviceRequest&) = delete;
  DeviceRequest& operator=(const DeviceRequest&) = delete;

  /// False, with the last error set, when the event or the memory could not be made.
  bool IsReady() const { return m_Done != nullptr; }
  HANDLE Done() const { return m_Done.get(); }
  OVERLAPPED* Overlapped() const { return &m_Memory->overlapped; }
  void* Output() const { return m_Memory->output.get(); }

  Start Send(HANDLE device, std::uint32_t code, const void* input, std::uint32_t inputSize,
             std::uint32_t outputSize);
  /// The driver is known to be through with the request.
  void SetCompleted() { m_Pending = false; }

 private:
  struct Memory {
    OVERLAPPED overlapped{};
    std::unique_ptr<std::byte[]> output;
  };
  static std::unique_ptr<Memory> MakeMemory(const void* output, std::uint32_t outputSize);

  std::unique_ptr<Memory> m_Memory;
  UniqueHandle m_Done;
  bool m_Pending = false;
};

std::unique_ptr<DeviceRequest::Memory> DeviceRequest::MakeMemory(const void* output,
                                                                 std::uint32_t outputSize) {
  std::unique_ptr<Memory> memory(new (std::nothrow) Memory);
  if (memory == nullptr || output == nullptr) return memory;
  memory->output.reset(new (std::nothrow) std::byte[outputSize]);
  if (memory->output == nullptr) return nullptr;
  std::memcpy(memory->output.get(), output, outputSize);
  return memory;
}

DeviceRequest::~DeviceRequest() {
  if (!IsReady()) return;
  const LastErrorKeeper keep;
  if (m_Pending && ::WaitForSingleObject(m_Done.get(), kCancelGraceMs) != WAIT_OBJECT_0) {
    // Lost on purpose: a driver that ignores the cancel may write here at any later time. The event can be
    // closed, the system holds it for the request.
    static_cast<void>(m_Memory.release());
  }
  ::ResetEvent(m_Done.get());
}

DeviceRequest::Start DeviceRequest::Send(HANDLE device, std::uint32_t code, const void* input,
                                         std::uint32_t inputSize, std::uint32_t outputSize) {
  if (::DeviceIoControl(device, code, const_cast<void*>(input), inputSize, Output(), outputSize, nullptr,
                        Overlapped())) {
    return Start::Completed;
  }
  m_Pending = ::GetLastError() == ERROR_IO_PENDING;
  return m_Pending ? Start::Pending : Start::Refused;
}

}  // namespace

constinit CUdeIoControl CUdeIoControl::s_instance;

CUdeIoControl* CUdeIoControl::GetInstance() {
  return &s_instance;
}

bool CUdeIoControl::TriggerFlashReset() {
  return TriggerFlashReset([] { return false; });
}

bool CUdeIoControl::TriggerFlashReset(const std::function<bool()>& isAbandoned) {
  LOG_TRACE("TriggerFlashReset ++");
  // A channel of this call's own: on another thread, a flash that was given up may be in here as well.
  CUdeIoControl channel;
  if (!channel.OpenFlashDevice()) {
    LOG_ERROR("TriggerFlashReset--: OpenFlashDevice Failed");
    return false;
  }
  const bool abandoned = isAbandoned();
  const bool sent =
      !abandoned && channel.SendSyncDeviceRequest(kBasebandResetCode, nullptr, 0, nullptr, 0, nullptr);
  if (abandoned) {
    LOG_WARNING("Given up meanwhile, no reset is sent");
  } else if (!sent) {
    LOG_ERROR("TriggerFlashReset--: SendSyncDeviceRequest Failed");
  }
  channel.CloseFlashDevice();
  LOG_TRACE("TriggerFlashReset --");
  return sent;
}

bool CUdeIoControl::OpenDevice() {
  LOG_TRACE("OpenDevice ++");
  const bool opened = OpenUdeDeviceInterface();
  LOG_TRACE("OpenDevice --");
  return opened;
}

bool CUdeIoControl::OpenFlashDevice() {
  LOG_TRACE("OpenFlashDevice ++");
  const bool opened = OpenUdeDeviceFlashInterface();
  LOG_TRACE("OpenFlashDevice --");
  return opened;
}

void CUdeIoControl::CloseDevice() {
  LOG_TRACE("CloseDevice ++");
  TearDownDeviceInterface(m_Device.exchange(nullptr));
  LOG_TRACE("CloseDevice --");
}

void CUdeIoControl::CloseFlashDevice() {
  LOG_TRACE("CloseFlashDevice ++");
  TearDownDeviceInterface(m_Device.exchange(nullptr));
  LOG_TRACE("CloseFlashDevice --");
}

void CUdeIoControl::TearDownDeviceInterface(HANDLE device) {
  LOG_TRACE("TearDownDeviceInterface++");
  if (device != nullptr) ::CloseHandle(device);
  LOG_TRACE("TearDownDeviceInterface--");
}

bool CUdeIoControl::OpenUdeDeviceInterface() {
  LOG_TRACE("OpenUdeDeviceInterface++");
  const bool opened = OpenInterface(kControlOpening);
  LOG_TRACE("OpenUdeDeviceInterface--, bRet: %d", opened);
  return opened;
}

bool CUdeIoControl::OpenUdeDeviceFlashInterface() {
  LOG_TRACE("OpenUdeDeviceFlashInterface++");
  const bool opened = OpenInterface(kFlashOpening);
  LOG_TRACE("OpenUdeDeviceFlashInterface--, bRet: %d", opened);
  return opened;
}

bool CUdeIoControl::OpenInterface(const InterfaceOpening& opening) {
  // What an earlier open left is closed first, so that a failed one leaves nothing that looks opened.
  UniqueHandle(m_Device.exchange(nullptr)).reset();

  const DeviceList list = FetchPresentInterfaces(opening.interfaceClass);
  switch (list.outcome) {
    case DeviceListOutcome::LengthRefused:
      LOG_ERROR_AS(opening.function, "Error retrieving device interface list size: %d",
                   static_cast<int>(list.error));
      return false;
    case DeviceListOutcome::Empty:
      LOG_ERROR_AS(opening.function, "Error - No active device interfaces found");
      return false;
    case DeviceListOutcome::NoMemory:
      // Answered with true although nothing is open: callers fail at their first request.
      LOG_AT_AS(opening.loopErrorLevel, opening.function,
                "Error allocating memory for device interface list..");
      return true;
    case DeviceListOutcome::ListRefused:
      LOG_ERROR_AS(opening.function, "Error retrieving device interface list: %d",
                   static_cast<int>(list.error));
      return false;
    case DeviceListOutcome::Fetched:
      break;
  }
  m_Device = OpenWantedInstance(opening, list).release();
  return true;
}

/// The only instance that there is, or the first whose probe stays pending; empty when there is none.
UniqueHandle CUdeIoControl::OpenWantedInstance(const InterfaceOpening& opening, const DeviceList& list) {
  const MultiStringView paths = list.Entries();
  const auto instances = std::ranges::distance(paths);
  const bool single = instances < 2;
  if (single) {
    LOG_TRACE_AS(opening.function, "Only one device interface instance found.");
  } else {
    LOG_TRACE_AS(opening.function, "More than one device interface instance found.");
  }
  if (instances == 0)
    LOG_AT_AS(opening.loopErrorLevel, opening.function, "Error: nextInterface is NULL or len is 0 failed");

  for (const wchar_t* path : paths) {
    UniqueHandle device = OpenInstance(opening, path);
    if (device == nullptr) continue;
    if (single || Probe(opening, device.get()) == Instance::Wanted) return device;
  }
  return nullptr;
}

UniqueHandle CUdeIoControl::OpenInstance(const InterfaceOpening& opening, const wchar_t* path) {
  const std::wstring_view fullPath = path;
  // A path that does not fit is cut, and then cannot be opened.
  std::array<wchar_t, kPathBufferLength> name{};
  fullPath.copy(name.data(), name.size() - 1);

  UniqueHandle device = OwnFileHandle(::CreateFileW(name.data(), GENERIC_READ | GENERIC_WRITE,
                                                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                                    OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
  if (device == nullptr) {
    LOG_ERROR_AS(opening.function, "CreateFile failed: %d", LastErrorNumber());
  } else {
    LOG_TRACE_AS(opening.function, "CreateFile Success, path length is %d",
                 static_cast<int>(fullPath.size()));
  }
  return device;
}

/// The wanted one of several instances is the one that leaves the probe pending.
CUdeIoControl::Instance CUdeIoControl::Probe(const InterfaceOpening& opening, HANDLE device) {
  DeviceRequest probe(nullptr, 0);
  if (!probe.IsReady()) {
    // The search ends here, with an instance that nobody probed.
    LOG_TRACE_AS(opening.function, "CreateEventEx failed: %d", LastErrorNumber());
    return Instance::Wanted;
  }
  ::ResetEvent(probe.Done());
  if (probe.Send(device, kProbeCode, nullptr, 0, 0) != DeviceRequest::Start::Pending) return Instance::Other;
  LOG_TRACE_AS(opening.function, "DeviceIoControl Success: ");
  if (::WaitForSingleObject(probe.Done(), INFINITE) == WAIT_OBJECT_0) probe.SetCompleted();
  return Instance::Wanted;
}

bool CUdeIoControl::SendSyncDeviceRequest(std::uint32_t code, const void* input, std::uint32_t inputSize,
                                          void* output, std::uint32_t outputSize,
                                          std::uint32_t* bytesReturned) {
  LOG_TRACE("SendSyncDeviceRequest++");
  if (bytesReturned == nullptr && (output != nullptr || outputSize != 0)) {
    LOG_WARNING("pBytesReturned is required for read operation!");
    LOG_TRACE("SendSyncDeviceRequest--");
    return false;
  }
  std::optional<DeviceRequest> request(std::in_place, output, outputSize);
  if (!request->IsReady()) {
    LOG_WARNING("SendSyncDeviceRequest--: CreateEventEx failed: %d", LastErrorNumber());
    return false;
  }
  const HANDLE device = m_Device;
  const bool sent =
      request->Send(device, code, input, inputSize, outputSize) != DeviceRequest::Start::Refused;
  if (!sent) {
    LOG_WARNING("SendSyncDeviceRequest--: DeviceIoControl failed: %d", LastErrorNumber());
  } else {
    const bool completed = RetrieveRequest(device, request->Overlapped(), false);
    if (completed) {
      request->SetCompleted();
      if (output != nullptr) std::memcpy(output, request->Output(), outputSize);
    }
    // Callers ask whether the request reached the driver: here that it completed, not how much came back,
    // and true as the result even when it did not complete.
    if (bytesReturned != nullptr) *bytesReturned = completed ? 1 : 0;
  }
  // The event is closed before the end is told.
  request.reset();
  LOG_TRACE("SendSyncDeviceRequest--");
  return sent;
}

bool CUdeIoControl::RetrieveRequest(HANDLE device, OVERLAPPED* overlapped, bool waitForever) {
  LOG_TRACE("++");
  DWORD transferred = 0;
  const DWORD timeLimit = waitForever ? INFINITE : kRequestTimeLimitMs;
  if (!::GetOverlappedResultEx(device, overlapped, &transferred, timeLimit, FALSE)) {
    LOG_WARNING("RetrieveRequest-- GetOverlappedResult failed: %d ", LastErrorNumber());
    if (!waitForever && !::CancelIoEx(device, overlapped)) {
      LOG_WARNING("CancelIoEx GetLastError: %d", LastErrorNumber());
    }
    return false;
  }
  LOG_TRACE("-- GetOverlappedResult: OK, bytes transferred: %d", static_cast<int>(transferred));
  return true;
}
