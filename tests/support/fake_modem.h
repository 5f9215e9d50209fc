#pragma once

#include <windows.h>

#include <cfgmgr32.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/handles.h"
#include "simulator/import_patch.h"

/// Stands for the modem and the PC around it as the library sees them: the device tree, the driver that can
/// pulse the reset line, and the AT port. Remembers what was done to it. The simulator's modem moves by a
/// running clock; this one moves when a test says so, and a call that it answers costs no file and no thread.
class FakeModem {
 public:
  enum class Mode { Absent, Normal, Flash };

  explicit FakeModem(std::function<ULONGLONG()> now) : m_Now(std::move(now)) {
    s_modem = this;
    m_Patch.Replace("CM_Get_Device_ID_List_SizeW", &IdListSize);
    m_Patch.Replace("CM_Get_Device_ID_ListW", &IdList);
    m_Patch.Replace("CM_Get_Device_Interface_List_SizeW", &InterfaceListSize);
    m_Patch.Replace("CM_Get_Device_Interface_ListW", &InterfaceList);
    m_Patch.Replace("CM_Locate_DevNodeW", &Locate);
    m_Patch.Replace("CM_Reenumerate_DevNode", &Reenumerate);
    m_Patch.Replace("CM_Get_DevNode_Registry_PropertyW", &Property);
    m_Patch.Replace("CreateFileW", &OpenWide);
    m_Patch.Replace("CreateFileA", &OpenNarrow);
    m_Patch.Replace("DeviceIoControl", &Control);
    m_Patch.Replace("GetOverlappedResultEx", &OverlappedResult);
    m_Patch.Replace("GetCommState", &GetState);
    m_Patch.Replace("SetCommState", &SetState);
    m_Patch.Replace("PurgeComm", &Purge);
    m_Patch.Replace("WriteFile", &Write);
  }
  ~FakeModem() {
    m_Patch.Restore();
    s_modem = nullptr;
  }
  FakeModem(const FakeModem&) = delete;
  FakeModem& operator=(const FakeModem&) = delete;

  /// The modem changes its mode, at once or later; nothing else is to happen to it until then.
  void Become(Mode mode, ULONGLONG afterMs = 0) {
    m_Next = {m_Now() + afterMs, mode};
    Settle();
  }
  /// It is gone, and comes back in `mode`.
  void LeaveAndBecome(Mode mode, ULONGLONG afterMs) {
    Become(Mode::Absent);
    Become(mode, afterMs);
  }

  // Its character.
  std::function<void()> onReboot = [this] { LeaveAndBecome(Mode::Flash, 2000); };
  std::function<void()> onReset = [this] { LeaveAndBecome(Mode::Flash, 2000); };
  /// Whether the AT port takes a command.
  bool takesCommands = true;
  /// Whether the driver takes the reset; a list of answers, the last one for good.
  std::vector<bool> takesResets{true};
  std::wstring flashPortPath = L"\\\\?\\USB#VID_1D5A&PID_0ACC&MI_00#1#{86e0d1e0-8089-11d0-9ce4-08003e301f73}";
  std::vector<std::wstring> otherPorts;
  CONFIGRET idListSizeResult = CR_SUCCESS;
  CONFIGRET portListSizeResult = CR_SUCCESS;
  CONFIGRET portListResult = CR_SUCCESS;
  std::optional<ULONG> portListLength;
  CONFIGRET locateResult = CR_SUCCESS;
  /// What else happens when somebody asks for the list of devices or of ports.
  std::function<void()> onIdList;
  std::function<void()> onPortList;
  /// What else happens while the driver or the AT port is opened.
  std::function<void()> onDriverOpen;
  std::function<void()> onAtPortOpen;

  /// What was done to it: "reset", "reboot" (with the command's bytes), "reenumerate".
  std::vector<std::string> heard;
  int portLists = 0;
  int idLists = 0;

  std::ptrdiff_t Count(const std::string& what) const { return std::count(heard.begin(), heard.end(), what); }

 private:
  void Settle() {
    if (m_Next && m_Now() >= m_Next->first) {
      m_Mode = m_Next->second;
      m_Next.reset();
    }
  }

  static std::wstring MultiString(const std::vector<std::wstring>& texts) {
    std::wstring list;
    for (const std::wstring& text : texts) list += text + L'\0';
    return list + L'\0';
  }
  std::wstring DeviceIds() {
    Settle();
    std::vector<std::wstring> ids{L"ROOT\\SYSTEM\\0000"};
    if (m_Mode == Mode::Normal) ids.push_back(L"usb\\vid_1d5a&pid_0ac9&mi_00\\6&1234&0&0000");
    if (m_Mode == Mode::Flash) ids.push_back(L"usb\\vid_1d5a&pid_0acc&mi_00\\6&5678&0&0000");
    return MultiString(ids);
  }
  std::wstring Interfaces(const GUID& interfaceClass) {
    constexpr unsigned long kDriverClass = 0x6568C4A1;
    if (interfaceClass.Data1 == kDriverClass) return MultiString({kDriverPath});
    Settle();
    std::vector<std::wstring> ports = otherPorts;
    if (m_Mode == Mode::Flash) ports.push_back(flashPortPath);
    return MultiString(ports);
  }
  static bool IsDriver(const GUID& interfaceClass) { return interfaceClass.Data1 == 0x6568C4A1; }

  static CONFIGRET WINAPI IdListSize(ULONG* length, PCWSTR filter, ULONG flags) {
    if (filter != nullptr || flags != CM_GETIDLIST_FILTER_PRESENT) return CR_INVALID_FLAG;
    *length = static_cast<ULONG>(s_modem->DeviceIds().size());
    return s_modem->idListSizeResult;
  }
  static CONFIGRET WINAPI IdList(PCWSTR filter, WCHAR* buffer, ULONG length, ULONG flags) {
    const ULONG byFilter = filter == nullptr ? 0 : CM_GETIDLIST_FILTER_ENUMERATOR;
    if (flags != (byFilter | CM_GETIDLIST_FILTER_PRESENT)) return CR_INVALID_FLAG;
    if (filter != nullptr) return Copy(MultiString({L"USB\\VID_1D5A&PID_0AE2&MI_00\\1"}), buffer, length);
    ++s_modem->idLists;
    if (s_modem->onIdList) s_modem->onIdList();
    return Copy(s_modem->DeviceIds(), buffer, length);
  }
  static CONFIGRET WINAPI InterfaceListSize(ULONG* length, GUID* interfaceClass, WCHAR* device, ULONG flags) {
    if (device != nullptr || flags != CM_GET_DEVICE_INTERFACE_LIST_PRESENT) return CR_INVALID_FLAG;
    *length = static_cast<ULONG>(s_modem->Interfaces(*interfaceClass).size());
    if (IsDriver(*interfaceClass)) return CR_SUCCESS;
    ++s_modem->portLists;
    if (s_modem->onPortList) s_modem->onPortList();
    *length =
        s_modem->portListLength.value_or(static_cast<ULONG>(s_modem->Interfaces(*interfaceClass).size()));
    return s_modem->portListSizeResult;
  }
  static CONFIGRET WINAPI InterfaceList(GUID* interfaceClass, WCHAR* device, WCHAR* buffer, ULONG length,
                                        ULONG flags) {
    if (device != nullptr || flags != CM_GET_DEVICE_INTERFACE_LIST_PRESENT) return CR_INVALID_FLAG;
    if (!IsDriver(*interfaceClass) && s_modem->portListResult != CR_SUCCESS) return s_modem->portListResult;
    return Copy(s_modem->Interfaces(*interfaceClass), buffer, length);
  }
  static CONFIGRET Copy(const std::wstring& list, WCHAR* buffer, ULONG length) {
    if (length < list.size()) return CR_BUFFER_SMALL;
    list.copy(buffer, list.size());
    return CR_SUCCESS;
  }
  static CONFIGRET WINAPI Locate(DEVINST* device, WCHAR*, ULONG flags) {
    if (flags != CM_LOCATE_DEVNODE_NORMAL) return CR_INVALID_FLAG;
    *device = 1;
    return s_modem->locateResult;
  }
  static CONFIGRET WINAPI Reenumerate(DEVINST, ULONG flags) {
    if (flags != CM_REENUMERATE_NORMAL) return CR_INVALID_FLAG;
    s_modem->heard.emplace_back("reenumerate");
    return CR_SUCCESS;
  }
  static CONFIGRET WINAPI Property(DEVINST, ULONG, ULONG*, void* buffer, ULONG*, ULONG) {
    constexpr wchar_t kName[] = L"Modem (COM3)";
    std::memcpy(buffer, kName, sizeof kName);
    return CR_SUCCESS;
  }

  static HANDLE WINAPI OpenWide(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                DWORD disposition, DWORD flags, HANDLE pattern) {
    if (std::wcscmp(name, kDriverPath) != 0)
      return ::CreateFileW(name, access, share, security, disposition, flags, pattern);
    if (s_modem->onDriverOpen) s_modem->onDriverOpen();
    return ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  }
  static HANDLE WINAPI OpenNarrow(LPCSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                  DWORD disposition, DWORD flags, HANDLE pattern) {
    if (std::strncmp(name, "\\\\.\\COM", 7) != 0)
      return ::CreateFileA(name, access, share, security, disposition, flags, pattern);
    if (s_modem->onAtPortOpen) s_modem->onAtPortOpen();
    return s_modem->m_Port = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  }
  static BOOL WINAPI Control(HANDLE, DWORD, LPVOID, DWORD, LPVOID, DWORD, LPDWORD, LPOVERLAPPED) {
    s_modem->heard.emplace_back("reset");
    auto& answers = s_modem->takesResets;
    const bool takes = answers.front();
    if (answers.size() > 1) answers.erase(answers.begin());
    if (takes) {
      s_modem->onReset();
    } else {
      ::SetLastError(ERROR_GEN_FAILURE);
    }
    return takes ? TRUE : FALSE;
  }
  static BOOL WINAPI OverlappedResult(HANDLE, LPOVERLAPPED, LPDWORD, DWORD, BOOL) { return TRUE; }
  static BOOL WINAPI GetState(HANDLE, LPDCB) { return TRUE; }
  static BOOL WINAPI SetState(HANDLE, LPDCB) { return TRUE; }
  static BOOL WINAPI Purge(HANDLE, DWORD) { return TRUE; }
  static BOOL WINAPI Write(HANDLE file, LPCVOID bytes, DWORD count, LPDWORD written,
                           LPOVERLAPPED overlapped) {
    if (s_modem->m_Port == nullptr || file != s_modem->m_Port)
      return ::WriteFile(file, bytes, count, written, overlapped);
    s_modem->m_Port = nullptr;
    s_modem->heard.push_back("reboot " + std::string(static_cast<const char*>(bytes), count));
    if (!s_modem->takesCommands) {
      ::SetLastError(ERROR_GEN_FAILURE);
      return FALSE;
    }
    *written = count;
    s_modem->onReboot();
    return TRUE;
  }

  static constexpr wchar_t kDriverPath[] = L"\\\\?\\UDE#1#{6568c4a1-b6ee-4e4b-bc5f-ce819e627213}";
  static inline FakeModem* s_modem = nullptr;

  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
  std::function<ULONGLONG()> m_Now;
  Mode m_Mode = Mode::Normal;
  std::optional<std::pair<ULONGLONG, Mode>> m_Next;
  HANDLE m_Port = nullptr;
};
