#include "download/devicepresence.h"
#include <cstdlib>
#include "download/firmwaredownloader.h"
bool IsDevicePresent(const wchar_t*) {
  std::abort();
}
bool CFirmwareDownloader::IsMBIMModemPresence() {
  std::abort();
}
bool CFirmwareDownloader::IsFlashPortPresence() {
  std::abort();
}
bool CFirmwareDownloader::ScanForHardwareChanges() {
  std::abort();
}
void CFirmwareDownloader::ScanForHardwareChangesAndSettle() {
  std::abort();
}
