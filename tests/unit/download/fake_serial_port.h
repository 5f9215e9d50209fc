#pragma once

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/import_patch.h"

/// The serial port of a modem in place of the system's. Apart from the simulator's, which behaves as a driver
/// does, this one records every setting and fails at any: exclusive, and with a driver whose settings,
/// failures and answers a test chooses. Ports of other numbers do not exist; other files are the system's.
class FakeSerialPort {
 public:
  explicit FakeSerialPort(const std::string& fileName) : m_FileName(fileName) {
    s_port = this;
    m_Patch.Replace("CreateFileA", &Create);
    m_Patch.Replace("CloseHandle", &Close);
    m_Patch.Replace("GetCommState", &GetState);
    m_Patch.Replace("SetCommState", &SetState);
    m_Patch.Replace("PurgeComm", &Purge);
    m_Patch.Replace("ClearCommError", &ClearError);
    m_Patch.Replace("ReadFile", &Read);
    m_Patch.Replace("WriteFile", &Write);
  }
  ~FakeSerialPort() {
    m_Patch.Restore();
    s_port = nullptr;
  }
  FakeSerialPort(const FakeSerialPort&) = delete;
  FakeSerialPort& operator=(const FakeSerialPort&) = delete;

  /// The `call` fails with ERROR_GEN_FAILURE the `time`th time it is made.
  void Fails(const std::string& call, int time = 1) { m_Failures[call] = time; }
  void HasSettings(const DCB& settings) { m_Settings = settings; }
  /// Bytes that wait together; the next batch arrives when they are read.
  void Answers(const std::string& batch) { m_Batches.push_back(batch); }
  void CutsWritesTo(DWORD bytes) { m_LongestWrite = bytes; }

  const std::vector<std::string>& Calls() const { return m_Calls; }
  /// What the port was opened with.
  struct Opening {
    DWORD access;
    DWORD share;
    bool isSecured;
    DWORD creation;
    DWORD flags;
    bool operator==(const Opening&) const = default;
  };
  const std::vector<Opening>& Openings() const { return m_Openings; }
  /// The settings that were handed in to be filled, in order.
  const std::vector<DCB>& SettingsToFill() const { return m_SettingsToFill; }
  const std::vector<std::string>& FileNames() const { return m_FileNames; }
  const std::vector<DWORD>& Purges() const { return m_Purges; }
  const std::vector<std::string>& Commands() const { return m_Commands; }
  const DCB& Settings() const { return m_Settings; }
  bool IsOpen() const { return m_Open; }
  int TimesClosed() const { return m_TimesClosed; }
  int BytesUnread() const {
    std::size_t count = 0;
    for (const std::string& batch : m_Batches) count += batch.size();
    return static_cast<int>(count);
  }

 private:
  static HANDLE Handle() { return reinterpret_cast<HANDLE>(std::intptr_t{0x5E41A1}); }

  /// Notes the call. @return false, with the last error set, when it fails by arrangement.
  bool Enter(const std::string& call) {
    m_Calls.push_back(call);
    const auto made = std::count(m_Calls.begin(), m_Calls.end(), call);
    const auto failure = m_Failures.find(call);
    const bool fails = failure != m_Failures.end() && failure->second == made;
    if (fails) ::SetLastError(ERROR_GEN_FAILURE);
    return !fails;
  }

  HANDLE Open(const char* fileName) {
    m_FileNames.push_back(fileName);
    if (!Enter("CreateFileA")) return INVALID_HANDLE_VALUE;
    if (fileName != m_FileName || m_Open) {
      ::SetLastError(m_Open ? ERROR_ACCESS_DENIED : ERROR_FILE_NOT_FOUND);
      return INVALID_HANDLE_VALUE;
    }
    m_Open = true;
    return Handle();
  }

  static HANDLE WINAPI Create(const char* fileName, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                              DWORD creation, DWORD flags, HANDLE fileTemplate) {
    if (std::string_view(fileName).starts_with("\\\\.\\COM")) {
      s_port->m_Openings.push_back({access, share, security != nullptr, creation, flags});
      return s_port->Open(fileName);
    }
    return ::CreateFileA(fileName, access, share, security, creation, flags, fileTemplate);
  }

  static BOOL WINAPI Close(HANDLE handle) {
    if (handle != Handle()) return ::CloseHandle(handle);
    s_port->m_Open = false;
    ++s_port->m_TimesClosed;
    return TRUE;
  }

  static BOOL WINAPI GetState(HANDLE, DCB* settings) {
    s_port->m_SettingsToFill.push_back(*settings);
    if (!s_port->Enter("GetCommState")) return FALSE;
    *settings = s_port->m_Settings;
    settings->DCBlength = sizeof *settings;
    return TRUE;
  }

  static BOOL WINAPI SetState(HANDLE, DCB* settings) {
    if (!s_port->Enter("SetCommState")) return FALSE;
    s_port->m_Settings = *settings;
    return TRUE;
  }

  /// Leaves a last error behind, as a call between another's failure and its report may.
  static BOOL WINAPI Purge(HANDLE, DWORD what) {
    s_port->Enter("PurgeComm");
    s_port->m_Purges.push_back(what);
    ::SetLastError(ERROR_INVALID_FUNCTION);
    return TRUE;
  }

  static BOOL WINAPI ClearError(HANDLE, DWORD*, COMSTAT* status) {
    if (!s_port->Enter("ClearCommError")) return FALSE;
    auto& batches = s_port->m_Batches;
    if (!batches.empty() && batches.front().empty()) batches.pop_front();
    status->cbInQue = batches.empty() ? 0 : static_cast<DWORD>(batches.front().size());
    return TRUE;
  }

  static BOOL WINAPI Read(HANDLE handle, void* buffer, DWORD count, DWORD* read, OVERLAPPED* overlapped) {
    if (handle != Handle()) return ::ReadFile(handle, buffer, count, read, overlapped);
    if (!s_port->Enter("ReadFile")) return FALSE;
    std::string& batch = s_port->m_Batches.front();
    *read = 0;
    if (batch.front() == kNoByte) {
      batch.erase(0, 1);
      return TRUE;
    }
    *read = std::min(count, static_cast<DWORD>(batch.size()));
    std::memcpy(buffer, batch.data(), *read);
    batch.erase(0, *read);
    return TRUE;
  }

  static BOOL WINAPI Write(HANDLE handle, const void* buffer, DWORD count, DWORD* written,
                           OVERLAPPED* overlapped) {
    if (handle != Handle()) return ::WriteFile(handle, buffer, count, written, overlapped);
    if (!s_port->Enter("WriteFile")) return FALSE;
    *written = std::min(count, s_port->m_LongestWrite);
    s_port->m_Commands.emplace_back(static_cast<const char*>(buffer), count);
    return TRUE;
  }

 public:
  /// In an answer: a read that succeeds and yields no byte.
  static constexpr char kNoByte = '\x01';

 private:
  static inline FakeSerialPort* s_port = nullptr;

  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
  std::string m_FileName;
  DCB m_Settings{};
  std::map<std::string, int> m_Failures;
  std::deque<std::string> m_Batches;
  DWORD m_LongestWrite = MAXDWORD;
  bool m_Open = false;
  int m_TimesClosed = 0;
  std::vector<std::string> m_Calls;
  std::vector<std::string> m_FileNames;
  std::vector<Opening> m_Openings;
  std::vector<DCB> m_SettingsToFill;
  std::vector<DWORD> m_Purges;
  std::vector<std::string> m_Commands;
};
