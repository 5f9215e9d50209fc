#include "download/firmwaredownloader.h"

#include <algorithm>
#include <array>

#include "common/fileretention.h"
#include "common/log.h"
#include "common/narrow.h"
#include "common/neverdestroyed.h"
#include "common/programfolder.h"
#include "common/sharedvalue.h"
#include "common/win32error.h"
#include "config/configparser.h"
#include "download/devicepresence.h"
#include "download/downloadtooldll.h"
#include "download/flashservice.h"
#include "download/flashtimes.h"
#include "download/sinkshare.h"

using namespace corvel;

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

// The procedures under whose names their helpers log.
constexpr char kDownload[] = "CFirmwareDownloader::Download";
constexpr char kInitializeParameters[] = "CFirmwareDownloader::InitializeParametersForDownload";
constexpr char kDownloadIntoDevice[] = "CFirmwareDownloader::DownloadFirmwareIntoDevice";
constexpr char kCleanup[] = "CFirmwareDownloader::CleanupAfterDownload";

struct Slot {
  SRWLOCK lock = SRWLOCK_INIT;
  std::shared_ptr<CFirmwareDownloader> engine;
};
NeverDestroyed<Slot> g_slot;

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

/// True for an opened file with anything in it. Logs under the name of the `function` that asks.
bool HasContent(const char* function, HANDLE file, const CTString& name) {
  LARGE_INTEGER size{};
  if (!::GetFileSizeEx(file, &size)) {
    const int error = LastErrorNumber();
    LOG_TRACE_AS(function, "\t GetFileSizeEx(%s) failed with: %d", Narrow(name).c_str(), error);
    return false;
  }
  LOG_TRACE_AS(function, "\t Size of %s: %d", Narrow(name).c_str(), static_cast<int>(size.LowPart));
  return size.QuadPart != 0;
}

}  // namespace

std::shared_ptr<CFirmwareDownloader> CFirmwareDownloader::GetInstance() {
  if (auto engine = PresentEngine()) return engine;

  std::shared_ptr<CFirmwareDownloader> engine(new CFirmwareDownloader);
  SetPresentEngine(engine);
  Attempt::SetPresent(engine->m_Attempt);
  bool bound = false;
  try {
    bound = CDownloadToolDll::Load();
  } catch (...) {
    // Out of memory half-way: the engine gets what there is of the library, and is told of as one that
    // failed.
  }
  engine->m_Attempt->SetLibrary(CDownloadToolDll::Library());
  if (!bound) {
    LOG_ERROR("\t DownloadToolDll Load fail");
    // The engine stays all the same: the next caller gets it, and flashes without progress.
    return nullptr;
  }
  return engine;
}

std::shared_ptr<CFirmwareDownloader> CFirmwareDownloader::Present() {
  return PresentEngine();
}

void CFirmwareDownloader::Unload() {
  LOG_TRACE("\t Unload ++");
  if (const auto engine = PresentEngine()) {
    engine->m_Attempt->Abandon();
    CDownloadToolDll::Unload();
    Attempt::SetPresent(nullptr);
    SetPresentEngine(nullptr);
  }
  DeleteRetiredSinks();
  LOG_TRACE("\t Unload --");
}

CFirmwareDownloader::CFirmwareDownloader()
    : m_Attempt(std::make_shared<Attempt>()),
      m_List(*m_Attempt),
      m_Boot(std::make_shared<FirmwareBoot>(m_Attempt)) {}

UpdateFirmwareResult CFirmwareDownloader::Download(CTString firmwareFile, CTString custFile) {
  const Attempt::ThreadScope scope(*m_Attempt);
  const int tlsError = LastErrorNumber();
  m_FirmwareFile = firmwareFile;
  m_CustFile = custFile;
  LOG_TRACE("\t %s ++", QUALIFIED_FUNCTION);
  LOG_TRACE("\t m_FirmwareFile:%s, m_CustFile:%s", Narrow(m_FirmwareFile).c_str(),
            Narrow(m_CustFile).c_str());
  if (!scope.IsNoted()) {
    LOG_ERROR("\t TlsSetValue failed with: %d, Download --", tlsError);
    return FirmwareNotUpdated;
  }

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

  // Calls that an attempt which was given up did not make are no failures, and are not told as such.
  if (m_Attempt->IsAbandoned()) LOG_WARNING("\t The attempt was given up meanwhile");
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
  return HasContent(QUALIFIED_FUNCTION, file.get(), m_FirmwareFile);
}

bool CFirmwareDownloader::IsCustFileValid() {
  const UniqueHandle file = OpenExclusively(m_CustFile);
  if (file == nullptr) {
    LOG_TRACE("\t %s cannot be opened!", Narrow(m_CustFile).c_str());
    return false;
  }
  return HasContent(QUALIFIED_FUNCTION, file.get(), m_CustFile);
}

bool CFirmwareDownloader::InitializeParametersForDownload() {
  bool accepted = SetParameter(kLogLevelParameter, kLibraryLogOff);
  const auto set = [&](const Parameter& parameter) {
    accepted &= SetParameter(parameter.id, parameter.value);
  };

  if (kMostDownloadLogs > 0 && SetUpDownloadLog()) set({kLogLevelParameter, kLibraryLogOn});
  std::ranges::for_each(kTimeLimitParameters, set);
  const auto eraseMode = static_cast<std::uint32_t>(CConfigParser::ConfiguredEraseMode());
  set({kEraseModeParameter, eraseMode < kEraseModes ? eraseMode : 0});
  std::ranges::for_each(kFixedParameters, set);
  if (IsPCIEdevice()) {
    const auto address = reinterpret_cast<std::uintptr_t>(&kPcie[0]);
    accepted &= SubmitParameter(QUALIFIED_FUNCTION, kBusTypeParameter, address);
  }
  set(kLastParameter);
  return accepted;
}

/// Makes room for the log of this session. @return whether the library shall write one.
bool CFirmwareDownloader::SetUpDownloadLog() {
  CTString folder;
  if (!TakeProgramFolder(folder)) {
    LOG_ERROR_AS(kInitializeParameters, "Failed to get LocalAppDataDir for Modem download logging");
    return false;
  }
  folder += "\\";
  KeepFiles(folder + "ZEMO_DownloadDll_*.log", kMostDownloadLogs - 1);
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  CTString name;
  name.Format("ZEMO_DownloadDll_%04d-%02d-%02d_%02d-%02d-%02d.log", now.wYear, now.wMonth, now.wDay,
              now.wHour, now.wMinute, now.wSecond);
  // The library has no parameter that takes the name; it is kept for whoever debugs a session.
  m_DownloadLogFile = folder + name;
  return true;
}

bool CFirmwareDownloader::SetParameter(std::uint8_t id, std::uint32_t value) {
  return SubmitParameter(QUALIFIED_FUNCTION, id, value);
}

bool CFirmwareDownloader::SubmitParameter(const char* function, std::uint8_t id, std::uintptr_t value) {
  const int result = m_Attempt->CallLibrary(m_Attempt->Library().SetDllParameter(), kRefused, id, value,
                                            m_Attempt->Status());
  // An attempt that was given up asks nothing of the library, so there is no refusal to tell of.
  if (result != 0 && !m_Attempt->IsAbandoned())
    LOG_ERROR_AS(function, "Setting parameter, %d failed", result);
  return result == 0;
}

bool CFirmwareDownloader::IsPCIEdevice() {
  const bool pcie = CConfigParser::ConfiguredIPCType() == L"PCIE";
  LOG_TRACE("\t ++ use IsPCIEdevice: %d", pcie ? 1 : 0);
  return pcie;
}

bool CFirmwareDownloader::MarkFirmwareFileForDownload() {
  m_List.SetFiles(m_FirmwareFile, m_CustFile);
  return m_List.Mark();
}

bool CFirmwareDownloader::GetFlashTechnology(std::uint32_t& technology) {
  return m_List.QueryFlashTechnology(QUALIFIED_FUNCTION, m_FirmwareFile, technology);
}

bool CFirmwareDownloader::GetFlashTechnologyOfCust(std::uint32_t& technology) {
  return m_List.QueryFlashTechnology(QUALIFIED_FUNCTION, m_CustFile, technology);
}

bool CFirmwareDownloader::GetMemoryClass(std::uint32_t& memoryClass, std::uint32_t index) {
  return m_List.QueryMemoryClass(QUALIFIED_FUNCTION, m_FirmwareFile, memoryClass, index);
}

bool CFirmwareDownloader::GetMemoryClassOfCust(std::uint32_t& memoryClass, std::uint32_t index) {
  return m_List.QueryMemoryClass(QUALIFIED_FUNCTION, m_CustFile, memoryClass, index);
}

bool CFirmwareDownloader::BringIntoFlashMode() {
  if (RetryBudgetSpent()) return false;
  LOG_TRACE_AS(kDownload, "\t GO BootDeviceInFirmwareMode, g_retry_times: %d\n",
               static_cast<int>(Shared(*Service().retriesSpent)));
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
    LOG_TRACE_AS(kDownload,
                 "\t DownloadFirmwareIntoDevice FAIL, set m_return_result = FirmwareUpdateFailed;");
    return FirmwareUpdateFailed;
  }
  LOG_TRACE_AS(kDownload, "\t DownloadFirmwareIntoDevice OK");

  const int reset = m_Attempt->CallLibrary(m_Attempt->Library().ForceTargetReset(), kResetFailed,
                                           m_Attempt->Channel(), std::uint8_t{1}, std::uint8_t{16},
                                           std::uint8_t{17}, std::uint8_t{0}, m_Attempt->Status());
  if (reset == kResetFailed) {
    if (!m_Attempt->IsAbandoned())
      LOG_TRACE_AS(kDownload, "\t ForceTargetReset FAIL, set m_return_result = FirmwareUpdateFailed;");
    return FirmwareUpdateFailed;
  }
  LOG_TRACE_AS(kDownload, "\t ForceTargetReset OK.");
  return FirmwareUpdated;
}

int CFirmwareDownloader::DownloadFirmwareIntoDevice() {
  LOG_TRACE("\t commChannel:(%d)", m_Attempt->Channel());
  for (const auto& item : m_List.Items()) {
    item->getNofProgressBars =
        m_Attempt->CallLibrary(m_Attempt->Library().GetNofProgressBars(), std::uint32_t{0},
                               m_Attempt->Channel(), item->GetTocName().c_str(), std::uintptr_t{0});
    m_Attempt->Progress().AddBars(item->getNofProgressBars);
  }
  if (m_Attempt->Progress().AllBars() == 0) return FirmwareNotUpdated;

  for (const auto& item : m_List.Items()) {
    m_Attempt->Progress().SetItem(item->getNofProgressBars);
    LOG_TRACE("\t TOC name flsFileName:%s", item->GetTocName().c_str());
    LOG_TRACE("\t          flsPath_tmp:%s", item->GetFilePath().c_str());
    const int written = WriteItem(*item);
    LOG_TRACE("\t memType:(%d)", static_cast<int>(item->GetMemoryClass().code));
    if (written != 0) {
      if (!m_Attempt->IsAbandoned()) LOG_ERROR("\t Could not download file(%s)", item->GetTocName().c_str());
      return FirmwareUpdateFailed;
    }
    ::Sleep(kPauseBetweenItemsMs);
  }
  return FirmwareUpdated;
}

int CFirmwareDownloader::WriteItem(const CDownloadFile& item) {
  const char* const tocName = item.GetTocName().c_str();
  const auto writeToPartition = [&](std::uint8_t partition) {
    return m_Attempt->CallLibrary(m_Attempt->Library().DownloadDffsFile(), kRefused, m_Attempt->Channel(),
                                  tocName, partition, m_Attempt->Status());
  };
  switch (item.GetMemoryClass().code) {
    case 1:
    case 2:
    case 4:
      return m_Attempt->CallLibrary(m_Attempt->Library().DownloadFlsFile(), kRefused, m_Attempt->Channel(),
                                    tocName, m_Attempt->Status());
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
      LOG_ERROR_AS(kDownloadIntoDevice, "\t m_DownloadCUSTFileFunc(%d, %s)\n", m_Attempt->Channel(), tocName);
      return WriteCustItem(item);
  }
}

int CFirmwareDownloader::WriteCustItem(const CDownloadFile& item) {
  const int written =
      m_Attempt->CallLibrary(m_Attempt->Library().DownloadCustFile(), kRefused, m_Attempt->Channel(),
                             item.GetTocName().c_str(), m_Attempt->Status());
  m_Attempt->CallLibrary(m_Attempt->Library().OutOfSessionComm(), 0, m_Attempt->Channel(), std::uintptr_t{4},
                         std::uintptr_t{6}, std::uintptr_t{0}, std::uintptr_t{0}, std::uintptr_t{0});
  return written;
}

void CFirmwareDownloader::CleanupAfterDownload() {
  m_Attempt->Progress().SetItem(std::nullopt);
  m_List.Clear();
  // Whoever gets here with a channel of its own has opened it, or writes to what the last attempt left.
  const std::optional<int> closed = m_Attempt->CloseChannel(true, kCleanup);
  if (closed.value_or(0) != 0) LOG_ERROR("\t ERROR: Close CommPort failed due to %s\n", m_Attempt->Status());
  SetParameter(kLogLevelParameter, kLibraryLogOff);
}

// --- Members that forward ---------------------------------------------------------------------------------

int CFirmwareDownloader::GetAbsoluteProgress(const char* statusText) {
  return m_Attempt->GetAbsoluteProgress(statusText);
}

bool CFirmwareDownloader::IsMBIMModemPresence() {
  return IsMbimModemPresent();
}

bool CFirmwareDownloader::IsFlashPortPresence() {
  return IsFlashPortPresent();
}

bool CFirmwareDownloader::ScanForHardwareChanges() {
  return ReenumerateDeviceTree();
}

void CFirmwareDownloader::ScanForHardwareChangesAndSettle() {
  ReenumerateDeviceTreeAndSettle();
}

int CFirmwareDownloader::BootDeviceInFirmwareMode() {
  return m_Boot->BootDeviceInFirmwareMode();
}

int CFirmwareDownloader::RebootModem() {
  return m_Boot->RebootModem();
}

int CFirmwareDownloader::RebootModemByXlog4() {
  return m_Boot->RebootModemByXlog4();
}

HRESULT CFirmwareDownloader::RebootModemByMbimCmd() {
  return m_Boot->RebootModemByMbimCmd();
}

bool CFirmwareDownloader::ControlBBrst() {
  return m_Boot->ControlBBrst();
}

int CFirmwareDownloader::MonitorFlashPort() {
  return m_Boot->MonitorFlashPort();
}

bool CFirmwareDownloader::CheckFlashPortImplementation(CFirmwareDownloader* engine, FlashPortSearch& search) {
  if (engine != nullptr) engine->m_Boot->CheckFlashPort(search);
  return true;
}

int CFirmwareDownloader::InjectBootTarget() {
  return m_Boot->InjectBootTarget(m_List.BootFile());
}

int CFirmwareDownloader::InjectBootTargetThread() {
  return m_Boot->InjectBootTargetThread(m_List.BootFile());
}
