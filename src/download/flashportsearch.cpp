#include "download/flashportsearch.h"

#include <cfgmgr32.h>

#include <cwchar>
#include <memory>
#include <new>
#include <string_view>

#include "common/log.h"
#include "common/text.h"
#include "download/devicepresence.h"

namespace {

constexpr GUID kSerialPortClass = {
    0x86E0D1E0, 0x8089, 0x11D0, {0x9C, 0xE4, 0x08, 0x00, 0x3E, 0x30, 0x1F, 0x73}};

// An empty list has one character, its end.
constexpr ULONG kShortestList = 2;
constexpr std::size_t kLongestPath = 511;

constexpr wchar_t kSignalName[] = L"CFirmwareDownloader";

}  // namespace

FlashPortSearch::Sight FlashPortSearch::Look() {
  GUID serialPorts = kSerialPortClass;
  ULONG length = 0;
  const CONFIGRET sized = ::CM_Get_Device_Interface_List_SizeW(&length, &serialPorts, nullptr,
                                                               CM_GET_DEVICE_INTERFACE_LIST_PRESENT);
  if (sized != CR_SUCCESS) LOG_ERROR("Error retrieving device interface list: %d\n", static_cast<int>(sized));
  if (length < kShortestList) LOG_ERROR("Error - No active device interfaces found.\n");
  if (sized != CR_SUCCESS || length < kShortestList) return Sight::NoList;

  LOG_TRACE("deviceInterfaceListLength:%d\n", static_cast<int>(length));
  const std::unique_ptr<wchar_t[]> paths(new (std::nothrow) wchar_t[length]());
  if (paths == nullptr) {
    LOG_ERROR("Error allocating memory for device interface list.\n");
    return Sight::NotFound;
  }
  const CONFIGRET fetched = ::CM_Get_Device_Interface_ListW(&serialPorts, nullptr, paths.get(), length,
                                                            CM_GET_DEVICE_INTERFACE_LIST_PRESENT);
  if (fetched != CR_SUCCESS)
    LOG_ERROR("Error retrieving device interface list: %d\n", static_cast<int>(fetched));
  if (fetched == CR_SUCCESS && ReportFlashPortAmong(paths.get())) return Sight::Found;
  LOG_TRACE("free deviceInterfaceList");
  return fetched == CR_SUCCESS ? Sight::NotFound : Sight::NoList;
}

/// Case-sensitive, as the paths are delivered: a port that is listed in lower case is not the one.
bool FlashPortSearch::ReportFlashPortAmong(const wchar_t* paths) {
  for (const wchar_t* path = paths; *path != L'\0'; path += std::wcslen(path) + 1) {
    LOG_TRACE("Device Path: %ls\n", path);
    if (std::wcsstr(path, kFlashPortId) == nullptr) continue;
    const CTString port(std::wstring(std::wstring_view(path).substr(0, kLongestPath)));
    LOG_TRACE("Flash port found, pDeviceContext->HwId: %ls found\n", kFlashPortId);
    LOG_TRACE("mCFirmwareDownloader->m_COMPort: %s", Narrow(port).c_str());
    Report(port);
    return true;
  }
  return false;
}

bool FlashPortSearch::CreateSignal() {
  const ScopedLock lock(m_lock);
  m_signal.reset(::CreateSemaphoreW(nullptr, 0, 1, kSignalName));
  if (m_signal == nullptr) return false;
  if (!m_port.IsEmpty()) ::ReleaseSemaphore(m_signal.get(), 1, nullptr);
  return true;
}

DWORD FlashPortSearch::Wait(DWORD milliseconds, const std::atomic<bool>& abandoned) {
  const ULONGLONG begin = ::GetTickCount64();
  for (DWORD left = milliseconds;;) {
    const DWORD result = ::WaitForSingleObject(m_signal.get(), left);
    if (result == WAIT_OBJECT_0 && abandoned) ::ReleaseSemaphore(m_signal.get(), 1, nullptr);
    if (result != WAIT_OBJECT_0 || abandoned || !Port().IsEmpty()) return result;
    const ULONGLONG passed = ::GetTickCount64() - begin;
    if (passed >= milliseconds) return result;
    left = milliseconds - static_cast<DWORD>(passed);
  }
}

void FlashPortSearch::CloseSignal() {
  const ScopedLock lock(m_lock);
  m_signal.reset();
}

void FlashPortSearch::Report(const CTString& port) {
  const ScopedLock lock(m_lock);
  m_port = port;
  if (m_signal != nullptr) ::ReleaseSemaphore(m_signal.get(), 1, nullptr);
}

CTString FlashPortSearch::Port() {
  const ScopedLock lock(m_lock);
  return m_port;
}
