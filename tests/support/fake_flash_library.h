#pragma once

#include <windows.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "simulator/import_patch.h"

/// Stands for the closed flashing library: answers to its name, has its sixteen exports, knows the tables of
/// contents of the images that it is told of, and remembers every call with its arguments. Change its
/// character while nobody is inside it.
///
/// The simulator's library is a real one that writes into its modem's memory. This one answers by script and
/// lists the calls, which is what tests of single calls, their order and their arguments ask for.
///
/// Functions are named without "_ZEMO_DL_" and "_ZEMO_". A key of `results` and `during` is such a name, or
/// a whole call as `calls` shows it.
class FakeFlashLibrary {
 public:
  using Callback = void(std::uint8_t channel, std::int32_t status, const char* statusText);

  FakeFlashLibrary() {
    s_library = this;
    m_Patch.Replace("LoadLibraryW", &Load);
    m_Patch.Replace("GetProcAddress", &FindExport);
    m_Patch.Replace("GetModuleHandleExW", &AddReference);
    m_Patch.Replace("FreeLibrary", &Free);
  }
  ~FakeFlashLibrary() {
    m_Patch.Restore();
    s_library = nullptr;
  }
  FakeFlashLibrary(const FakeFlashLibrary&) = delete;
  FakeFlashLibrary& operator=(const FakeFlashLibrary&) = delete;

  /// Memory class codes of an image's items, by the image's path.
  std::map<std::string, std::vector<std::uint32_t>> images;
  /// Progress steps of an item by its name in the table of contents; 1 for all others.
  std::map<std::string, std::uint32_t> bars;
  /// What a call answers; 0 when it is not listed.
  std::map<std::string, int> results;
  /// What else happens during a call.
  std::map<std::string, std::function<void()>> during;
  /// The readable reason that a call which does not answer 0 gives.
  std::string reason = "a reason";
  std::uint8_t channel = 7;
  std::uint32_t technology = 2;

  DWORD loadError = ERROR_SUCCESS;
  std::set<std::string> missingExports;
  bool exportsHaveNoUnderscore = false;

  std::vector<std::string> calls;
  std::vector<std::wstring> loadedPaths;
  std::vector<std::string> lookups;
  int loads = 0;
  int references = 0;
  std::string parameter39;
  /// Where the library writes why it refuses the callback, and what was there when it was told.
  char* callbackStatus = nullptr;
  std::string callbackStatusBefore;

  bool IsMapped() const { return references > 0; }
  int CallCount(const std::string& beginning) const {
    int count = 0;
    for (const std::string& call : calls) count += call.starts_with(beginning) ? 1 : 0;
    return count;
  }
  /// The calls of some functions only, in order.
  std::vector<std::string> CallsOf(const std::vector<std::string>& beginnings) const {
    std::vector<std::string> found;
    for (const std::string& call : calls) {
      for (const std::string& beginning : beginnings) {
        if (call.starts_with(beginning)) found.push_back(call);
      }
    }
    return found;
  }
  /// Reports through the callback that was registered last, on the calling thread.
  void Report(std::int32_t status, const char* text) const {
    if (m_Callback != nullptr) m_Callback(channel, status, text);
  }
  void ReportSending() const { Report(4, "  - Sending data. (RAW mode)"); }
  void ReportPercent(const char* percent) const { Report(2, percent); }

 private:
  static HMODULE Module() { return reinterpret_cast<HMODULE>(&s_module); }

  static HMODULE WINAPI Load(LPCWSTR path) {
    s_library->loadedPaths.emplace_back(path);
    if (s_library->loadError != ERROR_SUCCESS) {
      ::SetLastError(s_library->loadError);
      return nullptr;
    }
    ++s_library->loads;
    ++s_library->references;
    return Module();
  }
  static BOOL WINAPI AddReference(DWORD flags, LPCWSTR address, HMODULE* module) {
    if (address != reinterpret_cast<LPCWSTR>(Module())) return ::GetModuleHandleExW(flags, address, module);
    ++s_library->references;
    *module = Module();
    return TRUE;
  }
  static BOOL WINAPI Free(HMODULE module) {
    if (module != Module()) return ::FreeLibrary(module);
    --s_library->references;
    return TRUE;
  }
  static FARPROC WINAPI FindExport(HMODULE module, LPCSTR name) {
    if (module != Module()) return ::GetProcAddress(module, name);
    s_library->lookups.emplace_back(name);
    const bool hasUnderscore = name[0] == '_';
    const std::string full = hasUnderscore ? name : "_" + std::string(name);
    const auto found = Exports().find(full);
    if (found == Exports().end() || s_library->missingExports.contains(full) ||
        hasUnderscore == s_library->exportsHaveNoUnderscore) {
      ::SetLastError(ERROR_PROC_NOT_FOUND);
      return nullptr;
    }
    return found->second;
  }

  template <typename Function>
  static FARPROC Export(Function* function) {
    return reinterpret_cast<FARPROC>(function);
  }
  static const std::map<std::string, FARPROC>& Exports() {
    static const std::map<std::string, FARPROC> exports{
        {"_ZEMO_DL_boot_target", Export(&BootTarget)},
        {"_ZEMO_DL_close_comm_port", Export(&CloseCommPort)},
        {"_ZEMO_DL_download_cust_file", Export(&DownloadCustFile)},
        {"_ZEMO_DL_download_dffs_file", Export(&DownloadDffsFile)},
        {"_ZEMO_DL_download_fls_file", Export(&DownloadFlsFile)},
        {"_ZEMO_DL_force_target_reset", Export(&ForceTargetReset)},
        {"_ZEMO_DL_get_sys_version", Export(&GetSysVersion)},
        {"_ZEMO_get_next_free_channel", Export(&GetNextFreeChannel)},
        {"_ZEMO_DL_dll_get_nof_progressbars", Export(&GetNofProgressBars)},
        {"_ZEMO_DL_init_callback", Export(&InitCallback)},
        {"_ZEMO_DL_open_comm_port", Export(&OpenCommPort)},
        {"_ZEMO_DL_set_dll_parameter", Export(&SetDllParameter)},
        {"_ZEMO_DL_TOC_get_flash_technogy", Export(&TocGetFlashTechnology)},
        {"_ZEMO_DL_TOC_get_memory_class", Export(&TocGetMemoryClass)},
        {"_ZEMO_DL_TOC_get_nof_items", Export(&TocGetNofItems)},
        {"_ZEMO_DL_out_of_session_comm", Export(&OutOfSessionComm)},
    };
    return exports;
  }

  // The exports, with the arguments that the real ones take.

  static int BootTarget(std::uint8_t channel, const char* file, std::uint32_t* word, char* status) {
    *word = 0x600D;
    return Answer("boot_target", Text(channel) + ", " + file, status);
  }
  static int CloseCommPort(std::uint8_t channel, char* status) {
    return Answer("close_comm_port", Text(channel), status);
  }
  static int DownloadCustFile(std::uint8_t channel, const char* name, char* status) {
    return Answer("download_cust_file", Text(channel) + ", " + name, status);
  }
  static int DownloadDffsFile(std::uint8_t channel, const char* name, std::uint8_t partition, char* status) {
    return Answer("download_dffs_file", Text(channel) + ", " + name + ", " + Text(partition), status);
  }
  static int DownloadFlsFile(std::uint8_t channel, const char* name, char* status) {
    return Answer("download_fls_file", Text(channel) + ", " + name, status);
  }
  static int ForceTargetReset(std::uint8_t channel, std::uint8_t a, std::uint8_t b, std::uint8_t c,
                              std::uint8_t d, char* status) {
    return Answer("force_target_reset",
                  Text(channel) + ", " + Text(a) + ", " + Text(b) + ", " + Text(c) + ", " + Text(d), status);
  }
  static int GetSysVersion() { return Answer("get_sys_version", "", nullptr); }
  static std::uint8_t GetNextFreeChannel() {
    Answer("get_next_free_channel", "", nullptr);
    return s_library->channel;
  }
  static std::uint32_t GetNofProgressBars(std::uint8_t channel, const char* name, std::uintptr_t zero) {
    Answer("get_nof_progressbars", Text(channel) + ", " + name + ", " + Text(zero), nullptr);
    const auto found = s_library->bars.find(name);
    return found == s_library->bars.end() ? 1 : found->second;
  }
  static int InitCallback(Callback* callback, char* status) {
    s_library->m_Callback = callback;
    s_library->callbackStatus = status;
    s_library->callbackStatusBefore = status;
    return Answer("init_callback", "", status);
  }
  static int OpenCommPort(std::uint8_t channel, const char* port, const char* samePort,
                          std::uint32_t baudRate, char* status) {
    return Answer("open_comm_port", Text(channel) + ", " + port + ", " + samePort + ", " + Text(baudRate),
                  status);
  }
  static int SetDllParameter(std::uint8_t id, std::uintptr_t value, char* status) {
    if (id != 39) return Answer("set_dll_parameter", Text(id) + ", " + Text(value), status);
    s_library->parameter39 = reinterpret_cast<const char*>(value);
    return Answer("set_dll_parameter", "39, address of " + s_library->parameter39, status);
  }
  static int TocGetFlashTechnology(const char* file, std::uint32_t* technology, char* status) {
    *technology = s_library->technology;
    return Answer("TOC_get_flash_technogy", file, status);
  }
  static int TocGetMemoryClass(const char* file, std::uint32_t index, std::uint32_t* memoryClass,
                               char* status) {
    const auto& classes = s_library->images[file];
    if (index < classes.size()) *memoryClass = classes[index];
    const int answer = Answer("TOC_get_memory_class", file + (", " + Text(index)), status);
    return index < classes.size() ? answer : -1;
  }
  static int TocGetNofItems(const char* file, std::uint32_t* count, char* status) {
    *count = static_cast<std::uint32_t>(s_library->images[file].size());
    return Answer("TOC_get_nof_items", file, status);
  }
  static int OutOfSessionComm(std::uint8_t channel, std::uintptr_t a, std::uintptr_t b, std::uintptr_t c,
                              std::uintptr_t d, std::uintptr_t e) {
    return Answer(
        "out_of_session_comm",
        Text(channel) + ", " + Text(a) + ", " + Text(b) + ", " + Text(c) + ", " + Text(d) + ", " + Text(e),
        nullptr);
  }

  static std::string Text(std::uint64_t number) { return std::to_string(number); }

  static int Answer(const std::string& function, const std::string& arguments, char* status) {
    const std::string call = function + "(" + arguments + ")";
    s_library->calls.push_back(call);
    for (const std::string& key : {call, function}) {
      const auto happens = s_library->during.find(key);
      if (happens != s_library->during.end()) {
        // A copy: what happens may change what happens next time.
        const std::function<void()> action = happens->second;
        if (action) action();
      }
    }
    for (const std::string& key : {call, function}) {
      const auto result = s_library->results.find(key);
      if (result == s_library->results.end()) continue;
      if (status != nullptr && result->second != 0) std::strcpy(status, s_library->reason.c_str());
      return result->second;
    }
    return 0;
  }

  static inline int s_module = 0;
  static inline FakeFlashLibrary* s_library = nullptr;

  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
  Callback* m_Callback = nullptr;
};
