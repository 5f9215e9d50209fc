#include "download/flashportsearch.h"

#include <cwchar>
#include <string_view>

#include "common/devicelist.h"
#include "common/facts.h"
#include "common/log.h"
#include "common/narrow.h"
#include "download/devicepresence.h"

namespace corvel {

namespace {

constexpr std::size_t kLongestPath = 511;

constexpr wchar_t kSignalName[] = L"CFirmwareDownloader";

constexpr char kCheckFlashPort[] = "CFirmwareDownloader::CheckFlashPortImplementation";

}  // namespace

FlashPortSearch::Sight FlashPortSearch::Look() {
  const DeviceList list = FetchPresentInterfaces(facts::kSerialPortClass);
  const bool lengthRefused = list.outcome == DeviceListOutcome::LengthRefused;
  if (lengthRefused)
    LOG_ERROR_AS(kCheckFlashPort, "Error retrieving device interface list: %d\n",
                 static_cast<int>(list.error));
  if (list.length < kShortestFilledList)
    LOG_ERROR_AS(kCheckFlashPort, "Error - No active device interfaces found.\n");
  if (lengthRefused || list.length < kShortestFilledList) return Sight::NoList;

  LOG_TRACE_AS(kCheckFlashPort, "deviceInterfaceListLength:%d\n", static_cast<int>(list.length));
  if (list.outcome == DeviceListOutcome::NoMemory) {
    LOG_ERROR_AS(kCheckFlashPort, "Error allocating memory for device interface list.\n");
    return Sight::NotFound;
  }
  const bool fetched = list.outcome == DeviceListOutcome::Fetched;
  if (!fetched)
    LOG_ERROR_AS(kCheckFlashPort, "Error retrieving device interface list: %d\n",
                 static_cast<int>(list.error));
  if (ReportFlashPortAmong(list.Entries())) return Sight::Found;
  LOG_TRACE_AS(kCheckFlashPort, "free deviceInterfaceList");
  return fetched ? Sight::NotFound : Sight::NoList;
}

/// Case-sensitive, as the paths are delivered: a port that is listed in lower case is not the one.
bool FlashPortSearch::ReportFlashPortAmong(const MultiStringView& paths) {
  for (const wchar_t* path : paths) {
    LOG_TRACE_AS(kCheckFlashPort, "Device Path: %ls\n", path);
    if (std::wcsstr(path, facts::kFlashPortId) == nullptr) continue;
    const CTString port(std::wstring(std::wstring_view(path).substr(0, kLongestPath)));
    LOG_TRACE_AS(kCheckFlashPort, "Flash port found, pDeviceContext->HwId: %ls found\n", facts::kFlashPortId);
    SetPort(port);
    LOG_TRACE_AS(kCheckFlashPort, "mCFirmwareDownloader->m_COMPort: %s", Narrow(port).c_str());
    Signal();
    return true;
  }
  return false;
}

bool FlashPortSearch::CreateSignal() {
  const ScopedLock lock(m_Lock);
  m_Signal.reset(::CreateSemaphoreW(nullptr, 0, 1, kSignalName));
  if (m_Signal == nullptr) return false;
  if (!m_Port.IsEmpty()) ::ReleaseSemaphore(m_Signal.get(), 1, nullptr);
  return true;
}

DWORD FlashPortSearch::Wait(DWORD milliseconds, const std::atomic<bool>& abandoned) {
  const ULONGLONG begin = ::GetTickCount64();
  for (DWORD left = milliseconds;;) {
    const DWORD result = ::WaitForSingleObject(m_Signal.get(), left);
    if (result == WAIT_OBJECT_0 && abandoned) ::ReleaseSemaphore(m_Signal.get(), 1, nullptr);
    if (result != WAIT_OBJECT_0 || abandoned || !Port().IsEmpty()) return result;
    const ULONGLONG passed = ::GetTickCount64() - begin;
    if (passed >= milliseconds) return result;
    left = milliseconds - static_cast<DWORD>(passed);
  }
}

void FlashPortSearch::CloseSignal() {
  const ScopedLock lock(m_Lock);
  m_Signal.reset();
}

void FlashPortSearch::SetPort(const CTString& port) {
  const ScopedLock lock(m_Lock);
  m_Port = port;
}

void FlashPortSearch::Signal() {
  const ScopedLock lock(m_Lock);
  if (m_Signal != nullptr) ::ReleaseSemaphore(m_Signal.get(), 1, nullptr);
}

CTString FlashPortSearch::Port() {
  const ScopedLock lock(m_Lock);
  return m_Port;
}

}  // namespace corvel
