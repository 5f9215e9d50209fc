#pragma once

#include <windows.h>

#include <cfgmgr32.h>

#include <cwchar>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "simulator/import_patch.h"

/// A small device tree in place of the system's. A device that was once installed and is absent gives
/// an empty list for its id, one that never was an error; the empty id locates the root, as in the system.
/// Stays apart from the simulator's, whose devices follow from the modem's state: here a test names each
/// device, counts the calls, and lets one arrive between two of them.
class DeviceTree {
 public:
  /// @param module whose calls it answers.
  explicit DeviceTree(HMODULE module = ::GetModuleHandleW(L"toolkit_internals.dll")) : m_Patch(module) {
    s_tree = this;
    m_Patch.Replace("CM_Get_Device_ID_List_SizeW", &IdListSize);
    m_Patch.Replace("CM_Get_Device_ID_ListW", &IdList);
    m_Patch.Replace("CM_Get_Device_Interface_List_SizeW", &InterfaceListSize);
    // A host looks for devices and does no more.
    if (module == ::GetModuleHandleW(nullptr)) return;
    m_Patch.Replace("CM_Get_Device_Interface_ListW", &InterfaceList);
    m_Patch.Replace("CM_Locate_DevNodeW", &Locate);
    m_Patch.Replace("CM_Reenumerate_DevNode", &Reenumerate);
    m_Patch.Replace("CM_Get_DevNode_Registry_PropertyW", &Property);
  }
  ~DeviceTree() {
    m_Patch.Restore();
    s_tree = nullptr;
  }
  DeviceTree(const DeviceTree&) = delete;
  DeviceTree& operator=(const DeviceTree&) = delete;

  void Has(const std::wstring& id, const std::wstring& friendlyName = L"") {
    m_Devices.push_back({id, friendlyName});
  }
  void HasInterface(const GUID& interfaceClass, const std::wstring& path) {
    m_Interfaces.push_back({interfaceClass, path});
  }
  void OnceHad(const std::wstring& id) { m_Absent.push_back(id); }
  void OnceHadInterface(const GUID& interfaceClass, const std::wstring& path) {
    m_AbsentInterfaces.push_back({interfaceClass, path});
  }
  void LosesAllDevices() { m_Devices.clear(); }
  void LosesAllInterfaces() { m_Interfaces.clear(); }
  /// From now on the call answers with `error`.
  void Refuses(const std::string& call, CONFIGRET error) { m_Refused[call] = error; }
  /// Runs once, right after the next answer that tells a list's length.
  void AfterTellingALength(std::function<void()> change) { m_AfterLength = std::move(change); }

  int Reenumerations() const { return m_Reenumerations; }
  int CallsOf(const std::string& call) const {
    const auto found = m_Calls.find(call);
    return found == m_Calls.end() ? 0 : found->second;
  }
  std::wstring LastFilter() const { return m_LastFilter; }
  ULONG LastFlags() const { return m_LastFlags; }
  ULONG LastBufferLength() const { return m_LastBufferLength; }
  ULONG LastNameBytes() const { return m_LastNameBytes; }

 private:
  static constexpr DEVINST kRoot = 1;
  static constexpr DEVINST kFirstDevice = 100;

  struct Device {
    std::wstring id;
    std::wstring friendlyName;
  };
  struct Interface {
    GUID interfaceClass;
    std::wstring path;
  };

  /// Counts the call. @return what it answers by arrangement.
  CONFIGRET Enter(const std::string& call) {
    ++m_Calls[call];
    const auto refused = m_Refused.find(call);
    return refused == m_Refused.end() ? CR_SUCCESS : refused->second;
  }

  static CONFIGRET Tell(const std::vector<std::wstring>& texts, ULONG* length) {
    std::size_t units = 1;
    for (const std::wstring& text : texts) units += text.size() + 1;
    *length = static_cast<ULONG>(units);
    return CR_SUCCESS;
  }

  static CONFIGRET Give(const std::vector<std::wstring>& texts, wchar_t* buffer, ULONG length) {
    if (length == 0) return CR_INVALID_POINTER;
    ULONG needed = 0;
    Tell(texts, &needed);
    if (length < needed) return CR_BUFFER_SMALL;
    for (const std::wstring& text : texts) {
      text.copy(buffer, text.size());
      buffer += text.size();
      *buffer++ = L'\0';
    }
    *buffer = L'\0';
    return CR_SUCCESS;
  }

  static bool AsksForAKnownList(const wchar_t* device, ULONG flags) {
    return device == nullptr && (flags & ~ULONG{CM_GET_DEVICE_INTERFACE_LIST_BITS}) == 0;
  }

  void ToldALength() {
    if (const auto change = std::exchange(m_AfterLength, nullptr)) change();
  }

  static bool IsOf(const std::wstring& id, std::wstring_view enumeratorAndDevice) {
    const std::wstring prefix = std::wstring(enumeratorAndDevice) + L"\\";
    return ::_wcsnicmp(id.c_str(), prefix.c_str(), prefix.size()) == 0;
  }

  std::vector<std::wstring> Ids(ULONG flags) const {
    std::vector<std::wstring> ids;
    for (const Device& device : m_Devices) ids.push_back(device.id);
    if (flags != CM_GETIDLIST_FILTER_PRESENT) ids.insert(ids.end(), m_Absent.begin(), m_Absent.end());
    return ids;
  }
  static bool AsksForAllIds(const wchar_t* filter, ULONG flags) {
    return filter == nullptr && (flags == CM_GETIDLIST_FILTER_PRESENT || flags == CM_GETIDLIST_FILTER_NONE);
  }
  /// The interfaces that are present, by the flags those that once were as well: without a flag only present
  /// ones are told, for CM_GET_DEVICE_INTERFACE_LIST_PRESENT is 0.
  std::vector<std::wstring> Paths(const GUID& interfaceClass, ULONG flags) const {
    std::vector<std::wstring> paths;
    const auto add = [&](const std::vector<Interface>& interfaces) {
      for (const Interface& one : interfaces) {
        if (::IsEqualGUID(one.interfaceClass, interfaceClass)) paths.push_back(one.path);
      }
    };
    add(m_Interfaces);
    if ((flags & CM_GET_DEVICE_INTERFACE_LIST_ALL_DEVICES) != 0) add(m_AbsentInterfaces);
    return paths;
  }

  static CONFIGRET WINAPI IdListSize(ULONG* length, const wchar_t* filter, ULONG flags) {
    const CONFIGRET answer = s_tree->Enter("CM_Get_Device_ID_List_SizeW");
    if (answer != CR_SUCCESS) return answer;
    if (!AsksForAllIds(filter, flags)) return CR_INVALID_FLAG;
    Tell(s_tree->Ids(flags), length);
    s_tree->ToldALength();
    return CR_SUCCESS;
  }

  static CONFIGRET WINAPI IdList(const wchar_t* filter, wchar_t* buffer, ULONG length, ULONG flags) {
    DeviceTree& tree = *s_tree;
    const CONFIGRET answer = tree.Enter("CM_Get_Device_ID_ListW");
    if (answer != CR_SUCCESS) return answer;
    tree.m_LastFilter = filter == nullptr ? L"" : filter;
    tree.m_LastFlags = flags;
    tree.m_LastBufferLength = length;
    if (AsksForAllIds(filter, flags)) return Give(tree.Ids(flags), buffer, length);
    if (filter == nullptr) return CR_INVALID_FLAG;

    std::vector<std::wstring> ids;
    for (const Device& device : tree.m_Devices) {
      if (IsOf(device.id, filter)) ids.push_back(device.id);
    }
    bool known = !ids.empty();
    for (const std::wstring& absent : tree.m_Absent) known = known || IsOf(absent, filter);
    return known ? Give(ids, buffer, length) : CR_NO_SUCH_VALUE;
  }

  static CONFIGRET WINAPI InterfaceListSize(ULONG* length, GUID* interfaceClass, wchar_t* device,
                                            ULONG flags) {
    const CONFIGRET answer = s_tree->Enter("CM_Get_Device_Interface_List_SizeW");
    if (answer != CR_SUCCESS) return answer;
    if (!AsksForAKnownList(device, flags)) return CR_INVALID_FLAG;
    Tell(s_tree->Paths(*interfaceClass, flags), length);
    s_tree->ToldALength();
    return CR_SUCCESS;
  }

  static CONFIGRET WINAPI InterfaceList(GUID* interfaceClass, wchar_t* device, wchar_t* buffer, ULONG length,
                                        ULONG flags) {
    const CONFIGRET answer = s_tree->Enter("CM_Get_Device_Interface_ListW");
    if (!AsksForAKnownList(device, flags)) return CR_INVALID_FLAG;
    return answer == CR_SUCCESS ? Give(s_tree->Paths(*interfaceClass, flags), buffer, length) : answer;
  }

  static CONFIGRET WINAPI Locate(DEVINST* node, wchar_t* id, ULONG flags) {
    const CONFIGRET answer = s_tree->Enter("CM_Locate_DevNodeW");
    if (answer != CR_SUCCESS) return answer;
    if (flags != CM_LOCATE_DEVNODE_NORMAL) return CR_INVALID_FLAG;
    if (id == nullptr || *id == L'\0') {
      *node = kRoot;
      return CR_SUCCESS;
    }
    for (std::size_t i = 0; i < s_tree->m_Devices.size(); ++i) {
      if (s_tree->m_Devices[i].id != id) continue;
      *node = kFirstDevice + static_cast<DEVINST>(i);
      return CR_SUCCESS;
    }
    return CR_NO_SUCH_DEVNODE;
  }

  static CONFIGRET WINAPI Reenumerate(DEVINST node, ULONG flags) {
    const CONFIGRET answer = s_tree->Enter("CM_Reenumerate_DevNode");
    if (answer != CR_SUCCESS) return answer;
    if (flags != CM_REENUMERATE_NORMAL) return CR_INVALID_FLAG;
    if (node != kRoot) return CR_INVALID_DEVNODE;
    ++s_tree->m_Reenumerations;
    return CR_SUCCESS;
  }

  static CONFIGRET WINAPI Property(DEVINST node, ULONG property, ULONG*, void* buffer, ULONG* bytes, ULONG) {
    const CONFIGRET answer = s_tree->Enter("CM_Get_DevNode_Registry_PropertyW");
    if (answer != CR_SUCCESS) return answer;
    s_tree->m_LastNameBytes = *bytes;
    if (node == kRoot || property != CM_DRP_FRIENDLYNAME) return CR_NO_SUCH_VALUE;
    const std::wstring& name = s_tree->m_Devices.at(node - kFirstDevice).friendlyName;
    const std::size_t needed = (name.size() + 1) * sizeof(wchar_t);
    if (*bytes < needed) return CR_BUFFER_SMALL;
    std::wmemcpy(static_cast<wchar_t*>(buffer), name.c_str(), name.size() + 1);
    *bytes = static_cast<ULONG>(needed);
    return CR_SUCCESS;
  }

  static inline DeviceTree* s_tree = nullptr;

  simulator::ImportPatch m_Patch;
  std::vector<Device> m_Devices;
  std::vector<Interface> m_Interfaces;
  std::vector<Interface> m_AbsentInterfaces;
  std::vector<std::wstring> m_Absent;
  std::map<std::string, CONFIGRET> m_Refused;
  std::map<std::string, int> m_Calls;
  std::function<void()> m_AfterLength;
  std::wstring m_LastFilter;
  ULONG m_LastFlags = 0;
  ULONG m_LastBufferLength = 0;
  ULONG m_LastNameBytes = 0;
  int m_Reenumerations = 0;
};
