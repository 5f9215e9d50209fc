#include "download/devicepresence.h"

#include <cwchar>
#include <cwctype>

#include "common/devicelist.h"
#include "common/log.h"
#include "download/firmwaredownloader.h"

namespace {

constexpr DWORD kSettleTimeMs = 500;

/// Both forms of the scan log under this name.
constexpr char kScanForHardwareChanges[] = "CFirmwareDownloader::ScanForHardwareChanges";

void MakeUpper(wchar_t* text) {
  for (; *text != L'\0'; ++text) *text = static_cast<wchar_t>(std::towupper(*text));
}

/// Asks Plug and Play to look at the whole device tree again; it does so on its own time.
/// @return false, logged, when the tree's root was not found or the request was refused.
bool ReenumerateDeviceTree() {
  DEVINST root = 0;
  const CONFIGRET located = ::CM_Locate_DevNodeW(&root, nullptr, CM_LOCATE_DEVNODE_NORMAL);
  if (located != CR_SUCCESS) {
    LOG_ERROR_AS(kScanForHardwareChanges, "\t CM_Locate_DevNode failed: %x\n",
                 static_cast<unsigned>(located));
    return false;
  }
  const CONFIGRET reenumerated = ::CM_Reenumerate_DevNode(root, CM_REENUMERATE_NORMAL);
  if (reenumerated != CR_SUCCESS) {
    LOG_ERROR_AS(kScanForHardwareChanges, "\t CM_Reenumerate_DevNode failed: %x\n",
                 static_cast<unsigned>(reenumerated));
    return false;
  }
  return true;
}

}  // namespace

bool IsDevicePresent(const wchar_t* id) {
  const DeviceList devices = FetchPresentDeviceIds();
  for (wchar_t* device : devices.Entries()) {
    MakeUpper(device);
    if (std::wcsstr(device, id) != nullptr) return true;
  }
  return false;
}

bool CFirmwareDownloader::IsMBIMModemPresence() {
  LOG_TRACE("IsMBIMModemPresence ++");
  const bool present = IsDevicePresent(kMbimModemId);
  if (present) LOG_TRACE("MBIM modem presence");
  LOG_TRACE("IsMBIMModemPresence --");
  return present;
}

bool CFirmwareDownloader::IsFlashPortPresence() {
  LOG_TRACE("IsFlashPortPresence ++");
  const bool present = IsDevicePresent(kFlashPortId);
  if (present) LOG_TRACE("Flash port presence");
  LOG_TRACE("IsFlashPortPresence --");
  return present;
}

bool CFirmwareDownloader::ScanForHardwareChanges() {
  return ReenumerateDeviceTree();
}

void CFirmwareDownloader::ScanForHardwareChangesAndSettle() {
  ::Sleep(kSettleTimeMs);
  ReenumerateDeviceTree();
  ::Sleep(kSettleTimeMs);
}
