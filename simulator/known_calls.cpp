#include "simulator/known_calls.h"

#include <cfgmgr32.h>
#include <oleauto.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <vector>

namespace simulator {

namespace {

using Kind = KnownCall::Kind;
using Failure = KnownCall::Failure;
using Tells = KnownCall::Tells;

constexpr std::uint64_t kInvalidHandle = ~std::uint64_t{0};
constexpr std::uint64_t kAllOnes = 0xFFFFFFFF;

constexpr KnownCall Returns(const char* name, std::uint64_t result, DWORD lastError) {
  return {name, Kind::Platform, Failure::Plausible, Tells::ByLastError, result, lastError};
}
/// FALSE or null, and a last error.
constexpr KnownCall Nothing(const char* name, DWORD lastError) {
  return Returns(name, 0, lastError);
}
constexpr KnownCall NoHandle(const char* name, DWORD lastError) {
  return Returns(name, kInvalidHandle, lastError);
}
constexpr KnownCall AllOnes(const char* name, DWORD lastError) {
  return Returns(name, kAllOnes, lastError);
}
/// The result is the error.
constexpr KnownCall Code(const char* name, std::int64_t code) {
  return {name, Kind::Platform, Failure::Plausible, Tells::ByResult, static_cast<std::uint32_t>(code), 0};
}

constexpr KnownCall WithEffect(KnownCall call) {
  call.mayHaveTakenEffect = true;
  return call;
}
constexpr KnownCall Implausibly(const char* why, KnownCall call) {
  call.failure = Failure::Implausible;
  call.whyImplausible = why;
  return call;
}
constexpr KnownCall OfRuntime(KnownCall call) {
  call.kind = Kind::Runtime;
  return call;
}
constexpr KnownCall Locally(KnownCall call) {
  call.kind = Kind::Local;
  return call;
}

/// A stream that cannot be read any further, which looks like one at its end otherwise.
void SpoilStream([[maybe_unused]] std::uint64_t stream) {
#if defined(__MINGW32__)
  // NOLINTNEXTLINE(performance-no-int-to-ptr): an argument as the register holds it.
  reinterpret_cast<std::FILE*>(stream)->_flag |= _IOERR;
#endif
}
constexpr KnownCall WithSpoiltStream(int argument, KnownCall call) {
  call.leaves = &SpoilStream;
  call.leavesFor = argument;
  return call;
}

constexpr char kOwnHandle[] =
    "it refuses a handle that is none or lacks a right; the library's own are neither";
constexpr char kOwnMutex[] = "it refuses a thread that does not own the mutex";
constexpr char kOfThreadRuntime[] =
    "the runtime's for threads that somebody cancels or ranks; the library does neither";
constexpr char kOwnSlot[] = "it refuses an index that is none; the runtime's own is one";
constexpr char kOwnMemory[] =
    "it refuses addresses at which nothing is; these are of the library's own image";
constexpr char kOwnSearch[] = "it refuses a search that was not begun";
constexpr char kOwnModule[] = "it refuses a module that is not loaded";
constexpr char kOwnArray[] =
    "it refuses an array that is none or not locked, or one that somebody still has locked; none of them "
    "is shared";
constexpr char kOwnVariant[] = "it refuses a type that is none; the library made the variant";
constexpr char kTimeOfSystem[] = "it refuses a date that is none; no job has one";
constexpr char kRoomForPath[] =
    "it refuses a part that is longer than its buffer; each has room for the whole path";
constexpr char kOwnFormat[] = "it refuses a format that is none; those of a job are the library's own";

constexpr KnownCall kCallsThatFail[] = {
    // Threads and objects of the system
    Nothing("CreateThread", ERROR_NOT_ENOUGH_MEMORY),
    Nothing("CreateEventA", ERROR_NO_SYSTEM_RESOURCES),
    Nothing("CreateEventW", ERROR_NO_SYSTEM_RESOURCES),
    Nothing("CreateEventExW", ERROR_NO_SYSTEM_RESOURCES),
    Nothing("CreateSemaphoreA", ERROR_NO_SYSTEM_RESOURCES),
    Nothing("CreateSemaphoreW", ERROR_NO_SYSTEM_RESOURCES),
    Nothing("CreateMutexA", ERROR_NO_SYSTEM_RESOURCES),
    Nothing("DuplicateHandle", ERROR_NO_SYSTEM_RESOURCES),
    Nothing("OpenThread", ERROR_ACCESS_DENIED),
    Nothing("OpenMutexA", ERROR_FILE_NOT_FOUND),
    Nothing("OpenProcess", ERROR_ACCESS_DENIED),
    WithEffect(Nothing("ReleaseSemaphore", ERROR_TOO_MANY_POSTS)),
    Locally(AllOnes("TlsAlloc", ERROR_NO_MORE_ITEMS)),
    Implausibly(kOwnHandle, Nothing("SetEvent", ERROR_INVALID_HANDLE)),
    Implausibly(kOwnHandle, Nothing("ResetEvent", ERROR_INVALID_HANDLE)),
    Implausibly(kOwnMutex, Nothing("ReleaseMutex", ERROR_NOT_OWNER)),
    Implausibly(kOwnHandle, AllOnes("WaitForSingleObject", ERROR_INVALID_HANDLE)),
    Implausibly(kOwnHandle, AllOnes("WaitForMultipleObjects", ERROR_INVALID_HANDLE)),
    Implausibly(kOwnHandle, Nothing("CloseHandle", ERROR_INVALID_HANDLE)),
    Implausibly(kOfThreadRuntime, AllOnes("SuspendThread", ERROR_ACCESS_DENIED)),
    Implausibly(kOfThreadRuntime, AllOnes("ResumeThread", ERROR_ACCESS_DENIED)),
    Implausibly(kOfThreadRuntime, Nothing("GetThreadContext", ERROR_INVALID_HANDLE)),
    Implausibly(kOfThreadRuntime, Nothing("SetThreadContext", ERROR_INVALID_HANDLE)),
    Implausibly(kOfThreadRuntime, Nothing("SetThreadPriority", ERROR_INVALID_HANDLE)),
    Implausibly(kOfThreadRuntime, Returns("GetThreadPriority", 0x7FFFFFFF, ERROR_INVALID_HANDLE)),
    Implausibly(kOfThreadRuntime, Nothing("GetHandleInformation", ERROR_INVALID_HANDLE)),
    Implausibly(kOfThreadRuntime, Nothing("GetProcessAffinityMask", ERROR_ACCESS_DENIED)),
    Implausibly(kOfThreadRuntime, Nothing("SetProcessAffinityMask", ERROR_ACCESS_DENIED)),
    Locally(Nothing("TlsSetValue", ERROR_NOT_ENOUGH_MEMORY)),
    Implausibly(kOwnSlot, Locally(Nothing("TlsFree", ERROR_INVALID_PARAMETER))),

    // Memory and texts
    Nothing("HeapAlloc", 0),
    Locally(Nothing("MultiByteToWideChar", ERROR_NOT_ENOUGH_MEMORY)),
    Locally(Nothing("WideCharToMultiByte", ERROR_NOT_ENOUGH_MEMORY)),
    Nothing("FormatMessageA", ERROR_NOT_ENOUGH_MEMORY),
    Nothing("VirtualProtect", ERROR_COMMITMENT_LIMIT),
    Implausibly(kOwnMemory, Locally(Nothing("VirtualQuery", ERROR_INVALID_PARAMETER))),

    // Files
    NoHandle("CreateFileA", ERROR_SHARING_VIOLATION),
    NoHandle("CreateFileW", ERROR_SHARING_VIOLATION),
    WithEffect(Nothing("CreateDirectoryA", ERROR_ACCESS_DENIED)),
    WithEffect(Nothing("DeleteFileA", ERROR_SHARING_VIOLATION)),
    WithEffect(Nothing("DeleteFileW", ERROR_SHARING_VIOLATION)),
    WithEffect(Nothing("MoveFileExW", ERROR_ACCESS_DENIED)),
    NoHandle("FindFirstFileW", ERROR_ACCESS_DENIED),
    Nothing("FindNextFileW", ERROR_READ_FAULT),
    AllOnes("GetFileAttributesA", ERROR_ACCESS_DENIED),
    AllOnes("GetFileAttributesW", ERROR_ACCESS_DENIED),
    AllOnes("GetFileSize", ERROR_GEN_FAILURE),
    Nothing("GetFileSizeEx", ERROR_GEN_FAILURE),
    AllOnes("SetFilePointer", ERROR_GEN_FAILURE),
    Nothing("SetEndOfFile", ERROR_DISK_FULL),
    Nothing("LockFile", ERROR_LOCK_VIOLATION),
    Nothing("GetShortPathNameW", ERROR_ACCESS_DENIED),
    Nothing("ReadFile", ERROR_READ_FAULT),
    WithEffect(Nothing("WriteFile", ERROR_DISK_FULL)),
    WithEffect(Nothing("FlushFileBuffers", ERROR_DISK_FULL)),
    WithEffect(Nothing("UnlockFile", ERROR_GEN_FAILURE)),
    Implausibly(kOwnSearch, Nothing("FindClose", ERROR_INVALID_HANDLE)),

    // Modules
    Nothing("GetModuleFileNameW", ERROR_NOT_ENOUGH_MEMORY),
    Nothing("GetModuleHandleExW", ERROR_MOD_NOT_FOUND),
    Nothing("GetModuleHandleW", ERROR_MOD_NOT_FOUND),
    Nothing("LoadLibraryW", ERROR_NOT_ENOUGH_MEMORY),
    Nothing("GetProcAddress", ERROR_PROC_NOT_FOUND),
    Implausibly(kOwnModule, Nothing("FreeLibrary", ERROR_INVALID_HANDLE)),

    // Devices. A request that the driver goes on with after it was refused would write where nothing is any
    // more: none fails after its effect.
    Nothing("DeviceIoControl", ERROR_GEN_FAILURE),
    Nothing("GetOverlappedResultEx", ERROR_GEN_FAILURE),
    WithEffect(Nothing("CancelIoEx", ERROR_NOT_FOUND)),
    Nothing("GetCommState", ERROR_GEN_FAILURE),
    WithEffect(Nothing("SetCommState", ERROR_INVALID_PARAMETER)),
    WithEffect(Nothing("PurgeComm", ERROR_GEN_FAILURE)),
    Nothing("ClearCommError", ERROR_GEN_FAILURE),
    Code("CM_Get_DevNode_Registry_PropertyW", CR_FAILURE),
    Code("CM_Get_Device_ID_ListW", CR_FAILURE),
    Code("CM_Get_Device_ID_List_SizeW", CR_FAILURE),
    Code("CM_Get_Device_Interface_ListW", CR_BUFFER_SMALL),
    Code("CM_Get_Device_Interface_List_SizeW", CR_FAILURE),
    Code("CM_Locate_DevNodeW", CR_FAILURE),
    WithEffect(Code("CM_Reenumerate_DevNode", CR_FAILURE)),

    // Registry
    Code("RegOpenKeyExA", ERROR_ACCESS_DENIED),
    Code("RegOpenKeyExW", ERROR_ACCESS_DENIED),
    Code("RegCreateKeyExW", ERROR_ACCESS_DENIED),
    // Not that there is no such value, which is no failure.
    Code("RegQueryValueExA", ERROR_NO_SYSTEM_RESOURCES),
    Code("RegQueryValueExW", ERROR_NO_SYSTEM_RESOURCES),
    WithEffect(Code("RegSetValueExW", ERROR_NO_SYSTEM_RESOURCES)),
    Code("RegNotifyChangeKeyValue", ERROR_KEY_DELETED),
    Implausibly(kOwnHandle, Code("RegCloseKey", ERROR_INVALID_HANDLE)),

    // COM and Automation
    Code("CoInitializeEx", E_OUTOFMEMORY),
    Code("CoCreateInstance", E_OUTOFMEMORY),
    Code("SafeArrayAccessData", E_OUTOFMEMORY),
    Nothing("SafeArrayCreate", 0),
    Nothing("SafeArrayCreateVector", 0),
    Code("SafeArrayGetElement", E_OUTOFMEMORY),
    Code("SafeArrayGetLBound", DISP_E_BADINDEX),
    Code("SafeArrayGetUBound", DISP_E_BADINDEX),
    Code("SafeArrayPutElement", E_OUTOFMEMORY),
    Nothing("SysAllocString", 0),
    Nothing("SysAllocStringLen", 0),
    Nothing("SysAllocStringByteLen", 0),
    Implausibly(kOwnArray, Code("SafeArrayUnaccessData", E_UNEXPECTED)),
    Implausibly(kOwnArray, Code("SafeArrayDestroy", DISP_E_ARRAYISLOCKED)),
    WithEffect(Code("CoDisconnectObject", E_OUTOFMEMORY)),
    Implausibly(kOwnVariant, Code("VariantClear", DISP_E_BADVARTYPE)),
    Implausibly(kTimeOfSystem, Nothing("SystemTimeToVariantTime", 0)),

    // Random numbers
    Nothing("CryptAcquireContextA", ERROR_NOT_ENOUGH_MEMORY),
    Nothing("CryptGenRandom", ERROR_NOT_ENOUGH_MEMORY),

    // C runtime
    OfRuntime(Nothing("malloc", 0)),
    OfRuntime(Nothing("calloc", 0)),
    OfRuntime(Nothing("realloc", 0)),
    OfRuntime(Nothing("_strdup", 0)),
    OfRuntime(Nothing("_beginthreadex", 0)),
    OfRuntime(Nothing("_wfsopen", 0)),
    OfRuntime(AllOnes("_open", 0)),
    OfRuntime(AllOnes("_read", 0)),
    OfRuntime(AllOnes("_write", 0)),
    WithSpoiltStream(3, OfRuntime(Nothing("fread", 0))),
    Implausibly(kRoomForPath, OfRuntime(Code("_splitpath_s", ERANGE))),
    Implausibly(kRoomForPath, OfRuntime(Code("_wsplitpath_s", ERANGE))),
    Implausibly(kOwnFormat, OfRuntime(AllOnes("_vscprintf_p_l", 0))),
    Implausibly(kOwnFormat, OfRuntime(AllOnes("_vscwprintf", 0))),
    Implausibly(kOwnFormat, OfRuntime(AllOnes("_vsnwprintf", 0))),
    Implausibly(kOwnFormat, OfRuntime(AllOnes("_vsprintf_p", 0))),
};

// Neither fails nor leaves a trace outside of the process.
constexpr const char* kLocalCalls[] = {
    "AcquireSRWLockExclusive",
    "DeleteCriticalSection",
    "EnterCriticalSection",
    "GetCurrentProcess",
    "GetCurrentProcessId",
    "GetCurrentThread",
    "GetCurrentThreadId",
    "GetLastError",
    "GetLocalTime",
    "GetProcessHeap",
    "GetSystemInfo",
    "GetSystemTimeAsFileTime",
    "GetTickCount64",
    "HeapFree",
    "InitializeCriticalSection",
    "InitializeCriticalSectionEx",
    "IsDBCSLeadByteEx",
    "IsDebuggerPresent",
    "LeaveCriticalSection",
    "LocalFree",
    "OutputDebugStringA",
    "ReleaseSRWLockExclusive",
    "SetLastError",
    "StrToIntW",
    "SysFreeString",
    "SysStringLen",
    "TlsGetValue",
    "TryEnterCriticalSection",
    "VariantInit",
};

// Does not fail, and is a step of the product all the same.
constexpr const char* kStepsWithoutFailure[] = {
    "CoUninitialize", "CryptReleaseContext",  "FreeLibraryAndExitThread", "SafeArrayGetDim",
    "Sleep",          "SafeArrayGetElemsize", "TerminateProcess",
};

constexpr const char* kRuntimeCalls[] = {
    "___lc_codepage_func",
    "___mb_cur_max_func",
    "__iob_func",
    "_amsg_exit",
    "_assert",
    "_close",
    "_endthreadex",
    "_errno",
    "_exit",
    "_initterm",
    "_lock",
    "_ultoa",
    "_unlock",
    "_wtoi",
    "abort",
    "exit",
    "fclose",
    "ferror",
    "fprintf",
    "fputc",
    "fputs",
    "fputwc",
    "free",
    "fwprintf",
    "fwrite",
    "getenv",
    "isspace",
    "localeconv",
    "memchr",
    "memcmp",
    "memcpy",
    "memmove",
    "memset",
    "printf",
    "signal",
    "sprintf",
    "strcmp",
    "strerror",
    "strlen",
    "strpbrk",
    "strncmp",
    "strstr",
    "strtol",
    "strtoul",
    "towlower",
    "towupper",
    "vfprintf",
    "wcscmp",
    "wcslen",
    "wcsstr",
};

constexpr const char* kCallsThatInspectTheirCaller[] = {
    "AddVectoredExceptionHandler",
    "RaiseException",
    "RemoveVectoredExceptionHandler",
    "RtlCaptureContext",
    "RtlLookupFunctionEntry",
    "RtlUnwindEx",
    "RtlVirtualUnwind",
    "__C_specific_handler",
    "_setjmp",
    "longjmp",
};

std::vector<KnownCall> AllKnownCalls() {
  std::vector<KnownCall> calls(std::begin(kCallsThatFail), std::end(kCallsThatFail));
  for (const char* name : kLocalCalls) calls.push_back({.name = name, .kind = Kind::Local});
  for (const char* name : kStepsWithoutFailure) calls.push_back({.name = name});
  for (const char* name : kRuntimeCalls) calls.push_back({.name = name, .kind = Kind::Runtime});
  return calls;
}

}  // namespace

std::span<const KnownCall> KnownCalls() {
  // Never destroyed: threads of the product may still call while the program ends.
  static const auto& calls = *new std::vector<KnownCall>(AllKnownCalls());
  return calls;
}

const KnownCall* FindKnownCall(std::string_view name) {
  for (const auto& calls : {KnownCalls(), KnownForeignCalls()}) {
    const auto found = std::ranges::find(calls, name, &KnownCall::name);
    if (found != calls.end()) return &*found;
  }
  return nullptr;
}

bool InspectsItsCaller(std::string_view name) {
  return std::ranges::find(kCallsThatInspectTheirCaller, name) != std::end(kCallsThatInspectTheirCaller);
}

}  // namespace simulator
