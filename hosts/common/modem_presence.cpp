#include "hosts/common/modem_presence.h"

#include <windows.h>

#include <cfgmgr32.h>

#include <cwchar>
#include <cwctype>
#include <string>
#include <vector>

#include "hosts/common/facts.h"

namespace hosts {

namespace {

/// The list of present devices as the device manager keeps it; empty when it does not give it.
std::vector<wchar_t> PresentDeviceList() {
  for (;;) {
    ULONG length = 0;
    if (::CM_Get_Device_ID_List_SizeW(&length, nullptr, CM_GETIDLIST_FILTER_PRESENT) != CR_SUCCESS) return {};
    std::vector<wchar_t> list(length + 1);
    switch (::CM_Get_Device_ID_ListW(nullptr, list.data(), length, CM_GETIDLIST_FILTER_PRESENT)) {
      case CR_SUCCESS:
        return list;
      case CR_BUFFER_SMALL:
        break;  // A device came in between.
      default:
        return {};
    }
  }
}

std::vector<std::wstring> PresentDeviceIds() {
  const std::vector<wchar_t> list = PresentDeviceList();
  std::vector<std::wstring> ids;
  if (list.empty()) return ids;
  for (const wchar_t* id = list.data(); *id != L'\0'; id += std::wcslen(id) + 1) {
    std::wstring& copy = ids.emplace_back(id);
    for (wchar_t& unit : copy) unit = static_cast<wchar_t>(std::towupper(unit));
  }
  return ids;
}

bool Holds(const std::vector<std::wstring>& ids, const wchar_t* part) {
  for (const std::wstring& id : ids) {
    if (id.find(part) != std::wstring::npos) return true;
  }
  return false;
}

bool ResetDriverPresent() {
  GUID resetClass = kResetClass;
  ULONG length = 0;
  return ::CM_Get_Device_Interface_List_SizeW(&length, &resetClass, nullptr,
                                              CM_GET_DEVICE_INTERFACE_LIST_PRESENT) == CR_SUCCESS &&
         length > 1;
}

}  // namespace

ModemPresence LookForModem() {
  const std::vector<std::wstring> ids = PresentDeviceIds();
  ModemPresence presence{
      .mode = ModemMode::Absent, .atPort = Holds(ids, kAtPortId), .resetDriver = ResetDriverPresent()};
  if (Holds(ids, kModemId)) {
    presence.mode = ModemMode::Mbim;
  } else if (Holds(ids, kFlashPortId)) {
    presence.mode = ModemMode::FlashPort;
  } else if (presence.atPort) {
    presence.mode = ModemMode::AtPortOnly;
  }
  return presence;
}

std::vector<std::wstring> PresentModemDevices() {
  std::vector<std::wstring> devices;
  for (const std::wstring& id : PresentDeviceIds()) {
    if (id.find(kModemVendor) == std::wstring::npos) continue;
    // Bus, device, unit: the unit may be a serial number.
    const std::size_t unit = id.find(L'\\', id.find(L'\\') + 1);
    devices.push_back(id.substr(0, unit));
  }
  return devices;
}

const char* NameOf(ModemMode mode) {
  switch (mode) {
    case ModemMode::Mbim:
      return "MBIM (normal)";
    case ModemMode::FlashPort:
      return "flash port (boot loader)";
    case ModemMode::AtPortOnly:
      return "AT port only";
    case ModemMode::Absent:
      return "absent";
  }
  return "unknown";
}

const char* TokenOf(ModemMode mode) {
  switch (mode) {
    case ModemMode::Mbim:
      return "mbim";
    case ModemMode::FlashPort:
      return "flash_port";
    case ModemMode::AtPortOnly:
      return "at_port";
    case ModemMode::Absent:
      return "absent";
  }
  return "unknown";
}

}  // namespace hosts
