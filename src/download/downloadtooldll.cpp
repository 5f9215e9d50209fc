#include "download/downloadtooldll.h"

#include <algorithm>
#include <atomic>
#include <new>

#include "common/facts.h"
#include "common/log.h"
#include "common/narrow.h"
#include "common/neverdestroyed.h"
#include "common/programfolder.h"
#include "common/tstring.h"
#include "common/win32error.h"
#include "download/attempt.h"

using namespace corvel;

namespace {

constexpr int kCallbackRefused = 1;

constexpr std::int32_t kStatusProgress = 2;
constexpr std::int32_t kStatusMessage = 4;
const CTString kSendingData(L"  - Sending data. (RAW mode)");

struct Export {
  FlashSlot slot;
  const char* name;
};

// In the order of resolution, which puts fls before dffs. All but the last are mandatory.
constexpr std::array<Export, static_cast<std::size_t>(FlashSlot::Count)> kExports{{
    {FlashSlot::BootTarget, facts::kBootTarget},
    {FlashSlot::CloseCommPort, facts::kCloseCommPort},
    {FlashSlot::DownloadCustFile, facts::kDownloadCustFile},
    {FlashSlot::DownloadFlsFile, facts::kDownloadFlsFile},
    {FlashSlot::DownloadDffsFile, facts::kDownloadDffsFile},
    {FlashSlot::ForceTargetReset, facts::kForceTargetReset},
    {FlashSlot::GetSysVersion, facts::kGetSysVersion},
    {FlashSlot::GetNextFreeChannel, facts::kGetNextFreeChannel},
    {FlashSlot::GetNofProgressBars, facts::kGetNofProgressBars},
    {FlashSlot::InitCallback, facts::kInitCallback},
    {FlashSlot::OpenCommPort, facts::kOpenCommPort},
    {FlashSlot::SetDllParameter, facts::kSetDllParameter},
    {FlashSlot::TocGetFlashTechnology, facts::kTocGetFlashTechnology},
    {FlashSlot::TocGetMemoryClass, facts::kTocGetMemoryClass},
    {FlashSlot::TocGetNofItems, facts::kTocGetNofItems},
    {FlashSlot::OutOfSessionComm, facts::kOutOfSessionComm},
}};

/// The process's own hold on the library. The sharing binding has a second reference on the module.
struct Binding {
  SRWLOCK lock = SRWLOCK_INIT;
  std::shared_ptr<FlashLibrary> library;
  UniqueModule module;
};

NeverDestroyed<Binding> g_binding;

// Where the library writes why it refuses the callback. One for the whole process, for the library may know
// it longer than a binding lasts: whoever was given up keeps the same module loaded.
constinit StatusText g_callbackStatus{};

// Whether the library is sending data now. Only a status message changes it, not loading or unloading.
std::atomic<bool> g_sending{false};

std::shared_ptr<FlashLibrary> NewLibrary() {
  try {
    return std::make_shared<FlashLibrary>();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

UniqueModule AnotherReference(HMODULE module) {
  HMODULE same = nullptr;
  ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<const wchar_t*>(module),
                       &same);
  return UniqueModule(same);
}

/// By its full path only: for a bare name the system looks into folders that others may write to. Without a
/// folder there is no library, and the last error says so.
HMODULE LoadFrom(const CTString& folder, const CTString& path) {
  if (!folder.IsEmpty()) return ::LoadLibraryW(path);
  ::SetLastError(ERROR_MOD_NOT_FOUND);
  return nullptr;
}

void SetLibrary(std::shared_ptr<FlashLibrary> library) {
  const ScopedLock lock(g_binding->lock);
  g_binding->library.swap(library);
}

}  // namespace

bool CDownloadToolDll::Load() {
  LOG_TRACE("++ CDownloadToolDll::Load");
  const std::shared_ptr<FlashLibrary> library = NewLibrary();
  SetLibrary(library);
  g_callbackStatus.fill('\0');
  if (library != nullptr && SetFunctionPointers(*library)) {
    LOG_TRACE("CDownloadToolDll::Load ,SetFunctionPointers()");
    return AssociateCallbackWithDll(*library);
  }
  LOG_TRACE("-- CDownloadToolDll::Load");
  // A library that cannot be loaded still counts as bound; callers meet it as calls that fail.
  return library != nullptr;
}

void CDownloadToolDll::Unload() {
  LOG_TRACE("CDownloadToolDll::Unload ++");
  if (Library() != nullptr) {
    LOG_TRACE("CDownloadToolDll::Unload, release memory");
    if (g_binding->module != nullptr) {
      LOG_TRACE("CDownloadToolDll::Unload, release library");
      g_binding->module.reset();
    }
    SetLibrary(nullptr);
  }
  LOG_TRACE("CDownloadToolDll::Unload --");
}

std::shared_ptr<FlashLibrary> CDownloadToolDll::Library() {
  const ScopedLock lock(g_binding->lock);
  return g_binding->library;
}

bool CDownloadToolDll::SetFunctionPointers(FlashLibrary& library) {
  const CTString folder = ProgramFolder();
  const CTString path = folder + facts::kFlashingLibrary;
  g_binding->module.reset(LoadFrom(folder, path));
  if (g_binding->module == nullptr) {
    const int error = LastErrorNumber();
    LOG_ERROR("LoadLibrary of %s failed with: %d", Narrow(path).c_str(), error);
    return false;
  }
  library.module = AnotherReference(g_binding->module.get());

  for (const Export& entry : kExports) library.functions[entry.slot] = GetFunctionFromDll(entry.name);
  return std::ranges::all_of(kExports, [&](const Export& entry) {
    return entry.slot == FlashSlot::OutOfSessionComm || library.functions[entry.slot] != nullptr;
  });
}

FARPROC CDownloadToolDll::GetFunctionFromDll(const char* name) {
  const HMODULE module = g_binding->module.get();
  if (const FARPROC function = ::GetProcAddress(module, name)) return function;
  if (const FARPROC function = ::GetProcAddress(module, name + 1)) return function;
  LOG_ERROR("GetProcAddress(%s) failed with: %d", name, LastErrorNumber());
  return nullptr;
}

bool CDownloadToolDll::AssociateCallbackWithDll(FlashLibrary& library) {
  const int result = library.functions.InitCallback()(&HandleCallbacks, g_callbackStatus.data());
  if (result != kCallbackRefused) return true;
  LOG_ERROR("PROGRESS: InitCallback failed due to %s\n", g_callbackStatus.data());
  return false;
}

void CDownloadToolDll::HandleCallbacks(std::uint8_t channel, std::int32_t status,
                                       const char* statusText) try {
  const char* const text = statusText == nullptr ? "" : statusText;
  LOG_TRACE("Channel: %d, Status: %d, StatusText: %s", channel, static_cast<int>(status), text);
  const std::shared_ptr<Attempt> attempt = Attempt::OfThisThread();
  // News of an attempt that was given up must not pass for the present one's.
  if (attempt != nullptr && attempt->IsAbandoned()) return;
  if (status == kStatusMessage) g_sending = CTString(text) == kSendingData;
  if (status == kStatusProgress && g_sending && attempt != nullptr) attempt->ReportProgress(text);
} catch (...) {
  // Out of memory: this percentage is lost, and the library must not see an exception.
}
