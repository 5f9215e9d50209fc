// What grows with the number of things that are walked over: images, settings, devices, items.

#include <windows.h>

#include <cfgmgr32.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "benchmarks/catch.h"
#include "benchmarks/sampler.h"
#include "benchmarks/scratch_folder.h"
#include "common/debuglogger.h"
#include "common/facts.h"
#include "common/log.h"
#include "config/configparser.h"
#include "download/attempt.h"
#include "download/devicepresence.h"
#include "download/downloadlist.h"
#include "hosts/common/facts.h"
#include "simulator/import_patch.h"
#include "toolkit/toolkit.h"

namespace benchmarks {

namespace {

constexpr double kTarget = 1.15;
constexpr double kOnePassTarget = 1.2;

HMODULE Product() {
  HMODULE module = nullptr;
  ::GetModuleHandleExW(
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
      reinterpret_cast<const wchar_t*>(reinterpret_cast<const void*>(&ToolKit::TurnLoggingOff)), &module);
  return module;
}

std::string Utf8(const std::wstring& text) {
  const int size = static_cast<int>(text.size());
  const int length = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
  std::string narrow(static_cast<std::size_t>(length), '\0');
  ::WideCharToMultiByte(CP_UTF8, 0, text.data(), size, narrow.data(), length, nullptr, nullptr);
  return narrow;
}

std::string Sized(const std::string& what, std::size_t size) {
  return what + ", " + std::to_string(size);
}

/// How many there are of what is walked over; fewer when only the rows themselves are looked at.
std::vector<std::size_t> Sizes(std::vector<std::size_t> sizes) {
  constexpr std::size_t kMostWhenQuick = 100;
  if (TheOptions().quick) {
    for (std::size_t& size : sizes) size = std::min(size, kMostWhenQuick);
    sizes.erase(std::unique(sizes.begin(), sizes.end()), sizes.end());
  }
  return sizes;
}

constexpr wchar_t kLogName[] = L"walk.log";

/// The log in a scratch file, on or off.
class Log {
 public:
  Log(const ScratchFolder& folder, bool on) {
    CDebugLogger::GetInstance()->SetFileName((folder / kLogName).string().c_str());
    CDebugLogger::SetLevel(on ? 3 : 0);
  }
  ~Log() {
    CDebugLogger::SetLevel(0);
    CDebugLogger::ReleaseInstance();
  }
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
};

/// What the records of some work say, from the last tab on.
std::vector<std::string> MessagesOf(const std::filesystem::path& log, const Work& work) {
  CDebugLogger::GetInstance()->SetFileName(log.string().c_str());
  work();
  std::ifstream file(log);
  std::vector<std::string> messages;
  for (std::string line; std::getline(file, line);) messages.push_back(line.substr(line.rfind('\t') + 1));
  return messages;
}

/// A floor that does less than it should would be a false one.
void RequireSameRecords(const std::filesystem::path& log, const Work& subject, const Work& floor) {
  const std::vector<std::string> records = MessagesOf(log, subject);
  REQUIRE(records.size() > 1);
  REQUIRE(records == MessagesOf(log, floor));
}

/// The records of the search, and what is found, by the platform's types and the standard library's.
void WalkBare(const std::wstring& folder) {
  LOG_TRACE("FetchModemNVMFls ++");
  std::wstring modem;
  std::wstring nvm;
  if (::GetFileAttributesW(folder.c_str()) == INVALID_FILE_ATTRIBUTES) return;
  LOG_TRACE("folder: dir=%s", Utf8(folder).c_str());
  WIN32_FIND_DATAW entry;
  const HANDLE search = ::FindFirstFileW((folder + L"\\*.fls").c_str(), &entry);
  do {
    if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) continue;
    const std::wstring path = folder + L"\\" + entry.cFileName;
    const std::string printed = Utf8(path);
    LOG_TRACE("   pathFlz:%s", printed.c_str());
    LOG_TRACE("   pathFlz:%s, ffd.nFileSizeHigh:%d, ffd.nFileSizeLow:%d", printed.c_str(),
              static_cast<int>(entry.nFileSizeHigh), static_cast<int>(entry.nFileSizeLow));
    const bool isModem = entry.nFileSizeHigh != 0 || entry.nFileSizeLow >= 0xA00000;
    (isModem ? modem : nvm) = path;
    LOG_TRACE("   Found, NVM fls file: %s", printed.c_str());
  } while (::FindNextFileW(search, &entry));
  ::FindClose(search);
  LOG_TRACE("FetchModemNVMFls --");
  Use(modem.data());
  Use(nvm.data());
}

constexpr std::size_t kManyImages = 100'000;
/// Up to so many a walk takes no time, and whether both sides tell the same is looked at once more.
constexpr std::size_t kImagesComparedFirst = 1000;

/// A folder with so many images in it.
std::wstring FolderOf(std::size_t images, const ScratchFolder& scratch) {
  const std::string& ready = TheOptions().manyImages;
  if (images == kManyImages && !ready.empty()) return std::filesystem::absolute(ready).wstring();
  const std::filesystem::path folder = scratch / L"images";
  std::filesystem::create_directory(folder);
  for (std::size_t i = 0; i < images; ++i)
    std::ofstream(folder / ("image " + std::to_string(i) + ".fls")) << "image";
  return folder.wstring();
}

void CompareFolders(std::size_t images) {
  const std::string on = Sized("folder: search, log on", images);
  const std::string off = Sized("folder: search, log off", images);
  if (!IsWanted(on) && !IsWanted(off)) return;
  const ScratchFolder scratch;
  const std::wstring folder = FolderOf(images, scratch);
  const Work search = [&] { ToolKit::FetchModemNVMFls(CTString(folder.c_str())); };
  const Work bare = [&] { WalkBare(folder); };
  for (const bool logs : {true, false}) {
    const Log log(scratch, logs);
    if (logs && images <= kImagesComparedFirst) RequireSameRecords(scratch / kLogName, search, bare);
    Compare({logs ? on : off, "FindFirstFileW walk, same records", kTarget, static_cast<double>(images)},
            search, bare);
  }
}

/// The host's path as the library asks for it, in the scratch folder.
class HostInScratchFolder {
 public:
  explicit HostInScratchFolder(const ScratchFolder& folder) : m_Patch(Product()) {
    s_path = (folder / L"host.exe").wstring();
    m_Patch.Replace("GetModuleFileNameW", &Path);
    // What is read anew has its log begun anew, on both sides: a disk that is waited for would hide the rest.
    m_Patch.Replace("FlushFileBuffers", &Pretend);
  }
  ~HostInScratchFolder() { m_Patch.Restore(); }
  HostInScratchFolder(const HostInScratchFolder&) = delete;
  HostInScratchFolder& operator=(const HostInScratchFolder&) = delete;

 private:
  static DWORD WINAPI Path(HMODULE, wchar_t* path, DWORD size) {
    return static_cast<DWORD>(s_path.copy(path, size - 1));
  }

  static BOOL WINAPI Pretend(HANDLE) { return TRUE; }

  static inline std::wstring s_path;
  simulator::ImportPatch m_Patch;
};

void LoadBare(const std::filesystem::path& path) {
  LOG_TRACE("Start LoadConfig ++");
  LOG_TRACE("VERSION: %s", corvel::facts::kVersion);
  if (::GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) return;
  std::FILE* const file = ::_wfopen(path.c_str(), L"rt");
  char line[512];
  static_cast<void>(std::fgets(line, sizeof line, file));
  while (std::fgets(line, sizeof line, file) != nullptr) {
    char* const equals = std::strchr(line, '=');
    if (equals == nullptr) continue;
    *equals = '\0';
    char* const value = equals + 1;
    value[std::strcspn(value, "\n")] = '\0';
    LOG_TRACE("\t get Config Var, %s : %s", line, value);
  }
  std::fclose(file);
}

void CompareConfigurations(std::size_t lines) {
  const std::string name = Sized("configuration: load, lines", lines);
  if (!IsWanted(name)) return;
  const ScratchFolder scratch;
  const HostInScratchFolder host(scratch);
  const auto path = scratch / L"CorvelConfig.ini";
  {
    constexpr const char* kSettings[] = {"[TraceLevel]=1", "[RegistryLocation]=HKCU\\Software\\Corvel",
                                         "[IPCTYPE]=USB",  "[ModemAndNVMFirmwareFolder]=C:\\Firmware",
                                         "[REBOOTTYPE]=0", "[ERASEMODE]=2"};
    std::ofstream file(path);
    file << "# Settings\n";
    for (std::size_t i = 0; i < lines; ++i) file << kSettings[i % std::size(kSettings)] << '\n';
  }
  CConfigParser* const parser = CConfigParser::GetInstance();
  const Log log(scratch, true);
  const Work load = [&] {
    parser->Init();
    parser->LoadConfig(nullptr);
  };
  const Work bare = [&] {
    parser->Init();
    LoadBare(path);
  };
  RequireSameRecords(scratch / hosts::kServiceLogName, load, bare);
  Compare({name, "fgets loop, same records", kTarget, static_cast<double>(lines)}, load, bare);
  CConfigParser::ReleaseInstance();
}

/// A system with many devices and no modem among them.
class ManyDevices {
 public:
  explicit ManyDevices(std::size_t count) : m_Patch(Product()) {
    s_ids.clear();
    for (std::size_t i = 0; i < count; ++i) {
      s_ids += L"USB\\VID_8087&PID_0716&MI_00\\6&" + std::to_wstring(i) + L"&0&0000";
      s_ids += L'\0';
    }
    s_ids += L'\0';
    m_Patch.Replace("CM_Get_Device_ID_List_SizeW", &Size);
    m_Patch.Replace("CM_Get_Device_ID_ListW", &List);
  }
  ~ManyDevices() { m_Patch.Restore(); }
  ManyDevices(const ManyDevices&) = delete;
  ManyDevices& operator=(const ManyDevices&) = delete;

  static CONFIGRET WINAPI Size(PULONG length, PCWSTR, ULONG) {
    *length = static_cast<ULONG>(s_ids.size());
    return CR_SUCCESS;
  }
  static CONFIGRET WINAPI List(PCWSTR, PWCHAR list, ULONG length, ULONG) {
    s_ids.copy(list, length);
    return CR_SUCCESS;
  }

 private:
  static inline std::wstring s_ids;
  simulator::ImportPatch m_Patch;
};

bool IsPresentBare(const wchar_t* id) {
  ULONG length = 0;
  ManyDevices::Size(&length, nullptr, 0);
  auto* const list = static_cast<wchar_t*>(
      ::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, std::size_t{length} * sizeof(wchar_t)));
  ManyDevices::List(nullptr, list, length, 0);
  bool present = false;
  for (wchar_t* device = list; *device != L'\0' && !present; device += std::wcslen(device) + 1) {
    for (wchar_t* unit = device; *unit != L'\0'; ++unit) *unit = static_cast<wchar_t>(std::towupper(*unit));
    present = std::wcsstr(device, id) != nullptr;
  }
  ::HeapFree(::GetProcessHeap(), 0, list);
  return present;
}

/// A library whose image has as many items as one likes.
class ManyItems {
 public:
  explicit ManyItems(std::uint32_t count) {
    s_count = count;
    auto library = std::make_shared<corvel::FlashLibrary>();
    auto& functions = library->functions;
    functions[corvel::FlashSlot::TocGetFlashTechnology] = reinterpret_cast<FARPROC>(&Technology);
    functions[corvel::FlashSlot::TocGetMemoryClass] = reinterpret_cast<FARPROC>(&MemoryClass);
    functions[corvel::FlashSlot::TocGetNofItems] = reinterpret_cast<FARPROC>(&Count);
    m_Attempt->SetLibrary(std::move(library));
  }

  corvel::Attempt& Attempt() { return *m_Attempt; }

  static int Technology(const char*, std::uint32_t* technology, char*) {
    *technology = 2;
    return 0;
  }
  static int MemoryClass(const char*, std::uint32_t index, std::uint32_t* memoryClass, char*) {
    *memoryClass = index % 12;
    return 0;
  }
  static int Count(const char*, std::uint32_t* count, char*) {
    *count = s_count;
    return 0;
  }

 private:
  static inline std::uint32_t s_count = 0;
  std::shared_ptr<corvel::Attempt> m_Attempt = std::make_shared<corvel::Attempt>();
};

struct BareItem {
  std::uint32_t memoryClass;
  std::string path;
  std::string tocName;
};

constexpr char kWritten[] = "100";

/// Each item counts the same and is reported once, when it is written.
void Advance(corvel::Attempt& attempt, std::size_t items) {
  for (std::size_t i = 0; i < items; ++i) attempt.Progress().AddBars(1);
  for (std::size_t i = 0; i < items; ++i) {
    attempt.Progress().SetItem(1);
    attempt.GetAbsoluteProgress(kWritten);
  }
}

void AdvanceBare(std::size_t items) {
  int overall = 0;
  for (std::size_t i = 0; i < items; ++i) {
    const int percent = static_cast<int>(std::strtol(kWritten, nullptr, 10));
    const int scaled =
        static_cast<int>(std::floor(percent * (100.0 / static_cast<double>(items)) / 100.0 + 0.5));
    overall += scaled;
    LOG_TRACE("\t downloadProgress:%d, bars:%d, all:%d, total:%d  ", percent, 1, static_cast<int>(items),
              scaled);
    LOG_TRACE("\t actualProgress:%d, last:%d", scaled, scaled);
    LOG_TRACE("\t return %d", overall);
  }
  Use(&overall);
}

void MarkBare(const std::string& path) {
  std::uint32_t count = 0;
  ManyItems::Count(path.c_str(), &count, nullptr);
  std::vector<std::unique_ptr<BareItem>> items;
  for (std::uint32_t index = 0; index < count; ++index) {
    std::uint32_t memoryClass = 0;
    ManyItems::MemoryClass(path.c_str(), index, &memoryClass, nullptr);
    LOG_TRACE("Memory Class(%d): %d", static_cast<int>(index), static_cast<int>(memoryClass));
    items.push_back(
        std::make_unique<BareItem>(BareItem{memoryClass, path, "|" + std::to_string(index) + "|" + path}));
  }
  std::ranges::stable_sort(items, {}, [](const auto& item) { return item->memoryClass; });
  AdvanceBare(items.size());
  Use(items.data());
}

void CompareItems(std::size_t count) {
  const std::string path = "C:\\Firmware\\modem.fls";
  ManyItems items(static_cast<std::uint32_t>(count));
  CDebugLogger::SetLevel(0);
  Compare(
      {Sized("items: mark, sort, report", count), "calls, strings, stable sort, sums", std::nullopt,
       static_cast<double>(count)},
      [&] {
        corvel::DownloadList list(items.Attempt());
        list.SetFiles(CTString(path.c_str()), CTString());
        list.Mark();
        Advance(items.Attempt(), list.Items().size());
      },
      [&] { MarkBare(path); });
}

}  // namespace

TEST_CASE("Folders of images") {
  for (const std::size_t images : Sizes({10, kImagesComparedFirst, kManyImages})) CompareFolders(images);
}

TEST_CASE("Configurations") {
  for (const std::size_t lines : Sizes({6, 100'000})) CompareConfigurations(lines);
}

TEST_CASE("Lists of devices") {
  for (const std::size_t count : Sizes({100, 10'000})) {
    const ManyDevices devices(count);
    Compare(
        {Sized("devices: presence", count), "one pass", kOnePassTarget, static_cast<double>(count)},
        [] {
          const bool present = corvel::IsDevicePresent(corvel::facts::kMbimModemId);
          Use(&present);
        },
        [] {
          const bool present = IsPresentBare(corvel::facts::kMbimModemId);
          Use(&present);
        });
  }
}

TEST_CASE("Lists of items") {
  for (const std::size_t count : Sizes({10, 1000, 10'000})) CompareItems(count);
}

}  // namespace benchmarks
