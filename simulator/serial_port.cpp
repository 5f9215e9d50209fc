#include "simulator/serial_port.h"

#include <algorithm>

#include "common/handles.h"
#include "simulator/device_tree.h"
#include "simulator/import_patch.h"
#include "simulator/machine.h"

using corvel::OwnFileHandle;
using corvel::UniqueHandle;

namespace simulator {

namespace {

std::optional<HANDLE> Refused(DWORD error) {
  ::SetLastError(error);
  return nullptr;
}

BOOL Fail(DWORD error) {
  ::SetLastError(error);
  return FALSE;
}

/// What the driver's settings are before anybody changes them.
DCB InitialSettings() {
  DCB settings{};
  settings.DCBlength = sizeof(settings);
  settings.BaudRate = CBR_9600;
  settings.fBinary = TRUE;
  settings.ByteSize = 7;
  settings.Parity = EVENPARITY;
  settings.StopBits = TWOSTOPBITS;
  settings.XonChar = 0x11;
  settings.XoffChar = 0x13;
  return settings;
}

std::shared_ptr<OpenAtPort> Find(const std::shared_ptr<Machine>& machine, HANDLE file) {
  return machine ? machine->handles.Find<OpenAtPort>(file) : nullptr;
}

/// The common beginning of the calls: tells whose call it is, and whether the port is gone.
struct SerialCall {
  explicit SerialCall(HANDLE file) : machine(CurrentMachine()), port(Find(machine, file)) {
    if (port && !IsAtPortPresent(*machine)) error = ERROR_BAD_COMMAND;
  }
  std::shared_ptr<Machine> machine;
  std::shared_ptr<OpenAtPort> port;
  std::optional<DWORD> error;
};

BOOL WINAPI SimulatedGetState(HANDLE file, LPDCB settings) {
  const SerialCall call(file);
  if (call.error) return Fail(*call.error);
  if (!call.port) return ::GetCommState(file, settings);
  const DWORD error = call.machine->options.faults.atPort.getStateError;
  if (error != ERROR_SUCCESS) return Fail(error);
  *settings = call.port->settings;
  return TRUE;
}

BOOL WINAPI SimulatedSetState(HANDLE file, LPDCB settings) {
  const SerialCall call(file);
  if (call.error) return Fail(*call.error);
  if (!call.port) return ::SetCommState(file, settings);
  const DWORD error = call.machine->options.faults.atPort.setStateError;
  if (error != ERROR_SUCCESS) return Fail(error);
  // The driver refuses flow control characters that it could not tell apart.
  if (settings->XonChar == settings->XoffChar) return Fail(ERROR_INVALID_PARAMETER);
  call.port->settings = *settings;
  return TRUE;
}

BOOL WINAPI SimulatedPurge(HANDLE file, DWORD flags) {
  const SerialCall call(file);
  if (call.error) return Fail(*call.error);
  if (!call.port) return ::PurgeComm(file, flags);
  if ((flags & PURGE_RXCLEAR) != 0) call.port->Clear();
  return TRUE;
}

BOOL WINAPI SimulatedClearError(HANDLE file, LPDWORD errors, LPCOMSTAT status) {
  const SerialCall call(file);
  if (call.error) return Fail(*call.error);
  if (!call.port) return ::ClearCommError(file, errors, status);
  if (errors != nullptr) *errors = 0;
  if (status != nullptr) {
    *status = {};
    status->cbInQue = call.port->Waiting();
  }
  return TRUE;
}

BOOL WINAPI SimulatedRead(HANDLE file, LPVOID buffer, DWORD size, LPDWORD read, LPOVERLAPPED overlapped) {
  const SerialCall call(file);
  if (call.error) return Fail(*call.error);
  if (!call.port) return ::ReadFile(file, buffer, size, read, overlapped);
  return call.port->Read({static_cast<char*>(buffer), size}, read);
}

BOOL WINAPI SimulatedWrite(HANDLE file, LPCVOID buffer, DWORD size, LPDWORD written,
                           LPOVERLAPPED overlapped) {
  const SerialCall call(file);
  if (call.error) return Fail(*call.error);
  if (!call.port) return ::WriteFile(file, buffer, size, written, overlapped);
  const DWORD error = call.machine->options.faults.atPort.writeError;
  if (error != ERROR_SUCCESS) return Fail(error);
  return call.port->Write({static_cast<const std::uint8_t*>(buffer), size}, written);
}

}  // namespace

OpenAtPort::OpenAtPort(VirtualModem& modem) : m_Modem(modem) {}

OpenAtPort::~OpenAtPort() {
  m_Modem.GiveAtPortBack();
}

BOOL OpenAtPort::Write(std::span<const std::uint8_t> bytes, LPDWORD written) {
  const std::string replies = m_Modem.HearAtBytes(bytes);
  const std::lock_guard lock(m_Mutex);
  m_Replies += replies;
  if (written != nullptr) *written = static_cast<DWORD>(bytes.size());
  return TRUE;
}

BOOL OpenAtPort::Read(std::span<char> bytes, LPDWORD read) {
  const std::lock_guard lock(m_Mutex);
  const std::size_t count = std::min(bytes.size(), m_Replies.size());
  std::copy_n(m_Replies.begin(), count, bytes.begin());
  m_Replies.erase(0, count);
  if (read != nullptr) *read = static_cast<DWORD>(count);
  return TRUE;
}

DWORD OpenAtPort::Waiting() {
  const std::lock_guard lock(m_Mutex);
  return static_cast<DWORD>(m_Replies.size());
}

void OpenAtPort::Clear() {
  const std::lock_guard lock(m_Mutex);
  m_Replies.clear();
}

std::optional<HANDLE> OpenSerialPort(Machine& machine, const std::string& path) {
  if (machine.options.atPortIsReal || !path.starts_with("\\\\.\\COM")) return {};
  const auto& faults = machine.options.faults.atPort;
  const bool isOurs = path == "\\\\.\\COM" + std::to_string(machine.options.atPortNumber);
  if (!isOurs || !IsAtPortPresent(machine)) return Refused(ERROR_FILE_NOT_FOUND);
  if (faults.openError != ERROR_SUCCESS) return Refused(faults.openError);
  if (!machine.modem.TakeAtPort()) return Refused(ERROR_ACCESS_DENIED);

  auto port = std::make_shared<OpenAtPort>(machine.modem);
  port->settings = InitialSettings();
  // The handle must be a real one, since the product closes it; nothing is done through it.
  UniqueHandle handle = OwnFileHandle(::CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                                                    nullptr, OPEN_EXISTING, 0, nullptr));
  if (handle) machine.handles.Add(handle.get(), std::move(port));
  return handle.release();
}

void PatchSerialPort(ImportPatch& patch) {
  patch.ReplaceIfImported("GetCommState", &SimulatedGetState);
  patch.ReplaceIfImported("SetCommState", &SimulatedSetState);
  patch.ReplaceIfImported("PurgeComm", &SimulatedPurge);
  patch.ReplaceIfImported("ClearCommError", &SimulatedClearError);
  patch.ReplaceIfImported("ReadFile", &SimulatedRead);
  patch.ReplaceIfImported("WriteFile", &SimulatedWrite);
}

}  // namespace simulator
