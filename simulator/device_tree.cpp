#include "simulator/device_tree.h"

#include <initguid.h>
#include <windows.h>

#include <cfgmgr32.h>

#include <algorithm>
#include <cwchar>
#include <cwctype>
#include <optional>
#include <string_view>

#include "simulator/import_patch.h"
#include "simulator/machine.h"

namespace simulator {

namespace {

constexpr wchar_t kMbimId[] = L"USB\\VID_1D5A&PID_0AC9&MI_00\\6&2C5F1A07&0&0000";
constexpr wchar_t kMbimThirdId[] = L"USB\\VID_1D5A&PID_0AC9&MI_02\\6&2C5F1A07&0&0002";
constexpr wchar_t kAtPortId[] = L"USB\\VID_1D5A&PID_0AE2&MI_00\\6&2C5F1A07&0&0004";
constexpr wchar_t kFlashPortId[] = L"USB\\VID_1D5A&PID_0ACC&MI_00\\6&2C5F1A07&0&0000";
constexpr wchar_t kUdeId[] = L"ROOT\\UDE\\0000";
constexpr wchar_t kNewcomerId[] = L"USB\\VID_046D&PID_C52B\\5&1D1E5B3A&0&9";

constexpr wchar_t kSerialClass[] = L"{86e0d1e0-8089-11d0-9ce4-08003e301f73}";
constexpr wchar_t kUdeControlClass[] = L"{e7b2ccdc-4dd8-4b33-88f3-c0561b9470c9}";
constexpr wchar_t kUdeFlashClass[] = L"{6568c4a1-b6ee-4e4b-bc5f-ce819e627213}";

constexpr GUID kSerialGuid{0x86E0D1E0, 0x8089, 0x11D0, {0x9C, 0xE4, 0x08, 0x00, 0x3E, 0x30, 0x1F, 0x73}};
constexpr GUID kUdeControlGuid{0xE7B2CCDC, 0x4DD8, 0x4B33, {0x88, 0xF3, 0xC0, 0x56, 0x1B, 0x94, 0x70, 0xC9}};
constexpr GUID kUdeFlashGuid{0x6568C4A1, 0xB6EE, 0x4E4B, {0xBC, 0x5F, 0xCE, 0x81, 0x9E, 0x62, 0x72, 0x13}};

constexpr DEVINST kRoot = 1;
constexpr std::size_t kSizeOfEmptyList = 1;

using Texts = std::vector<std::wstring>;

std::wstring LowerCase(std::wstring text) {
  for (auto& character : text)
    character = static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(character)));
  return text;
}

/// "\\?\USB#VID...#instance#{class}": how Windows makes a path of an id and a class.
std::wstring InterfacePath(std::wstring id, std::wstring_view interfaceClass) {
  std::ranges::replace(id, L'\\', L'#');
  return L"\\\\?\\" + id + L"#" + std::wstring(interfaceClass);
}

Texts OtherDevices() {
  return {L"HTREE\\ROOT\\0", L"ACPI\\PNP0501\\1",
          L"PCI\\VEN_8086&DEV_A0ED&SUBSYS_22C917AA&REV_20\\3&11583659&0&A0",
          L"USB\\ROOT_HUB30\\4&2A9FDC6F&0&0", L"USB\\VID_06CB&PID_00BD\\0A1B2C3D4E5F"};
}

/// Ids of the devices that are there now; other devices stand in front of the modem's and behind them.
Texts PresentDevices(Machine& machine) {
  Texts ids;
  const auto& faults = machine.options.faults;
  if (!faults.tree.withoutOtherDevices) ids = OtherDevices();
  if (!faults.driver.absent) ids.push_back(kUdeId);
  if (machine.modem.IsPresentAsModem()) {
    ids.push_back(kMbimThirdId);
    ids.push_back(kMbimId);
  }
  if (IsAtPortPresent(machine)) ids.push_back(kAtPortId);
  if (machine.modem.IsPresentAsFlashPort()) {
    ids.push_back(faults.modem.flashPortLowerCase ? LowerCase(kFlashPortId) : kFlashPortId);
  }
  if (!faults.tree.withoutOtherDevices) ids.push_back(L"SWD\\PRINTENUM\\PRINTQUEUES");
  if (!faults.tree.lowerCaseIds) return ids;
  std::ranges::transform(ids, ids.begin(), LowerCase);
  return ids;
}

/// All devices that were ever installed: what a filter may name without being refused.
Texts KnownDevices(Machine& machine) {
  Texts ids = PresentDevices(machine);
  for (const wchar_t* id : {kMbimId, kMbimThirdId, kAtPortId, kFlashPortId}) ids.emplace_back(id);
  return ids;
}

/// One component of an id: 0 the enumerator, 1 the device, 2 the instance.
std::wstring_view Component(std::wstring_view id, int number) {
  for (; number > 0; --number) {
    const auto end = id.find(L'\\');
    if (end == std::wstring_view::npos) return {};
    id.remove_prefix(end + 1);
  }
  return id.substr(0, id.find(L'\\'));
}

/// A filter names an enumerator, or enumerator and device; each component counts as a whole, whatever its
/// case.
bool PassesFilter(const std::wstring& id, const std::wstring& filter) {
  const auto isEqual = [&](int number) {
    return EqualIgnoringCase(std::wstring(Component(id, number)), std::wstring(Component(filter, number)));
  };
  return isEqual(0) && (Component(filter, 1).empty() || isEqual(1));
}

Texts Filtered(Texts ids, const std::wstring& filter) {
  std::erase_if(ids, [&](const std::wstring& id) { return !PassesFilter(id, filter); });
  return ids;
}

Texts PresentInterfaces(Machine& machine, const GUID& interfaceClass) {
  Texts paths;
  const auto& faults = machine.options.faults;
  if (IsEqualGUID(interfaceClass, kUdeFlashGuid)) return UdePaths(machine);
  if (IsEqualGUID(interfaceClass, kUdeControlGuid)) {
    if (!faults.driver.absent) paths.push_back(InterfacePath(kUdeId, kUdeControlClass));
    return paths;
  }
  if (!IsEqualGUID(interfaceClass, kSerialGuid)) return paths;
  if (!faults.tree.withoutOtherDevices) paths.push_back(InterfacePath(L"ACPI\\PNP0501\\1", kSerialClass));
  if (IsAtPortPresent(machine)) paths.push_back(InterfacePath(kAtPortId, kSerialClass));
  if (machine.modem.IsPresentAsFlashPort()) paths.push_back(FlashPortPath(machine));
  return paths;
}

/// The interfaces of the modem and the driver, whether they are there or not.
Texts InstalledInterfaces(const Machine& machine, const GUID& interfaceClass) {
  if (IsEqualGUID(interfaceClass, kUdeFlashGuid)) return {RightUdePath(machine)};
  if (IsEqualGUID(interfaceClass, kUdeControlGuid)) return {InterfacePath(kUdeId, kUdeControlClass)};
  if (!IsEqualGUID(interfaceClass, kSerialGuid)) return {};
  return {InterfacePath(kAtPortId, kSerialClass), FlashPortPath(machine)};
}

bool AreKnownInterfaceFlags(ULONG flags) {
  return (flags & ~ULONG{CM_GET_DEVICE_INTERFACE_LIST_BITS}) == 0;
}

/// What a list of one class holds: all that was ever installed, or what is there now. The flag for what is
/// there now is 0, so that no flag asks for it as well.
Texts Interfaces(Machine& machine, const GUID& interfaceClass, ULONG flags) {
  Texts paths = PresentInterfaces(machine, interfaceClass);
  if ((flags & CM_GET_DEVICE_INTERFACE_LIST_ALL_DEVICES) == 0) return paths;
  for (const std::wstring& path : InstalledInterfaces(machine, interfaceClass)) {
    if (std::ranges::find(paths, path) == paths.end()) paths.push_back(path);
  }
  return paths;
}

std::size_t SizeOf(const Texts& texts) {
  std::size_t size = kSizeOfEmptyList;
  for (const auto& text : texts) size += text.size() + 1;
  return size;
}

CONFIGRET Deliver(const Texts& texts, PWSTR buffer, ULONG length) {
  if (buffer == nullptr || length == 0) return CR_INVALID_POINTER;
  if (SizeOf(texts) > length) return CR_BUFFER_SMALL;
  for (const auto& text : texts) buffer = std::copy_n(text.c_str(), text.size() + 1, buffer);
  *buffer = L'\0';
  return CR_SUCCESS;
}

/// Answers a size query of one kind of list, with that kind's faults.
CONFIGRET AnswerSize(Machine& machine, const ListFaults& faults, const char* list, PULONG size,
                     const Texts& texts) {
  if (size == nullptr) return CR_INVALID_POINTER;
  if (faults.sizeQueryFails.Hits(machine.CountLook(std::string(list) + " size"))) return faults.code;
  *size = static_cast<ULONG>(SizeOf(texts));
  return CR_SUCCESS;
}

CONFIGRET AnswerList(Machine& machine, const ListFaults& faults, const char* list, PWSTR buffer, ULONG length,
                     Texts texts) {
  const int number = machine.CountLook(list);
  if (faults.listQueryFails.Hits(number)) return faults.code;
  if (faults.grows.Hits(number)) texts.insert(texts.begin(), kNewcomerId);
  return Deliver(texts, buffer, length);
}

const ListFaults& FaultsOf(const Machine& machine, const GUID& interfaceClass) {
  const auto& tree = machine.options.faults.tree;
  return IsEqualGUID(interfaceClass, kSerialGuid) ? tree.serialInterfaces : tree.udeInterfaces;
}

const char* ListName(const GUID& interfaceClass) {
  return IsEqualGUID(interfaceClass, kSerialGuid) ? "serial interfaces" : "driver interfaces";
}

/// The devices that a filter and its flags choose, or the reason why there is no list.
CONFIGRET Choose(Machine& machine, PCWSTR filter, ULONG flags, Texts& ids) {
  const bool isFiltered = (flags & CM_GETIDLIST_FILTER_ENUMERATOR) != 0;
  if (isFiltered && filter == nullptr) return CR_INVALID_POINTER;
  const bool isPresentOnly = (flags & CM_GETIDLIST_FILTER_PRESENT) != 0;
  ids = isPresentOnly ? PresentDevices(machine) : KnownDevices(machine);
  if (!isFiltered) return CR_SUCCESS;
  if (Filtered(KnownDevices(machine), filter).empty()) return CR_NO_SUCH_VALUE;
  ids = Filtered(std::move(ids), filter);
  return CR_SUCCESS;
}

CONFIGRET WINAPI SimulatedIdListSize(PULONG size, PCWSTR filter, ULONG flags) {
  const auto machine = CurrentMachine();
  if (!machine) return ::CM_Get_Device_ID_List_SizeW(size, filter, flags);
  Texts ids;
  if (const CONFIGRET result = Choose(*machine, filter, flags, ids); result != CR_SUCCESS) return result;
  return AnswerSize(*machine, machine->options.faults.tree.deviceIds, "device ids", size, ids);
}

CONFIGRET WINAPI SimulatedIdList(PCWSTR filter, PWSTR buffer, ULONG length, ULONG flags) {
  const auto machine = CurrentMachine();
  if (!machine) return ::CM_Get_Device_ID_ListW(filter, buffer, length, flags);
  Texts ids;
  if (const CONFIGRET result = Choose(*machine, filter, flags, ids); result != CR_SUCCESS) return result;
  if ((flags & CM_GETIDLIST_FILTER_ENUMERATOR) != 0) return Deliver(ids, buffer, length);
  return AnswerList(*machine, machine->options.faults.tree.deviceIds, "device ids", buffer, length,
                    std::move(ids));
}

CONFIGRET WINAPI SimulatedInterfaceListSize(PULONG size, LPGUID interfaceClass, DEVINSTID_W id, ULONG flags) {
  const auto machine = CurrentMachine();
  if (!machine) return ::CM_Get_Device_Interface_List_SizeW(size, interfaceClass, id, flags);
  if (interfaceClass == nullptr) return CR_INVALID_POINTER;
  if (!AreKnownInterfaceFlags(flags)) return CR_INVALID_FLAG;
  return AnswerSize(*machine, FaultsOf(*machine, *interfaceClass), ListName(*interfaceClass), size,
                    Interfaces(*machine, *interfaceClass, flags));
}

CONFIGRET WINAPI SimulatedInterfaceList(LPGUID interfaceClass, DEVINSTID_W id, PWSTR buffer, ULONG length,
                                        ULONG flags) {
  const auto machine = CurrentMachine();
  if (!machine) return ::CM_Get_Device_Interface_ListW(interfaceClass, id, buffer, length, flags);
  if (interfaceClass == nullptr) return CR_INVALID_POINTER;
  if (!AreKnownInterfaceFlags(flags)) return CR_INVALID_FLAG;
  return AnswerList(*machine, FaultsOf(*machine, *interfaceClass), ListName(*interfaceClass), buffer, length,
                    Interfaces(*machine, *interfaceClass, flags));
}

/// A device's instance number: its place among the known ones, so that it stays the same.
std::optional<DEVINST> InstanceOf(Machine& machine, const std::wstring& id) {
  const Texts present = PresentDevices(machine);
  if (std::ranges::none_of(present, [&](const auto& each) { return EqualIgnoringCase(each, id); })) return {};
  return EqualIgnoringCase(id, kAtPortId) ? kRoot + 1 : kRoot + 2;
}

CONFIGRET WINAPI SimulatedLocate(PDEVINST instance, DEVINSTID_W id, ULONG flags) {
  const auto machine = CurrentMachine();
  if (!machine) return ::CM_Locate_DevNodeW(instance, id, flags);
  const auto& tree = machine->options.faults.tree;
  if (instance == nullptr) return CR_INVALID_POINTER;
  if (tree.locateFails.Hits(machine->CountLook("locate"))) return tree.code;
  // No id and an empty one both name the root of the tree.
  if (id == nullptr || *id == L'\0') {
    *instance = kRoot;
    return CR_SUCCESS;
  }
  const auto found = InstanceOf(*machine, id);
  if (!found) return CR_NO_SUCH_DEVNODE;
  *instance = *found;
  return CR_SUCCESS;
}

CONFIGRET WINAPI SimulatedReenumerate(DEVINST instance, ULONG flags) {
  const auto machine = CurrentMachine();
  if (!machine) return ::CM_Reenumerate_DevNode(instance, flags);
  const auto& tree = machine->options.faults.tree;
  if (tree.reenumerateFails.Hits(machine->CountLook("reenumerate"))) return tree.code;
  if (instance != kRoot) return CR_INVALID_DEVNODE;
  machine->Note(JournalEvent::Reenumeration, "");
  return CR_SUCCESS;
}

std::wstring FriendlyName(const Machine& machine) {
  std::wstring name = machine.options.atPortName;
  const auto place = name.find(L"%d");
  if (place != std::wstring::npos) name.replace(place, 2, std::to_wstring(machine.options.atPortNumber));
  return name;
}

CONFIGRET WINAPI SimulatedProperty(DEVINST instance, ULONG property, PULONG type, PVOID buffer, PULONG length,
                                   ULONG flags) {
  const auto machine = CurrentMachine();
  if (!machine) return ::CM_Get_DevNode_Registry_PropertyW(instance, property, type, buffer, length, flags);
  if (length == nullptr) return CR_INVALID_POINTER;
  // Neither the root nor the other devices have a friendly name.
  if (instance != kRoot + 1 || property != CM_DRP_FRIENDLYNAME) return CR_NO_SUCH_VALUE;
  const std::wstring name = FriendlyName(*machine);
  const auto size = static_cast<ULONG>((name.size() + 1) * sizeof(wchar_t));
  const bool fits = buffer != nullptr && *length >= size;
  *length = size;
  if (!fits) return CR_BUFFER_SMALL;
  if (type != nullptr) *type = REG_SZ;
  std::copy_n(name.c_str(), name.size() + 1, static_cast<wchar_t*>(buffer));
  return CR_SUCCESS;
}

}  // namespace

bool EqualIgnoringCase(const std::wstring& left, const std::wstring& right) {
  return LowerCase(left) == LowerCase(right);
}

std::wstring FlashPortPath(const Machine& machine) {
  std::wstring path = InterfacePath(kFlashPortId, kSerialClass);
  return machine.options.faults.modem.flashPortLowerCase ? LowerCase(std::move(path)) : path;
}

std::vector<std::wstring> UdePaths(const Machine& machine) {
  const auto& driver = machine.options.faults.driver;
  if (driver.absent) return {};
  Texts paths{RightUdePath(machine)};
  if (!driver.twoInstances) return paths;
  const std::wstring wrong = InterfacePath(L"ROOT\\UDE\\0001", kUdeFlashClass);
  paths.insert(driver.rightInstanceFirst ? paths.end() : paths.begin(), wrong);
  return paths;
}

std::wstring RightUdePath(const Machine&) {
  return InterfacePath(kUdeId, kUdeFlashClass);
}

bool IsAtPortPresent(Machine& machine) {
  return !machine.options.faults.atPort.absent && machine.modem.IsPresentAsModem();
}

void PatchDeviceTree(ImportPatch& patch) {
  patch.ReplaceIfImported("CM_Get_Device_ID_List_SizeW", &SimulatedIdListSize);
  patch.ReplaceIfImported("CM_Get_Device_ID_ListW", &SimulatedIdList);
  patch.ReplaceIfImported("CM_Get_Device_Interface_List_SizeW", &SimulatedInterfaceListSize);
  patch.ReplaceIfImported("CM_Get_Device_Interface_ListW", &SimulatedInterfaceList);
  patch.ReplaceIfImported("CM_Locate_DevNodeW", &SimulatedLocate);
  patch.ReplaceIfImported("CM_Reenumerate_DevNode", &SimulatedReenumerate);
  patch.ReplaceIfImported("CM_Get_DevNode_Registry_PropertyW", &SimulatedProperty);
}

}  // namespace simulator
