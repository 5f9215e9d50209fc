#include "download/atprocessor.h"

#include <cfgmgr32.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/facts.h"
#include "common/handles.h"
#include "common/log.h"
#include "common/neverdestroyed.h"
#include "common/worker.h"
#include "download/devicepresence.h"

using namespace corvel;

namespace {

constexpr int kOk = 0;
constexpr int kFailed = -1;
constexpr int kNoPort = -1;

constexpr DWORD kReadTimeLimitMs = 5000;
constexpr DWORD kReadPollPeriodMs = 10;

constexpr DWORD kPurgeAll = PURGE_TXABORT | PURGE_RXABORT | PURGE_TXCLEAR | PURGE_RXCLEAR;
constexpr DWORD kPurgeAfterFailure = 0xA;
static_assert(kPurgeAll == 0xF && kPurgeAfterFailure == (PURGE_RXABORT | PURGE_RXCLEAR));

constexpr ULONG kDeviceIdsLength = 1024;
constexpr ULONG kFriendlyNameBytes = 920;
constexpr std::size_t kVerifyBufferSize = 256;
constexpr std::size_t kPortNameSize = 32;
constexpr int kRsOfError = 3;

constexpr char kSendAtCmd[] = "ATProcessor::sendATCmd";
constexpr char kReadResponse[] = "ATProcessor::readResponse";

wchar_t g_deviceIds[kDeviceIdsLength];

/// Ends the read that runs.
std::atomic<std::uint32_t> g_breakFromRead{0};
std::atomic<std::uint32_t> g_latestRead{0};

/// The number of a read, and the time at which it ends at the latest.
class ReadTimeLimit {
 public:
  ReadTimeLimit() : m_Read(++g_latestRead), m_End(::GetTickCount64() + kReadTimeLimitMs) {}

  /// Starts the thread that ends the read. One that comes back after its read leaves later ones alone.
  void Start() const {
    // Without a thread IsOver ends the read all the same.
    StartWorker(
        [read = m_Read] {
          ::Sleep(kReadTimeLimitMs);
          if (g_latestRead == read) g_breakFromRead = 1;
        },
        WorkerStack::Default);
  }

  bool IsOver() const { return g_breakFromRead != 0 || ::GetTickCount64() >= m_End; }

 private:
  std::uint32_t m_Read;
  ULONGLONG m_End;
};

/// Looks for the end of a reply. Each batch of bytes has a watch of its own: an end that two batches share
/// is not seen.
class ReplyEndWatch {
 public:
  enum class Sight { Nothing, Ok, Error };

  Sight See(char byte) {
    const bool ok = byte == 'K' && m_Previous == 'O';
    const bool error = byte == 'R' && ++m_Rs == kRsOfError;
    m_Previous = byte;
    if (ok) return Sight::Ok;
    return error ? Sight::Error : Sight::Nothing;
  }

 private:
  char m_Previous = '\0';
  int m_Rs = 0;
};

/// All decimal digits of the text as one number.
int NumberFromAllDigits(const wchar_t* text) {
  std::wstring digits;
  for (; *text != L'\0'; ++text) {
    if (*text >= L'0' && *text <= L'9') digits += *text;
  }
  return ::_wtoi(digits.c_str());
}

unsigned Unsigned(char byte) {
  return static_cast<unsigned char>(byte);
}

/// The one that the modem's port is used through. It is made while the module is loaded: whoever comes first
/// may be a worker without memory for anything.
class TheProcessor : public ATProcessor {};
NeverDestroyed<TheProcessor> g_processor;

}  // namespace

ATProcessor::ATProcessor() {
  // Nothing deletes it, so it must not hold memory either. Without debug information nothing can fail.
  static_cast<void>(::InitializeCriticalSectionEx(&m_Section, 0, CRITICAL_SECTION_NO_DEBUG_INFO));
}

ATProcessor* ATProcessor::GetInstance() {
  return &*g_processor;
}

int ATProcessor::findComPort(const wchar_t* filter) {
  LOG_TRACE("%s ++\n", QUALIFIED_FUNCTION);
  int port = 0;
  // One more than the call may fill, so that a name that fills it has an end.
  std::array<wchar_t, kFriendlyNameBytes / sizeof(wchar_t) + 1> name{};
  ULONG nameBytes = kFriendlyNameBytes;
  DEVINST device = 0;

  CONFIGRET result = ::CM_Get_Device_ID_ListW(filter, g_deviceIds, kDeviceIdsLength,
                                              CM_GETIDLIST_FILTER_ENUMERATOR | CM_GETIDLIST_FILTER_PRESENT);
  if (result == CR_SUCCESS) {
    LOG_WARNING("CM_Get_Device_ID_List: %ls\n", g_deviceIds);
    // The list's first id. An empty list has none and locates the tree's root, which has no friendly name.
    result = ::CM_Locate_DevNodeW(&device, g_deviceIds, CM_LOCATE_DEVNODE_NORMAL);
  }
  if (result == CR_SUCCESS) {
    result =
        ::CM_Get_DevNode_Registry_PropertyW(device, CM_DRP_FRIENDLYNAME, nullptr, name.data(), &nameBytes, 0);
  }
  if (result == CR_SUCCESS) port = NumberFromAllDigits(name.data());
  LOG_TRACE("%s --\n", QUALIFIED_FUNCTION);
  return port;
}

int ATProcessor::sendATCmd(const char* command, std::uint32_t length, char* response,
                           std::uint32_t* responseLength) {
  return sendATCmd(command, length, response, responseLength, [] { return false; });
}

int ATProcessor::sendATCmd(const char* command, std::uint32_t length, char* response,
                           std::uint32_t* responseLength, const std::function<bool()>& isAbandoned) {
  LOG_TRACE("%s ++\n", QUALIFIED_FUNCTION);
  // A port that is not there has the number 0, and is then found missing by the open.
  const int port = findComPort(facts::kAtPortId);
  if (port == kNoPort) {
    LOG_ERROR("Can't find COM port\n");
    return kFailed;
  }
  LOG_TRACE("%s find port:%d\n", QUALIFIED_FUNCTION, port);

  std::array<char, kPortNameSize> fileName{};
  std::snprintf(fileName.data(), fileName.size(), "\\\\.\\COM%d", port);
  // Held until the port is closed: another exchange that came between would overwrite the handle with its own
  // failed open, and the port would stay open for good. It can be entered again by the steps inside.
  ::EnterCriticalSection(&m_Section);
  const int result = Exchange(fileName.data(), command, length, response, responseLength, isAbandoned);
  ::LeaveCriticalSection(&m_Section);
  return result;
}

/// From the open to the close.
int ATProcessor::Exchange(const char* fileName, const char* command, std::uint32_t length, char* response,
                          std::uint32_t* responseLength, const std::function<bool()>& isAbandoned) {
  // An open that fails keeps the section for good: not for somebody who was given up.
  bool abandoned = isAbandoned();
  if (!abandoned && !openPort(fileName)) {
    LOG_ERROR_AS(kSendAtCmd, "openPort failed\n");
    return kFailed;
  }

  int result = kFailed;
  abandoned = abandoned || isAbandoned();
  if (abandoned) {
    LOG_WARNING_AS(kSendAtCmd, "Given up meanwhile, nothing is written\n");
  } else if (!writeCmd(command, length)) {
    LOG_ERROR_AS(kSendAtCmd, "writeCmd failed\n");
  } else if (response != nullptr && responseLength != nullptr && *responseLength != 0) {
    result = readResponse(response, responseLength);
  } else {
    result = kOk;
  }
  closePort();
  LOG_TRACE_AS(kSendAtCmd, "%s --\n", kSendAtCmd);
  return result;
}

bool ATProcessor::openPort(const char* fileName) {
  ::EnterCriticalSection(&m_Section);
  m_Port = ::CreateFileA(fileName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  if (m_Port == INVALID_HANDLE_VALUE || !ConfigurePort()) {
    // Intended, do not tidy: a failed open keeps the section owned by this thread and the port open, and
    // the next open overwrites the handle. Later attempts fail the way they are known to.
    return false;
  }
  // A purge that fails fails the open no more than it ever did: there is nothing in a port just opened.
  ::PurgeComm(m_Port, kPurgeAll);
  ::LeaveCriticalSection(&m_Section);
  return true;
}

bool ATProcessor::ConfigurePort() {
  DCB settings{};
  settings.DCBlength = sizeof settings;
  if (!::GetCommState(m_Port, &settings)) return false;
  settings.BaudRate = CBR_115200;
  settings.ByteSize = 8;
  settings.Parity = NOPARITY;
  settings.StopBits = ONESTOPBIT;
  settings.fDtrControl = DTR_CONTROL_ENABLE;
  settings.fRtsControl = RTS_CONTROL_ENABLE;
  settings.fOutX = TRUE;
  return ::SetCommState(m_Port, &settings) && ::GetCommState(m_Port, &settings);
}

void ATProcessor::closePort() {
  const HANDLE port = m_Port.exchange(INVALID_HANDLE_VALUE);
  if (port != INVALID_HANDLE_VALUE) ::CloseHandle(port);
}

bool ATProcessor::writeCmd(const char* command, std::uint32_t length) {
  if (m_Port == INVALID_HANDLE_VALUE) {
    LOG_ERROR("%s comm is not opened\n", QUALIFIED_FUNCTION);
    return false;
  }
  ::EnterCriticalSection(&m_Section);
  ::PurgeComm(m_Port, kPurgeAll);
  for (std::uint32_t i = 0; i < length; ++i) LOG_WARNING("send command 0x%2x\n", Unsigned(command[i]));

  // The count does not matter: a driver's own time-out may cut it short and still report success.
  DWORD written = 0;
  if (!::WriteFile(m_Port, command, length, &written, nullptr)) {
    const DWORD error = ::GetLastError();
    ::PurgeComm(m_Port, kPurgeAfterFailure);
    ::LeaveCriticalSection(&m_Section);
    LOG_ERROR("%s write at command failed with error 0x%x\n", QUALIFIED_FUNCTION,
              static_cast<unsigned>(error));
    return false;
  }
  ::LeaveCriticalSection(&m_Section);
  LOG_ERROR("%s write at command success\n", QUALIFIED_FUNCTION);
  return true;
}

int ATProcessor::readResponse(char* buffer, std::uint32_t* length) {
  const ReadTimeLimit timeLimit;
  timeLimit.Start();
  g_breakFromRead = 0;
  LOG_TRACE("%s ++\n", QUALIFIED_FUNCTION);

  ::EnterCriticalSection(&m_Section);
  if (timeLimit.IsOver()) {
    *length = 0;
    ::LeaveCriticalSection(&m_Section);
    return kOk;
  }
  std::uint32_t stored = 0;
  while (stored < *length) {
    const std::uint32_t waiting = bytesWaiting();
    if (waiting == 0) {
      ::Sleep(kReadPollPeriodMs);
    } else {
      stored += ReadBatch(waiting, buffer + stored, *length - stored);
    }
    if (timeLimit.IsOver()) break;
  }
  if (stored == *length) g_breakFromRead = 1;
  *length = stored;
  ::LeaveCriticalSection(&m_Section);
  LOG_TRACE("%s --\n", QUALIFIED_FUNCTION);
  return kOk;
}

/// Reads a batch of waiting bytes to its end, or until the room is full. @return the number stored.
std::uint32_t ATProcessor::ReadBatch(std::uint32_t waiting, char* buffer, std::uint32_t room) {
  ReplyEndWatch watch;
  std::uint32_t stored = 0;
  for (; waiting > 0 && stored < room; --waiting) {
    char byte = '\0';
    if (!readByte(&byte)) continue;
    buffer[stored++] = byte;
    switch (watch.See(byte)) {
      case ReplyEndWatch::Sight::Ok:
        LOG_WARNING_AS(kReadResponse, "%s: g_breakFromRead = true OK\n", kReadResponse);
        g_breakFromRead = 1;
        break;
      case ReplyEndWatch::Sight::Error:
        LOG_WARNING_AS(kReadResponse, "%s: g_breakFromRead = true ERROR\n", kReadResponse);
        g_breakFromRead = 1;
        break;
      case ReplyEndWatch::Sight::Nothing:
        break;
    }
  }
  return stored;
}

std::uint32_t ATProcessor::bytesWaiting() {
  DWORD errors = 0;
  COMSTAT status{};
  return ::ClearCommError(m_Port, &errors, &status) ? status.cbInQue : 0;
}

bool ATProcessor::readByte(char* byte) {
  DWORD read = 0;
  if (!::ReadFile(m_Port, byte, 1, &read, nullptr)) {
    ::PurgeComm(m_Port, kPurgeAfterFailure);
    return false;
  }
  return read == 1;
}

bool ATProcessor::verifyATExcutable() {
  LOG_TRACE("%s ++\n", QUALIFIED_FUNCTION);
  // Four bytes: the modem gets the terminating zero as well.
  constexpr char kCommand[] = "at\r";
  // One more than the read may fill, so that the text has an end.
  std::array<char, kVerifyBufferSize + 1> response{};
  std::uint32_t length = kVerifyBufferSize;

  if (writeCmd(kCommand, sizeof kCommand)) {
    const int result = readResponse(response.data(), &length);
    LOG_WARNING("%s response length:%d\n", QUALIFIED_FUNCTION, static_cast<int>(length));
    LOG_WARNING("%s response is: %10s\n", QUALIFIED_FUNCTION, response.data());
    for (std::uint32_t i = 0; i < length; ++i) {
      LOG_WARNING("%s response[%d] is: 0x%2x\n", QUALIFIED_FUNCTION, static_cast<int>(i),
                  Unsigned(response[i]));
    }
    // A read answers 0 whatever it read, so this never holds. Nothing relies on this check.
    if (result != kOk && length >= 2 && std::strstr(response.data(), "OK") != nullptr) return true;
  }
  LOG_TRACE("%s -- failed\n", QUALIFIED_FUNCTION);
  return false;
}
