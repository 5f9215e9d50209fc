#include "download/devicepresence.h"

#include <cwchar>
#include <cwctype>

#include "common/devicelist.h"
#include "common/log.h"

namespace corvel {

namespace {

constexpr DWORD kSettleTimeMs = 500;

// The procedures under whose names these log; both forms of the scan have one.
constexpr char kIsMbimModemPresence[] = "CFirmwareDownloader::IsMBIMModemPresence";
constexpr char kIsFlashPortPresence[] = "CFirmwareDownloader::IsFlashPortPresence";
constexpr char kScanForHardwareChanges[] = "CFirmwareDownloader::ScanForHardwareChanges";

void MakeUpper(wchar_t* text) {
  for (; *text != L'\0'; ++text) *text = static_cast<wchar_t>(std::towupper(*text));
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

bool IsMbimModemPresent() {
  LOG_TRACE_AS(kIsMbimModemPresence, "IsMBIMModemPresence ++");
  const bool present = IsDevicePresent(kMbimModemId);
  if (present) LOG_TRACE_AS(kIsMbimModemPresence, "MBIM modem presence");
  LOG_TRACE_AS(kIsMbimModemPresence, "IsMBIMModemPresence --");
  return present;
}

bool IsFlashPortPresent() {
  LOG_TRACE_AS(kIsFlashPortPresence, "IsFlashPortPresence ++");
  const bool present = IsDevicePresent(kFlashPortId);
  if (present) LOG_TRACE_AS(kIsFlashPortPresence, "Flash port presence");
  LOG_TRACE_AS(kIsFlashPortPresence, "IsFlashPortPresence --");
  return present;
}

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

void ReenumerateDeviceTreeAndSettle() {
  ::Sleep(kSettleTimeMs);
  ReenumerateDeviceTree();
  ::Sleep(kSettleTimeMs);
}

}  // namespace corvel
