#include "download/firmwaredownloader.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include "common/log.h"
#include "common/neverdestroyed.h"
#include "common/text.h"
#include "common/win32error.h"
#include "config/configparser.h"
#include "download/flashtimes.h"
#include "download/sinkshare.h"

namespace {

constexpr DWORD kPauseBetweenItemsMs = 10;
constexpr int kRefused = -1;
constexpr int kResetFailed = 1;
constexpr std::uint32_t kEraseModes = 4;

constexpr std::uint8_t kLogLevelParameter = 12;
constexpr std::uint8_t kBusTypeParameter = 39;
constexpr std::uint32_t kLibraryLogOff = 0;
constexpr std::uint32_t kLibraryLogOn = 3;
constexpr char kPcie[] = "PCIE";

// Which partition a file system item goes to.
constexpr std::uint8_t kStaticPartition = 1;
constexpr std::uint8_t kDynamicPartition = 2;
constexpr std::uint8_t kDiskPartition = 4;

struct Parameter {
  std::uint8_t id;
  std::uint32_t value;
};
constexpr std::array<Parameter, 2> kTimeLimitParameters{{{1, kFlashPortWaitMs}, {2, kLibraryTimeLimitMs}}};
constexpr std::uint8_t kEraseModeParameter = 8;
constexpr std::array<Parameter, 10> kFixedParameters{
    {{5, 0}, {6, 1}, {17, 0}, {3, 1}, {9, 0}, {10, 0}, {18, 1}, {27, 0}, {15, 0}, {19, 0}}};
constexpr Parameter kLastParameter{41, 0};

struct Slot {
  SRWLOCK lock = SRWLOCK_INIT;
  std::shared_ptr<CFirmwareDownloader> engine;
};
NeverDestroyed<Slot> g_slot;

// For whom this thread works; what the library reports on it belongs to that engine, old or new.
thread_local CFirmwareDownloader* t_engine = nullptr;

std::shared_ptr<CFirmwareDownloader> PresentEngine() {
  const ScopedLock lock(g_slot->lock);
  return g_slot->engine;
}

void SetPresentEngine(std::shared_ptr<CFirmwareDownloader> engine) {
  const ScopedLock lock(g_slot->lock);
  g_slot->engine.swap(engine);
}

UniqueHandle OpenExclusively(const CTString& file) {
  return OwnFileHandle(
      ::CreateFileW(file, GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}

/// True for an opened file with anything in it.
bool HasContent(HANDLE file, const CTString& name) {
  LARGE_INTEGER size{};
  if (!::GetFileSizeEx(file, &size)) {
    const int error = LastErrorNumber();
    LOG_TRACE("\t GetFileSizeEx(%s) failed with: %d", Narrow(name).c_str(), error);
    return false;
  }
  LOG_TRACE("\t Size of %s: %d", Narrow(name).c_str(), static_cast<int>(size.LowPart));
  return size.QuadPart != 0;
}

}  // namespace

CFirmwareDownloader::ThreadScope::ThreadScope(CFirmwareDownloader& engine)
    : m_outer(std::exchange(t_engine, &engine)) {}

CFirmwareDownloader::ThreadScope::~ThreadScope() {
  t_engine = m_outer;
}

std::shared_ptr<CFirmwareDownloader> CFirmwareDownloader::GetInstance() {
  if (auto engine = PresentEngine()) return engine;

  const std::shared_ptr<CFirmwareDownloader> engine(new CFirmwareDownloader);
  SetPresentEngine(engine);
  const bool bound = CDownloadToolDll::Load();
  engine->m_library = CDownloadToolDll::Library();
  if (!bound) {
    LOG_ERROR("\t DownloadToolDll Load fail");
    // The engine stays all the same: the next caller gets it, and flashes without progress.
    return nullptr;
  }
  return engine;
}

void CFirmwareDownloader::Unload() {
  LOG_TRACE("\t Unload ++");
  if (const auto engine = PresentEngine()) {
    engine->Abandon();
    CDownloadToolDll::Unload();
    SetPresentEngine(nullptr);
  }
  DeleteRetiredSinks();
  LOG_TRACE("\t Unload --");
}

std::shared_ptr<CFirmwareDownloader> CFirmwareDownloader::OfThisThread() {
  return t_engine != nullptr ? t_engine->shared_from_this() : PresentEngine();
}

const FunctionTable& CFirmwareDownloader::Library() const {
  static constexpr FunctionTable kNothing;
  return m_library == nullptr ? kNothing : m_library->functions;
}

void CFirmwareDownloader::Abandon() {
  const ScopedLock lock(m_abandonLock);
  m_abandoned = true;
}

void CFirmwareDownloader::UnlessAbandoned(const std::function<void()>& step) {
  const ScopedLock lock(m_abandonLock);
  if (!m_abandoned) step();
}

UpdateFirmwareResult CFirmwareDownloader::Download(CTString firmwareFile, CTString custFile) {
  const ThreadScope scope(*this);
  m_FirmwareFile = firmwareFile;
  m_CustFile = custFile;
  LOG_TRACE("\t %s ++", QUALIFIED_FUNCTION);
  LOG_TRACE("\t m_FirmwareFile:%s, m_CustFile:%s", Narrow(m_FirmwareFile).c_str(),
            Narrow(m_CustFile).c_str());

  if (firmwareFile.IsEmpty() && custFile.IsEmpty()) {
    LOG_ERROR("\t both Modem and NVM fls file is empty, Download --");
    return FirmwareNotUpdated;
  }
  if (firmwareFile.IsEmpty()) {
    m_FirmwareFile = m_CustFile;
    m_CustFile.Empty();
    LOG_TRACE("\t Only NVM fls, use NVM as Modem fls to flash. pFirmwarePath:%s, pCustFilePath:%s",
              Narrow(m_FirmwareFile).c_str(), Narrow(m_CustFile).c_str());
  } else if (!IsFirmwareFileValid()) {
    LOG_ERROR("IsFirmwareFileValid FAIL, %s --", QUALIFIED_FUNCTION);
    return FirmwareNotUpdated;
  }
  // Only this copy is cleared: an NVM file that cannot be opened is still submitted below, and an NVM file
  // that took the modem file's place is looked for under its emptied name. Controllers know the log so.
  if (!custFile.IsEmpty() && !IsCustFileValid()) custFile.Empty();

  if (!InitializeParametersForDownload()) {
    LOG_TRACE("\t InitializeParametersForDownload FAIL, %s --", QUALIFIED_FUNCTION);
    return FirmwareNotUpdated;
  }

  UpdateFirmwareResult result = FirmwareNotUpdated;
  if (MarkFirmwareFileForDownload()) {
    LOG_TRACE("\t MarkFirmwareFileForDownload OK");
    if (!BringIntoFlashMode()) return FirmwareUpdateFailed;
    LOG_TRACE("\t BootDeviceInFirmwareMode OK");
    result = WriteAndReset();
  } else {
    LOG_ERROR("\t MarkFirmwareFileForDownload FAIL, set FirmwareNotUpdated");
  }

  LOG_TRACE("\t Download finished, result: %d", static_cast<int>(result));
  CleanupAfterDownload();
  LOG_TRACE("\t %s --", QUALIFIED_FUNCTION);
  return result;
}

bool CFirmwareDownloader::IsFirmwareFileValid() {
  const UniqueHandle file = OpenExclusively(m_FirmwareFile);
  if (file == nullptr) {
    const int error = LastErrorNumber();
    LOG_TRACE("\t File: %s cannot be opened, ERROR: %d", Narrow(m_FirmwareFile).c_str(), error);
    return false;
  }
  return HasContent(file.get(), m_FirmwareFile);
}

bool CFirmwareDownloader::IsCustFileValid() {
  const UniqueHandle file = OpenExclusively(m_CustFile);
  if (file == nullptr) {
    LOG_TRACE("\t %s cannot be opened!", Narrow(m_CustFile).c_str());
    return false;
  }
  return HasContent(file.get(), m_CustFile);
}

bool CFirmwareDownloader::InitializeParametersForDownload() {
  bool accepted = SetParameter(kLogLevelParameter, kLibraryLogOff);
  const auto set = [&](const Parameter& parameter) {
    accepted &= SetParameter(parameter.id, parameter.value);
  };

  if (ToolKit::GetMaxModemDownloadLogNum() > 0 && SetUpDownloadLog())
    set({kLogLevelParameter, kLibraryLogOn});
  std::ranges::for_each(kTimeLimitParameters, set);
  const auto eraseMode = static_cast<std::uint32_t>(CConfigParser::ConfiguredEraseMode());
  set({kEraseModeParameter, eraseMode < kEraseModes ? eraseMode : 0});
  std::ranges::for_each(kFixedParameters, set);
  if (IsPCIEdevice()) {
    const auto address = reinterpret_cast<std::uintptr_t>(&kPcie[0]);
    const int result =
        CallLibrary(Library().SetDllParameter(), kRefused, kBusTypeParameter, address, Status());
    if (result != 0) LOG_ERROR("Setting parameter, %d failed", result);
    accepted &= result == 0;
  }
  set(kLastParameter);
  return accepted;
}

/// Makes room for the log of this session. @return whether the library shall write one.
bool CFirmwareDownloader::SetUpDownloadLog() {
  CTString folder;
  if (!ToolKit::GetLocalDataToolkitDir(folder)) {
    LOG_ERROR("Failed to get LocalAppDataDir for Modem download logging");
    return false;
  }
  folder += "\\";
  ToolKit::KeepLogFileNum(folder + "ZEMO_DownloadDll_*.log",
                          static_cast<unsigned int>(ToolKit::GetMaxModemDownloadLogNum() - 1));
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  CTString name;
  name.Format("ZEMO_DownloadDll_%04d-%02d-%02d_%02d-%02d-%02d.log", now.wYear, now.wMonth, now.wDay,
              now.wHour, now.wMinute, now.wSecond);
  // The library has no parameter that takes the name; it is kept for whoever debugs a session.
  m_downloadLogFile = folder + name;
  return true;
}

bool CFirmwareDownloader::SetParameter(std::uint8_t id, std::uint32_t value) {
  const int result =
      CallLibrary(Library().SetDllParameter(), kRefused, id, static_cast<std::uintptr_t>(value), Status());
  if (result != 0) LOG_ERROR("Setting parameter, %d failed", result);
  return result == 0;
}

bool CFirmwareDownloader::IsPCIEdevice() {
  const bool pcie = CConfigParser::ConfiguredIPCType() == L"PCIE";
  LOG_TRACE("\t ++ use IsPCIEdevice: %d", pcie ? 1 : 0);
  return pcie;
}

bool CFirmwareDownloader::MarkFirmwareFileForDownload() {
  std::uint32_t technology = 0;
  if (!m_CustFile.IsEmpty() && !MarkCustFile(technology)) return false;

  const std::string file = Narrow(m_FirmwareFile);
  LOG_TRACE("Adding Flashfls:%s for download", file.c_str());
  if (!GetFlashTechnology(technology)) return false;
  LOG_TRACE("Technology(0): %d", static_cast<int>(technology));
  std::uint32_t memoryClass = 0;
  if (!GetMemoryClass(memoryClass, 0)) return false;
  LOG_TRACE("Modem, Memory Class(0): %d", static_cast<int>(memoryClass));
  const CDownloadFile* const firstItem =
      AddToDownloadList(technology, memoryClass, m_FirmwareFile, nullptr, 0);
  if (!MarkFurtherItems(technology, firstItem)) return false;

  std::ranges::stable_sort(m_downloadList, {},
                           [](const auto& item) { return item->GetMemoryClass().downloadOrder; });
  return true;
}

bool CFirmwareDownloader::MarkCustFile(std::uint32_t& technology) {
  LOG_TRACE("Adding NVMfls:%s for download", Narrow(m_CustFile).c_str());
  // A failure has been logged, and the modem file's technology follows.
  GetFlashTechnologyOfCust(technology);
  std::uint32_t memoryClass = 0;
  if (!GetMemoryClassOfCust(memoryClass, 0)) return false;
  LOG_TRACE("NVM, Memory Class(0): %d", static_cast<int>(memoryClass));
  AddToDownloadList(technology, memoryClass, m_CustFile, nullptr, 0);
  return true;
}

bool CFirmwareDownloader::MarkFurtherItems(std::uint32_t technology, const CDownloadFile* firstItem) {
  const std::string file = Narrow(m_FirmwareFile);
  std::uint32_t count = 0;
  if (CallLibrary(Library().TocGetNofItems(), kRefused, file.c_str(), &count, Status()) != 0) {
    LOG_TRACE("Could not get the number of downloadable items in %s", file.c_str());
    return false;
  }
  LOG_TRACE("Downloadable items: %d", static_cast<int>(count));
  for (std::uint32_t index = 1; index < count; ++index) {
    std::uint32_t memoryClass = 0;
    if (!GetMemoryClass(memoryClass, index)) {
      LOG_TRACE("Could not obtain memory class for %s(%d)", file.c_str(), static_cast<int>(index));
      return false;
    }
    LOG_TRACE("Memory Class(%d): %d", static_cast<int>(index), static_cast<int>(memoryClass));
    AddToDownloadList(technology, memoryClass, m_FirmwareFile, firstItem, index);
  }
  return true;
}

CDownloadFile* CFirmwareDownloader::AddToDownloadList(std::uint32_t technology, std::uint32_t memoryClass,
                                                      const CTString& file, const CDownloadFile* firstItem,
                                                      std::uint32_t index) {
  m_downloadList.push_back(
      std::make_unique<CDownloadFile>(technology, memoryClass, Narrow(file), firstItem, index));
  return m_downloadList.back().get();
}

bool CFirmwareDownloader::GetFlashTechnology(std::uint32_t& technology) {
  return QueryFlashTechnology(m_FirmwareFile, technology);
}

bool CFirmwareDownloader::GetFlashTechnologyOfCust(std::uint32_t& technology) {
  return QueryFlashTechnology(m_CustFile, technology);
}

bool CFirmwareDownloader::GetMemoryClass(std::uint32_t& memoryClass, std::uint32_t index) {
  return QueryMemoryClass(m_FirmwareFile, memoryClass, index);
}

bool CFirmwareDownloader::GetMemoryClassOfCust(std::uint32_t& memoryClass, std::uint32_t index) {
  return QueryMemoryClass(m_CustFile, memoryClass, index);
}

bool CFirmwareDownloader::QueryFlashTechnology(const CTString& file, std::uint32_t& technology) {
  const std::string path = Narrow(file);
  if (CallLibrary(Library().TocGetFlashTechnology(), kRefused, path.c_str(), &technology, Status()) == 0)
    return true;
  LOG_TRACE("Could not get the flash technology for %s", path.c_str());
  return false;
}

bool CFirmwareDownloader::QueryMemoryClass(const CTString& file, std::uint32_t& memoryClass,
                                           std::uint32_t index) {
  const std::string path = Narrow(file);
  if (CallLibrary(Library().TocGetMemoryClass(), kRefused, path.c_str(), index, &memoryClass, Status()) ==
      0) {
    return true;
  }
  LOG_TRACE("Could not get the memory class for %s(%d)", path.c_str(), static_cast<int>(index));
  return false;
}

bool CFirmwareDownloader::BringIntoFlashMode() {
  if (RetryBudgetSpent()) return false;
  LOG_TRACE("\t GO BootDeviceInFirmwareMode, g_retry_times: %d\n", static_cast<int>(ToolKit::g_retry_times));
  if (BootDeviceInFirmwareMode() != kBootOk) return false;
  int booted = kBootNeedsReset;
  while (booted == kBootNeedsReset) {
    if (MonitorFlashPort() != kBootOk) return false;
    booted = InjectBootTarget();
  }
  return booted == kBootOk && !RetryBudgetSpent();
}

UpdateFirmwareResult CFirmwareDownloader::WriteAndReset() {
  if (DownloadFirmwareIntoDevice() != FirmwareUpdated) {
    LOG_TRACE("\t DownloadFirmwareIntoDevice FAIL, set m_return_result = FirmwareUpdateFailed;");
    return FirmwareUpdateFailed;
  }
  LOG_TRACE("\t DownloadFirmwareIntoDevice OK");

  const int reset =
      CallLibrary(Library().ForceTargetReset(), kResetFailed, m_commChannel.load(), std::uint8_t{1},
                  std::uint8_t{16}, std::uint8_t{17}, std::uint8_t{0}, Status());
  if (reset == kResetFailed) {
    LOG_TRACE("\t ForceTargetReset FAIL, set m_return_result = FirmwareUpdateFailed;");
    return FirmwareUpdateFailed;
  }
  LOG_TRACE("\t ForceTargetReset OK.");
  return FirmwareUpdated;
}

int CFirmwareDownloader::DownloadFirmwareIntoDevice() {
  LOG_TRACE("\t commChannel:(%d)", m_commChannel.load());
  for (const auto& item : m_downloadList) {
    item->getNofProgressBars =
        CallLibrary(Library().GetNofProgressBars(), std::uint32_t{0}, m_commChannel.load(),
                    item->GetTocName().c_str(), std::uintptr_t{0});
    m_ProgressBars += item->getNofProgressBars;
  }
  if (m_ProgressBars == 0) return FirmwareNotUpdated;

  for (const auto& item : m_downloadList) {
    m_DownloadingFile = item.get();
    LOG_TRACE("\t TOC name flsFileName:%s", item->GetTocName().c_str());
    LOG_TRACE("\t          flsPath_tmp:%s", item->GetFilePath().c_str());
    const int written = WriteItem(*item);
    LOG_TRACE("\t memType:(%d)", static_cast<int>(item->GetMemoryClass().code));
    if (written != 0) {
      LOG_ERROR("\t Could not download file(%s)", item->GetTocName().c_str());
      return FirmwareUpdateFailed;
    }
    ::Sleep(kPauseBetweenItemsMs);
  }
  return FirmwareUpdated;
}

int CFirmwareDownloader::WriteItem(const CDownloadFile& item) {
  const char* const tocName = item.GetTocName().c_str();
  const auto writeToPartition = [&](std::uint8_t partition) {
    return CallLibrary(Library().DownloadDffsFile(), kRefused, m_commChannel.load(), tocName, partition,
                       Status());
  };
  switch (item.GetMemoryClass().code) {
    case 1:
    case 2:
    case 4:
      return CallLibrary(Library().DownloadFlsFile(), kRefused, m_commChannel.load(), tocName, Status());
    case 11:
      return writeToPartition(kStaticPartition);
    case 12:
      return writeToPartition(kDynamicPartition);
    case 14:
    case 15:
    case 16:
      return writeToPartition(kDiskPartition);
    case 5:
    case 13:
    case 19:
      return WriteCustItem(item);
    default:
      LOG_ERROR("\t m_DownloadCUSTFileFunc(%d, %s)\n", m_commChannel.load(), tocName);
      return WriteCustItem(item);
  }
}

int CFirmwareDownloader::WriteCustItem(const CDownloadFile& item) {
  const int written = CallLibrary(Library().DownloadCustFile(), kRefused, m_commChannel.load(),
                                  item.GetTocName().c_str(), Status());
  CallLibrary(Library().OutOfSessionComm(), 0, m_commChannel.load(), std::uintptr_t{4}, std::uintptr_t{6},
              std::uintptr_t{0}, std::uintptr_t{0}, std::uintptr_t{0});
  return written;
}

void CFirmwareDownloader::CleanupAfterDownload() {
  m_DownloadingFile = nullptr;
  m_downloadList.clear();
  if (CallLibrary(Library().CloseCommPort(), 0, m_commChannel.load(), Status()) != 0) {
    LOG_ERROR("\t ERROR: Close CommPort failed due to %s\n", Status());
  }
  SetParameter(kLogLevelParameter, kLibraryLogOff);
}
