#include "benchmarks/service/library_load.h"

#include <windows.h>

#include <atomic>
#include <memory>
#include <stdexcept>

#include "benchmarks/service/stopwatch.h"
#include "hosts/common/owners.h"
#include "simulator/import_patch.h"
#include "simulator/load_watch.h"

namespace benchmarks {

namespace {

constexpr DWORD kPatienceMs = 60'000;

std::atomic<HANDLE> g_change{nullptr};
std::atomic<Ticks> g_waits{0};
HANDLE g_isThere = nullptr;

LSTATUS WINAPI NotifyOfChange(HKEY key, BOOL subtree, DWORD filter, HANDLE event, BOOL asynchronous) {
  g_change = event;
  return ::RegNotifyChangeKeyValue(key, subtree, filter, event, asynchronous);
}

DWORD WINAPI WaitForOne(HANDLE handle, DWORD milliseconds) {
  if (handle == g_change && g_waits == 0) {
    g_waits = Now();
    ::SetEvent(g_isThere);
  }
  return ::WaitForSingleObject(handle, milliseconds);
}

}  // namespace

double TimeUntilItWaits(const std::filesystem::path& library) {
  const hosts::OwnedHandle isThere = hosts::NewEvent();
  g_isThere = isThere.get();
  std::unique_ptr<simulator::ImportPatch> patch;
  const simulator::LoadWatch watch(library.filename(), [&patch](HMODULE module) {
    patch = std::make_unique<simulator::ImportPatch>(module);
    patch->Replace("RegNotifyChangeKeyValue", &NotifyOfChange);
    patch->Replace("WaitForSingleObject", &WaitForOne);
  });
  const Ticks begin = Now();
  if (::LoadLibraryW(library.c_str()) == nullptr) hosts::ThrowLastError("The library cannot be loaded");
  if (::WaitForSingleObject(g_isThere, kPatienceMs) != WAIT_OBJECT_0)
    throw std::runtime_error("the library does not begin to wait");
  patch->Restore();
  return NanosecondsBetween(begin, g_waits);
}

}  // namespace benchmarks
