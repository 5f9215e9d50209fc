#include "download/firmwaredownloader.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <fstream>

#include "support/flash_bench.h"
#include "support/lock_probe.h"
#include "support/scarce_memory.h"

using corvel::FlashLibrary;
using corvel::OwnFileHandle;
using corvel::UniqueHandle;
using corvel::Utf8FromWide;
using corvel::WideFromUtf8;

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;
using Mode = FakeModem::Mode;

constexpr char kFlsFile[] = "download_fls_file";
constexpr char kDffsFile[] = "download_dffs_file";
constexpr char kCustFile[] = "download_cust_file";
constexpr char kOutOfSession[] = "out_of_session_comm(7, 4, 6, 0, 0, 0)";

/// The modem is in flash mode from the start.
class SessionTest : public testing::Test {
 protected:
  SessionTest() { bench.modem.Become(Mode::Flash); }

  UpdateFirmwareResult Flash() { return FlashBench::Download(modem); }
  UpdateFirmwareResult FlashBoth() { return FlashBench::Download(modem, nvm); }
  std::vector<std::string> Said() const { return bench.Said({"firmwaredownloader.cpp", "downloadlist.cpp"}); }
  std::vector<std::string> Written() const { return bench.library.CallsOf({"download_"}); }
  bool IsUntouched() const { return bench.library.CallCount("open_comm_port") == 0; }
  bool CleanedUp() const { return bench.HasSaid("\t CFirmwareDownloader::Download --"); }

  FlashBench bench;
  std::string modem = bench.AddImage(L"modem.fls", {1});
  std::string nvm = bench.AddImage(L"nvm.fls", {5});
};

// --- The engine ------------------------------------------------------------------------------------------

TEST_F(SessionTest, EngineIsMadeOnceAndLoadsTheLibraryOnce) {
  const auto engine = CFirmwareDownloader::GetInstance();
  EXPECT_NE(engine, nullptr);
  EXPECT_EQ(CFirmwareDownloader::GetInstance(), engine);
  EXPECT_EQ(bench.library.loads, 1);
}

TEST_F(SessionTest, EngineIsThereForTheSecondCallerWhenTheCallbackIsRefused) {
  bench.library.results["init_callback"] = 1;
  EXPECT_EQ(CFirmwareDownloader::GetInstance(), nullptr);
  EXPECT_NE(CFirmwareDownloader::GetInstance(), nullptr);
  EXPECT_EQ(bench.library.loads, 1);
  EXPECT_THAT(Said(), ElementsAre("E:\t DownloadToolDll Load fail"));
}

TEST_F(SessionTest, EngineIsThereForWhoeverAsksWhileTheLibraryIsLoaded) {
  std::shared_ptr<CFirmwareDownloader> meanwhile;
  bench.library.during["init_callback"] = [&] { meanwhile = CFirmwareDownloader::GetInstance(); };
  const auto engine = CFirmwareDownloader::GetInstance();
  EXPECT_EQ(meanwhile, engine);
  EXPECT_EQ(bench.library.loads, 1);
}

TEST_F(SessionTest, AttemptIsThereForProgressThatTheLibraryReportsWhileItIsLoaded) {
  bench.library.during["init_callback"] = [this] {
    EXPECT_NE(corvel::Attempt::OfThisThread(), nullptr);
    bench.library.during.clear();
  };
  CFirmwareDownloader::GetInstance();
  EXPECT_THAT(bench.library.during, IsEmpty());
}

TEST_F(SessionTest, UnloadLeavesNoPresentAttempt) {
  CFirmwareDownloader::GetInstance();
  ASSERT_NE(corvel::Attempt::OfThisThread(), nullptr);
  CFirmwareDownloader::Unload();
  EXPECT_EQ(corvel::Attempt::OfThisThread(), nullptr);
}

TEST_F(SessionTest, UnloadGivesTheLibraryBack) {
  CFirmwareDownloader::GetInstance();
  CFirmwareDownloader::Unload();
  EXPECT_FALSE(bench.library.IsMapped());
  EXPECT_THAT(bench.Said({"firmwaredownloader.cpp", "downloadtooldll.cpp"}), Contains("\t Unload ++"));
  EXPECT_EQ(Said().back(), "\t Unload --");
}

TEST_F(SessionTest, UnloadWithoutAnEngineOnlySaysSo) {
  CFirmwareDownloader::Unload();
  EXPECT_THAT(bench.Said({"firmwaredownloader.cpp", "downloadtooldll.cpp"}),
              ElementsAre("\t Unload ++", "\t Unload --"));
}

TEST_F(SessionTest, WithoutMemoryForTheLibraryEveryCallFails) {
  constexpr int kMost = 100;
  ScarceMemory memory;
  int failing = 0;
  std::shared_ptr<CFirmwareDownloader> handedOut;
  // The one that leaves an engine without a library.
  while (CFirmwareDownloader::Present() == nullptr || CDownloadToolDll::Library() != nullptr) {
    ASSERT_LT(++failing, kMost);
    CFirmwareDownloader::Unload();
    handedOut.reset();
    memory.Fail(failing);
    try {
      handedOut = CFirmwareDownloader::GetInstance();
    } catch (const std::bad_alloc&) {
    }
    memory.Suffice();
  }
  EXPECT_EQ(handedOut, nullptr);
  bench.library.calls.clear();
  EXPECT_EQ(Flash(), FirmwareNotUpdated);
  EXPECT_THAT(bench.library.calls, IsEmpty());
  EXPECT_THAT(Said(), Contains("E:Setting parameter, -1 failed"));
}

TEST_F(SessionTest, WithoutMemoryWhileTheLibraryIsBoundItIsToldAsALibraryThatFailed) {
  ScarceMemory memory;
  std::ptrdiff_t told = 0;
  memory.FailEachOf([&] {
    std::shared_ptr<CFirmwareDownloader> engine;
    try {
      engine = CFirmwareDownloader::GetInstance();
    } catch (const std::bad_alloc&) {
    }
    memory.Suffice();
    const bool halfMade = engine == nullptr && CFirmwareDownloader::Present() != nullptr;
    if (halfMade) ++told;
    EXPECT_EQ(bench.TimesSaid("E:\t DownloadToolDll Load fail"), told);
    CFirmwareDownloader::Unload();
  });
  EXPECT_GT(told, 1);
}

BOOL WINAPI RefuseToNote(DWORD, void*) {
  ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return FALSE;
}

// The system's own may.
void* __cdecl AllocateAndChangeTheLastError(std::size_t size) {
  ::SetLastError(ERROR_INVALID_HANDLE);
  return std::malloc(size);
}

TEST_F(SessionTest, IsRefusedWhenItCannotBeNotedForWhomTheThreadWorks) {
  const auto engine = CFirmwareDownloader::GetInstance();
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("TlsSetValue", &RefuseToNote);
  patch.Replace("malloc", &AllocateAndChangeTheLastError);
  EXPECT_EQ(engine->Download(CTString(modem), CTString(nvm)), FirmwareNotUpdated);
  EXPECT_EQ(Said().back(), "E:\t TlsSetValue failed with: 8, Download --");
  EXPECT_THAT(bench.library.calls, ElementsAre("init_callback()"));
}

// --- The locks -------------------------------------------------------------------------------------------

TEST_F(SessionTest, TheEngineIsHandedOutUnderALock) {
  CFirmwareDownloader::GetInstance();
  LockProbe locks;
  EXPECT_TRUE(
      locks.Excludes([] { CFirmwareDownloader::GetInstance(); }, [] { CFirmwareDownloader::GetInstance(); }));
}

TEST_F(SessionTest, ANewEngineIsPutInPlaceUnderThatLock) {
  LockProbe locks;
  // The first lock that it gives back is the look at the present one.
  EXPECT_TRUE(locks.Excludes([] { CFirmwareDownloader::GetInstance(); },
                             [] { CFirmwareDownloader::GetInstance(); }, 2));
}

TEST_F(SessionTest, TheAttemptIsHandedOutUnderALock) {
  CFirmwareDownloader::GetInstance();
  LockProbe locks;
  EXPECT_TRUE(
      locks.Excludes([] { corvel::Attempt::OfThisThread(); }, [] { corvel::Attempt::OfThisThread(); }));
}

TEST_F(SessionTest, ANewAttemptIsPutInPlaceUnderThatLock) {
  LockProbe locks;
  EXPECT_TRUE(
      locks.Excludes([] { corvel::Attempt::SetPresent(nullptr); }, [] { corvel::Attempt::OfThisThread(); }));
}

TEST_F(SessionTest, GivingAnAttemptUpWaitsForAStepThatItMayStillTake) {
  const auto engine = CFirmwareDownloader::GetInstance();
  LockProbe locks;
  bool waited = false;
  engine->UnlessAbandoned([&] {
    waited = locks.IsMetBy([] { CFirmwareDownloader::Unload(); });
    EXPECT_FALSE(engine->IsAbandoned());
  });
  locks.Join();
  EXPECT_TRUE(waited);
  EXPECT_TRUE(engine->IsAbandoned());
}

// --- The whole session -----------------------------------------------------------------------------------

TEST_F(SessionTest, TellsEachStepOfASuccess) {
  EXPECT_EQ(FlashBoth(), FirmwareUpdated);
  EXPECT_THAT(Said(),
              ElementsAreArray(std::vector<std::string>{"\t CFirmwareDownloader::Download ++",
                                                        "\t m_FirmwareFile:" + modem + ", m_CustFile:" + nvm,
                                                        "\t Size of " + modem + ": 100",
                                                        "\t Size of " + nvm + ": 100",
                                                        "\t ++ use IsPCIEdevice: 0",
                                                        "Adding NVMfls:" + nvm + " for download",
                                                        "NVM, Memory Class(0): 5",
                                                        "Adding Flashfls:" + modem + " for download",
                                                        "Technology(0): 2",
                                                        "Modem, Memory Class(0): 1",
                                                        "Downloadable items: 1",
                                                        "\t MarkFirmwareFileForDownload OK",
                                                        "\t GO BootDeviceInFirmwareMode, g_retry_times: 0\n",
                                                        "\t BootDeviceInFirmwareMode OK",
                                                        "\t commChannel:(7)",
                                                        "\t TOC name flsFileName:|0|" + modem,
                                                        "\t          flsPath_tmp:" + modem,
                                                        "\t memType:(1)",
                                                        "\t TOC name flsFileName:|0|" + nvm,
                                                        "\t          flsPath_tmp:" + nvm,
                                                        "\t memType:(5)",
                                                        "\t DownloadFirmwareIntoDevice OK",
                                                        "\t ForceTargetReset OK.",
                                                        "\t Download finished, result: 1",
                                                        "\t CFirmwareDownloader::Download --"}));
}

TEST_F(SessionTest, TellsEachStepUnderItsProceduresName) {
  EXPECT_EQ(FlashBoth(), FirmwareUpdated);
  const std::string download = "CFirmwareDownloader::Download";
  const std::string list = "CFirmwareDownloader::MarkFirmwareFileForDownload";
  const std::string write = "CFirmwareDownloader::DownloadFirmwareIntoDevice";
  EXPECT_THAT(FunctionsOf(bench.Records({"firmwaredownloader.cpp", "downloadlist.cpp"})),
              ElementsAreArray(std::vector<std::string>{download,
                                                        download,
                                                        "CFirmwareDownloader::IsFirmwareFileValid",
                                                        "CFirmwareDownloader::IsCustFileValid",
                                                        "CFirmwareDownloader::IsPCIEdevice",
                                                        list,
                                                        list,
                                                        list,
                                                        list,
                                                        list,
                                                        list,
                                                        download,
                                                        download,
                                                        download,
                                                        write,
                                                        write,
                                                        write,
                                                        write,
                                                        write,
                                                        write,
                                                        write,
                                                        download,
                                                        download,
                                                        download,
                                                        download}));
}

TEST_F(SessionTest, TellsWhatTheLibrarySaysOfItsImages) {
  const auto engine = CFirmwareDownloader::GetInstance();
  bench.library.images[modem] = {1, 4};
  EXPECT_EQ(FlashBoth(), FirmwareUpdated);
  std::uint32_t value = 0;
  EXPECT_TRUE(engine->GetMemoryClass(value, 1));
  EXPECT_EQ(value, 4u);
  EXPECT_TRUE(engine->GetMemoryClassOfCust(value, 0));
  EXPECT_EQ(value, 5u);
  EXPECT_TRUE(engine->GetFlashTechnology(value));
  EXPECT_EQ(value, bench.library.technology);
  bench.library.technology = 3;
  EXPECT_TRUE(engine->GetFlashTechnologyOfCust(value));
  EXPECT_EQ(value, 3u);
}

TEST_F(SessionTest, TellsTheWholesPercentageFromAnItems) {
  const auto engine = CFirmwareDownloader::GetInstance();
  std::vector<int> told{engine->GetAbsoluteProgress("50")};
  bench.library.during["download_fls_file"] = [&] {
    for (const char* text : {"0", "50", "100"}) told.push_back(engine->GetAbsoluteProgress(text));
  };
  EXPECT_EQ(Flash(), FirmwareUpdated);
  EXPECT_THAT(told, ElementsAre(0, 0, 50, 100));
}

TEST_F(SessionTest, CallsTheLibraryInOrder) {
  EXPECT_EQ(FlashBoth(), FirmwareUpdated);
  const std::string port = Utf8FromWide(bench.modem.flashPortPath);
  std::vector<std::string> calls = bench.library.calls;
  std::erase_if(calls, [](const std::string& call) { return call.starts_with("set_dll_parameter"); });
  EXPECT_THAT(calls, ElementsAreArray(std::vector<std::string>{
                         "init_callback()", "TOC_get_flash_technogy(" + nvm + ")",
                         "TOC_get_memory_class(" + nvm + ", 0)", "TOC_get_flash_technogy(" + modem + ")",
                         "TOC_get_memory_class(" + modem + ", 0)", "TOC_get_nof_items(" + modem + ")",
                         "get_next_free_channel()", "open_comm_port(7, " + port + ", " + port + ", 921600)",
                         "boot_target(7, " + modem + ")", "get_nof_progressbars(7, |0|" + modem + ", 0)",
                         "get_nof_progressbars(7, |0|" + nvm + ", 0)",
                         "download_fls_file(7, |0|" + modem + ")", "download_cust_file(7, |0|" + nvm + ")",
                         kOutOfSession, "force_target_reset(7, 1, 16, 17, 0)", "close_comm_port(7)"}));
}

TEST_F(SessionTest, PausesTenMillisecondsBehindEachItem) {
  FlashBoth();
  EXPECT_THAT(bench.clock.Sleeps(), ElementsAre(10u, 10u));
}

// --- The files -------------------------------------------------------------------------------------------

TEST_F(SessionTest, WithoutAnyFileIsRefused) {
  EXPECT_EQ(FlashBench::Download("", ""), FirmwareNotUpdated);
  EXPECT_THAT(Said(), ElementsAre("\t CFirmwareDownloader::Download ++", "\t m_FirmwareFile:, m_CustFile:",
                                  "E:\t both Modem and NVM fls file is empty, Download --"));
}

TEST_F(SessionTest, WithOnlyAnNvmFileFlashesItAsTheModemFileWithAllItsItems) {
  bench.library.images[nvm] = {5, 4, 1};
  EXPECT_EQ(FlashBench::Download("", nvm), FirmwareUpdated);
  EXPECT_THAT(Written(),
              ElementsAre("download_fls_file(7, |2|" + nvm + ")", "download_fls_file(7, |1|" + nvm + ")",
                          "download_cust_file(7, |0|" + nvm + ")"));
  EXPECT_EQ(bench.TimesSaid("\t Only NVM fls, use NVM as Modem fls to flash. pFirmwarePath:" + nvm +
                            ", pCustFilePath:"),
            1);
  EXPECT_EQ(bench.TimesSaid("\t  cannot be opened!"), 1);
  EXPECT_FALSE(bench.HasSaid("\t Size of " + nvm + ": 100"));
}

TEST_F(SessionTest, WithAnEmptyModemFileDoesNotTouchTheDevice) {
  modem = bench.AddImage(L"empty.fls", {1}, 0);
  EXPECT_EQ(Flash(), FirmwareNotUpdated);
  EXPECT_THAT(bench.library.calls, ElementsAre("init_callback()"));
  EXPECT_THAT(Said(), Contains("\t Size of " + modem + ": 0"));
  EXPECT_EQ(Said().back(), "E:IsFirmwareFileValid FAIL, CFirmwareDownloader::Download --");
}

TEST_F(SessionTest, WithAMissingModemFileTellsTheError) {
  EXPECT_EQ(FlashBench::Download(modem + "x"), FirmwareNotUpdated);
  EXPECT_THAT(Said(), Contains("\t File: " + modem + "x cannot be opened, ERROR: 2"));
  EXPECT_EQ(FunctionOf(bench.Records({"firmwaredownloader.cpp", "downloadlist.cpp"}),
                       "\t File: " + modem + "x cannot be opened, ERROR: 2"),
            "CFirmwareDownloader::IsFirmwareFileValid");
  EXPECT_TRUE(IsUntouched());
}

TEST_F(SessionTest, WithAModemFileThatSomebodyElseHasOpenIsRefused) {
  const UniqueHandle open =
      OwnFileHandle(::CreateFileW(WideFromUtf8(modem).c_str(), GENERIC_READ,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_NE(open, nullptr);
  EXPECT_EQ(Flash(), FirmwareNotUpdated);
  EXPECT_THAT(Said(), Contains("\t File: " + modem + " cannot be opened, ERROR: 32"));
}

BOOL WINAPI RefuseSize(HANDLE, LARGE_INTEGER*) {
  ::SetLastError(ERROR_INVALID_FUNCTION);
  return FALSE;
}

TEST_F(SessionTest, WithAFileOfUnknownSizeIsRefused) {
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("GetFileSizeEx", &RefuseSize);
  EXPECT_EQ(Flash(), FirmwareNotUpdated);
  EXPECT_EQ(FunctionOf(bench.Records({"firmwaredownloader.cpp", "downloadlist.cpp"}),
                       "\t GetFileSizeEx(" + modem + ") failed with: 1"),
            "CFirmwareDownloader::IsFirmwareFileValid");
}

struct FileOpening {
  DWORD access;
  DWORD share;
  DWORD creation;
  DWORD flags;
  bool operator==(const FileOpening&) const = default;
};
std::map<std::wstring, FileOpening> g_openings;
HANDLE WINAPI NoteOpening(const wchar_t* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                          DWORD creation, DWORD flags, HANDLE pattern) {
  g_openings[name] = {access, share, creation, flags};
  return ::CreateFileW(name, access, share, security, creation, flags, pattern);
}

TEST_F(SessionTest, OpensEachFileForItselfAlone) {
  const auto engine = CFirmwareDownloader::GetInstance();
  bench.library.results["set_dll_parameter"] = 1;
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("CreateFileW", &NoteOpening);
  g_openings.clear();
  engine->Download(CTString(modem), CTString(nvm));
  const FileOpening exclusive{GENERIC_READ, 0, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL};
  EXPECT_EQ(g_openings[WideFromUtf8(modem)], exclusive);
  EXPECT_EQ(g_openings[WideFromUtf8(nvm)], exclusive);
}

std::int64_t g_size = 0;
BOOL WINAPI TellSize(HANDLE, LARGE_INTEGER* size) {
  size->QuadPart = g_size;
  return TRUE;
}

TEST_F(SessionTest, WithAFileOfExactlyFourGibibytesIsAccepted) {
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("GetFileSizeEx", &TellSize);
  g_size = 0x100000000;
  EXPECT_EQ(Flash(), FirmwareUpdated);
  EXPECT_THAT(Said(), Contains("\t Size of " + modem + ": 0"));
}

TEST_F(SessionTest, PrintsTheLowPartOfASizeAsASignedNumber) {
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("GetFileSizeEx", &TellSize);
  g_size = 3'000'000'000;
  Flash();
  EXPECT_THAT(Said(), Contains("\t Size of " + modem + ": -1294967296"));
}

TEST_F(SessionTest, SubmitsAnNvmFileThatCannotBeOpenedToTheTableOfContentsAllTheSame) {
  nvm += "x";
  bench.library.images[nvm] = {5};
  EXPECT_EQ(FlashBoth(), FirmwareUpdated);
  EXPECT_THAT(Said(), Contains("\t " + nvm + " cannot be opened!"));
  EXPECT_THAT(Written(), Contains("download_cust_file(7, |0|" + nvm + ")"));
}

TEST_F(SessionTest, IsRefusedWhenTheMemoryClassOfAnUnreadableNvmFileIsUnknown) {
  nvm += "x";
  EXPECT_EQ(FlashBoth(), FirmwareNotUpdated);
  EXPECT_EQ(FunctionOf(bench.Records({"firmwaredownloader.cpp", "downloadlist.cpp"}),
                       "Could not get the memory class for " + nvm + "(0)"),
            "CFirmwareDownloader::GetMemoryClassOfCust");
  EXPECT_TRUE(IsUntouched());
}

// --- The parameters --------------------------------------------------------------------------------------

class ParameterTest : public SessionTest {
 protected:
  std::vector<std::string> Parameters() const { return bench.library.CallsOf({"set_dll_parameter"}); }
};

TEST_F(ParameterTest, AreSetInOrder) {
  Flash();
  EXPECT_THAT(
      Parameters(),
      ElementsAre("set_dll_parameter(12, 0)", "set_dll_parameter(12, 3)", "set_dll_parameter(1, 15000)",
                  "set_dll_parameter(2, 60000)", "set_dll_parameter(8, 0)", "set_dll_parameter(5, 0)",
                  "set_dll_parameter(6, 1)", "set_dll_parameter(17, 0)", "set_dll_parameter(3, 1)",
                  "set_dll_parameter(9, 0)", "set_dll_parameter(10, 0)", "set_dll_parameter(18, 1)",
                  "set_dll_parameter(27, 0)", "set_dll_parameter(15, 0)", "set_dll_parameter(19, 0)",
                  "set_dll_parameter(41, 0)", "set_dll_parameter(12, 0)"));
}

TEST_F(ParameterTest, GiveTheBusTypeByItsAddressForPcieOnly) {
  FlashBench::Configure(L"[IPCTYPE]", L"PCIE");
  Flash();
  const std::vector<std::string> all = Parameters();
  const auto pcie = std::find(all.begin(), all.end(), "set_dll_parameter(39, address of PCIE)");
  ASSERT_NE(pcie, all.end());
  EXPECT_EQ(*(pcie - 1), "set_dll_parameter(19, 0)");
  EXPECT_EQ(*(pcie + 1), "set_dll_parameter(41, 0)");
  EXPECT_THAT(Said(), Contains("\t ++ use IsPCIEdevice: 1"));
}

TEST_F(ParameterTest, TakeNoOtherSpellingForPcie) {
  FlashBench::Configure(L"[IPCTYPE]", L"pcie");
  Flash();
  EXPECT_THAT(Parameters(), Not(Contains("set_dll_parameter(39, address of PCIE)")));
}

TEST_F(ParameterTest, TakeTheConfiguredEraseModeUpToThree) {
  FlashBench::Configure(L"[ERASEMODE]", L"3");
  Flash();
  EXPECT_THAT(Parameters(), Contains("set_dll_parameter(8, 3)"));
}

TEST_F(ParameterTest, TakeAnEraseModeOfFourForZero) {
  FlashBench::Configure(L"[ERASEMODE]", L"4");
  Flash();
  EXPECT_THAT(Parameters(), Contains("set_dll_parameter(8, 0)"));
}

TEST_F(ParameterTest, TakeANegativeEraseModeForZero) {
  FlashBench::Configure(L"[ERASEMODE]", L"-1");
  Flash();
  EXPECT_THAT(Parameters(), Contains("set_dll_parameter(8, 0)"));
}

TEST_F(ParameterTest, AreAllSetThoughOneIsRefusedWhichEndsTheSession) {
  bench.library.results["set_dll_parameter(17, 0)"] = 42;
  EXPECT_EQ(Flash(), FirmwareNotUpdated);
  EXPECT_EQ(Parameters().back(), "set_dll_parameter(41, 0)");
  EXPECT_EQ(FunctionOf(bench.Records({"firmwaredownloader.cpp", "downloadlist.cpp"}),
                       "E:Setting parameter, 42 failed"),
            "CFirmwareDownloader::SetParameter");
  EXPECT_EQ(Said().back(), "\t InitializeParametersForDownload FAIL, CFirmwareDownloader::Download --");
  EXPECT_EQ(bench.library.CallCount("close_comm_port"), 0);
}

TEST_F(ParameterTest, EndTheSessionWhenTheBusTypeIsRefused) {
  FlashBench::Configure(L"[IPCTYPE]", L"PCIE");
  bench.library.results["set_dll_parameter(39, address of PCIE)"] = 2;
  EXPECT_EQ(Flash(), FirmwareNotUpdated);
  EXPECT_EQ(FunctionOf(bench.Records({"firmwaredownloader.cpp", "downloadlist.cpp"}),
                       "E:Setting parameter, 2 failed"),
            "CFirmwareDownloader::InitializeParametersForDownload");
}

// The current folder is not searched for logs in its stead, and the session goes on.
TEST_F(ParameterTest, WithoutMemoryForTheFolderOfTheLogTheLibraryWritesNone) {
  ScarceMemory memory;
  bench.library.during["set_dll_parameter(12, 0)"] = [&] {
    bench.library.during.clear();
    memory.Fail(1);
  };
  EXPECT_EQ(Flash(), FirmwareUpdated);
  EXPECT_TRUE(memory.HasFailed());
  EXPECT_EQ(FunctionOf(bench.Records({"firmwaredownloader.cpp"}),
                       "E:Failed to get LocalAppDataDir for Modem download logging"),
            "CFirmwareDownloader::InitializeParametersForDownload");
  EXPECT_THAT(Parameters(), Not(Contains("set_dll_parameter(12, 3)")));
}

TEST_F(ParameterTest, SettingUpTheLogLeavesFourEarlierLogs) {
  const std::wstring folder = static_cast<const wchar_t*>(ToolKit::GetInstallationDir());
  for (int day = 1; day <= 6; ++day) {
    const std::wstring name = L"ZEMO_DownloadDll_2024-01-0" + std::to_wstring(day) + L"_00-00-00.log";
    std::ofstream(std::filesystem::path(folder + name)) << "log";
  }
  Flash();
  const auto exists = [&](const wchar_t* name) { return std::filesystem::exists(folder + name); };
  EXPECT_FALSE(exists(L"ZEMO_DownloadDll_2024-01-02_00-00-00.log"));
  EXPECT_TRUE(exists(L"ZEMO_DownloadDll_2024-01-03_00-00-00.log"));
  EXPECT_TRUE(exists(L"ZEMO_DownloadDll_2024-01-06_00-00-00.log"));
}

// --- The list --------------------------------------------------------------------------------------------

class ListTest : public SessionTest {
 protected:
  /// The items' indexes in the order in which they are written.
  std::vector<std::string> OrderOf(std::vector<std::uint32_t> memoryClasses) {
    bench.library.images[modem] = std::move(memoryClasses);
    Flash();
    std::vector<std::string> order;
    for (const std::string& call : Written()) {
      const std::size_t begin = call.find('|') + 1;
      order.push_back(call.substr(begin, call.find('|', begin) - begin));
    }
    return order;
  }
};

TEST_F(ListTest, IsWrittenInAscendingOrder) {
  EXPECT_THAT(OrderOf({16, 4, 1, 12, 2}), ElementsAre("2", "4", "1", "3", "0"));
}

TEST_F(ListTest, KeepsBinaryAndEblInTheOrderInWhichTheyWereAdded) {
  EXPECT_THAT(OrderOf({4, 0, 3, 0, 3}), ElementsAre("1", "2", "3", "4", "0"));
}

// Few items are sorted stably by accident.
TEST_F(ListTest, KeepsFortyItemsOfOneOrderAsTheyWereAdded) {
  std::vector<std::uint32_t> memoryClasses{4};
  std::vector<std::string> expected;
  for (int i = 1; i <= 40; ++i) {
    memoryClasses.push_back(i % 2 == 0 ? 0 : 3);
    expected.push_back(std::to_string(i));
  }
  expected.push_back("0");
  EXPECT_EQ(OrderOf(memoryClasses), expected);
}

TEST_F(ListTest, KeepsCustAndStaticFfsInTheOrderInWhichTheyWereAdded) {
  EXPECT_THAT(OrderOf({11, 5, 11, 5, 1}), ElementsAre("4", "0", "1", "2", "3"));
}

TEST_F(ListTest, SortsCode20AsACertificate) {
  EXPECT_THAT(OrderOf({4, 20, 3}), ElementsAre("2", "1", "0"));
}

TEST_F(ListTest, TakesOnlyTheFirstItemOfTheNvmFile) {
  bench.library.images[nvm] = {5, 1, 2};
  EXPECT_EQ(FlashBoth(), FirmwareUpdated);
  EXPECT_THAT(Written(),
              ElementsAre("download_fls_file(7, |0|" + modem + ")", "download_cust_file(7, |0|" + nvm + ")"));
}

TEST_F(ListTest, PutsTheNvmFileBeforeAnItemOfTheSameOrder) {
  bench.library.images[modem] = {11};
  EXPECT_EQ(FlashBoth(), FirmwareUpdated);
  EXPECT_THAT(Written(), ElementsAre("download_cust_file(7, |0|" + nvm + ")",
                                     "download_dffs_file(7, |0|" + modem + ", 1)"));
}

TEST_F(ListTest, BootsTheFileOfItsFirstItemBeItTheNvmFile) {
  bench.library.images[modem] = {4};
  bench.library.images[nvm] = {1};
  FlashBoth();
  EXPECT_THAT(bench.library.calls, Contains("boot_target(7, " + nvm + ")"));
}

TEST_F(ListTest, TellsTheMemoryClassOfEachItem) {
  bench.library.images[modem] = {1, 4};
  Flash();
  EXPECT_THAT(Said(), AllOf(Contains("Modem, Memory Class(0): 1"), Contains("Downloadable items: 2"),
                            Contains("Memory Class(1): 4")));
}

TEST_F(ListTest, GoesOnWithoutTheNvmFilesTechnology) {
  bench.library.results["TOC_get_flash_technogy(" + nvm + ")"] = 1;
  EXPECT_EQ(FlashBoth(), FirmwareUpdated);
  EXPECT_EQ(FunctionOf(bench.Records({"firmwaredownloader.cpp", "downloadlist.cpp"}),
                       "Could not get the flash technology for " + nvm),
            "CFirmwareDownloader::GetFlashTechnologyOfCust");
}

/// A query of the table of contents that fails, and what is said about it.
struct FailingQuery {
  const char* name;
  const char* call;
  std::vector<const char*> said;
  std::vector<const char*> functions;
};

class FailingQueryTest : public ListTest, public testing::WithParamInterface<FailingQuery> {
 protected:
  std::string InsertModem(std::string text) const { return text.replace(text.find('*'), 1, modem); }
};

TEST_P(FailingQueryTest, EndsTheSessionWithACleanUp) {
  bench.library.images[modem] = {1, 4};
  bench.library.channel = 9;
  EXPECT_EQ(Flash(), FirmwareUpdated);
  CFirmwareDownloader::Unload();
  bench.library.calls.clear();
  bench.library.results[InsertModem(GetParam().call)] = 9;
  EXPECT_EQ(Flash(), FirmwareNotUpdated);
  for (std::size_t i = 0; i < GetParam().said.size(); ++i) {
    EXPECT_EQ(FunctionOf(bench.Records({"firmwaredownloader.cpp", "downloadlist.cpp"}),
                         InsertModem(GetParam().said[i])),
              GetParam().functions[i]);
  }
  EXPECT_THAT(Said(), Contains("E:\t MarkFirmwareFileForDownload FAIL, set FirmwareNotUpdated"));
  EXPECT_THAT(Said(), Contains("\t Download finished, result: 0"));
  EXPECT_TRUE(IsUntouched());
  // It has opened none, and closes that of the session before.
  EXPECT_THAT(bench.library.CallsOf({"close_comm_port"}), ElementsAre("close_comm_port(9)"));
  EXPECT_EQ(bench.library.calls.back(), "set_dll_parameter(12, 0)");
  EXPECT_TRUE(CleanedUp());
}

INSTANTIATE_TEST_SUITE_P(TableOfContents, FailingQueryTest,
                         testing::Values(FailingQuery{"Technology",
                                                      "TOC_get_flash_technogy(*)",
                                                      {"Could not get the flash technology for *"},
                                                      {"CFirmwareDownloader::GetFlashTechnology"}},
                                         FailingQuery{"FirstMemoryClass",
                                                      "TOC_get_memory_class(*, 0)",
                                                      {"Could not get the memory class for *(0)"},
                                                      {"CFirmwareDownloader::GetMemoryClass"}},
                                         FailingQuery{"NumberOfItems",
                                                      "TOC_get_nof_items(*)",
                                                      {"Could not get the number of downloadable items in *"},
                                                      {"CFirmwareDownloader::MarkFirmwareFileForDownload"}},
                                         FailingQuery{"FurtherMemoryClass",
                                                      "TOC_get_memory_class(*, 1)",
                                                      {"Could not get the memory class for *(1)",
                                                       "Could not obtain memory class for *(1)"},
                                                      {"CFirmwareDownloader::GetMemoryClass",
                                                       "CFirmwareDownloader::MarkFirmwareFileForDownload"}}),
                         [](const auto& row) { return row.param.name; });

// --- Writing ---------------------------------------------------------------------------------------------

struct Way {
  std::uint32_t code;
  const char* function;
  const char* furtherArgument;
  bool isTold;
};

class WayOfWritingTest : public SessionTest, public testing::WithParamInterface<Way> {};

TEST_P(WayOfWritingTest, DependsOnTheMemoryClass) {
  const Way& way = GetParam();
  bench.library.images[modem] = {way.code};
  EXPECT_EQ(Flash(), FirmwareUpdated);
  const bool isCust = way.function == std::string(kCustFile);
  EXPECT_THAT(Written(),
              ElementsAre(std::string(way.function) + "(7, |0|" + modem + way.furtherArgument + ")"));
  EXPECT_EQ(bench.library.CallCount(kOutOfSession), isCust ? 1 : 0);
  EXPECT_EQ(bench.TimesSaid("E:\t m_DownloadCUSTFileFunc(7, |0|" + modem + ")\n"), way.isTold ? 1 : 0);
  EXPECT_TRUE(bench.HasSaid("\t memType:(" + std::to_string(way.code) + ")"));
}

INSTANTIATE_TEST_SUITE_P(AllCodes, WayOfWritingTest,
                         testing::Values(Way{0, kCustFile, "", true}, Way{1, kFlsFile, "", false},
                                         Way{2, kFlsFile, "", false}, Way{3, kCustFile, "", true},
                                         Way{4, kFlsFile, "", false}, Way{5, kCustFile, "", false},
                                         Way{6, kCustFile, "", true}, Way{7, kCustFile, "", true},
                                         Way{8, kCustFile, "", true}, Way{9, kCustFile, "", true},
                                         Way{10, kCustFile, "", true}, Way{11, kDffsFile, ", 1", false},
                                         Way{12, kDffsFile, ", 2", false}, Way{13, kCustFile, "", false},
                                         Way{14, kDffsFile, ", 4", false}, Way{15, kDffsFile, ", 4", false},
                                         Way{16, kDffsFile, ", 4", false}, Way{17, kCustFile, "", true},
                                         Way{18, kCustFile, "", true}, Way{19, kCustFile, "", false}),
                         [](const auto& row) { return "Code" + std::to_string(row.param.code); });

TEST_F(SessionTest, WritesCode20AsACertificate) {
  bench.library.images[modem] = {20};
  EXPECT_EQ(Flash(), FirmwareUpdated);
  EXPECT_TRUE(bench.HasSaid("\t memType:(19)"));
}

TEST_F(SessionTest, TellsTheUnusualWayAsAnError) {
  bench.library.images[modem] = {6};
  Flash();
  EXPECT_EQ(FunctionOf(bench.Records({"firmwaredownloader.cpp", "downloadlist.cpp"}),
                       "E:\t m_DownloadCUSTFileFunc(7, |0|" + modem + ")\n"),
            "CFirmwareDownloader::DownloadFirmwareIntoDevice");
}

TEST_F(SessionTest, FailsWhenAnItemCannotBeWrittenAndWritesNoFurtherOne) {
  bench.library.images[modem] = {1, 2, 4};
  bench.library.results["download_fls_file(7, |1|" + modem + ")"] = 8;
  EXPECT_EQ(Flash(), FirmwareUpdateFailed);
  EXPECT_EQ(Written().size(), 2u);
  EXPECT_THAT(Said(), Contains("E:\t Could not download file(|1|" + modem + ")"));
  EXPECT_THAT(Said(),
              Contains("\t DownloadFirmwareIntoDevice FAIL, set m_return_result = FirmwareUpdateFailed;"));
  EXPECT_EQ(bench.library.CallCount("force_target_reset"), 0);
  EXPECT_EQ(bench.library.CallCount("close_comm_port(7)"), 1);
  EXPECT_TRUE(CleanedUp());
}

TEST_F(SessionTest, FailsWhenNoItemHasProgressSteps) {
  bench.library.bars["|0|" + modem] = 0;
  EXPECT_EQ(Flash(), FirmwareUpdateFailed);
  EXPECT_THAT(Written(), IsEmpty());
  EXPECT_THAT(Said(),
              Contains("\t DownloadFirmwareIntoDevice FAIL, set m_return_result = FirmwareUpdateFailed;"));
  EXPECT_TRUE(CleanedUp());
}

TEST_F(SessionTest, FailsWhenTheForcedResetAnswersOne) {
  bench.library.results["force_target_reset"] = 1;
  EXPECT_EQ(Flash(), FirmwareUpdateFailed);
  EXPECT_EQ(FunctionOf(bench.Records({"firmwaredownloader.cpp", "downloadlist.cpp"}),
                       "\t ForceTargetReset FAIL, set m_return_result = FirmwareUpdateFailed;"),
            "CFirmwareDownloader::Download");
  EXPECT_TRUE(CleanedUp());
}

TEST_F(SessionTest, SucceedsWhenTheForcedResetAnswersAnythingButOne) {
  bench.library.results["force_target_reset"] = 2;
  EXPECT_EQ(Flash(), FirmwareUpdated);
}

TEST_F(SessionTest, TellsThatTheChannelCouldNotBeClosed) {
  bench.library.results["close_comm_port"] = 3;
  bench.library.reason = "still busy";
  EXPECT_EQ(Flash(), FirmwareUpdated);
  EXPECT_THAT(Said(), Contains("E:\t ERROR: Close CommPort failed due to still busy\n"));
  EXPECT_EQ(bench.library.calls.back(), "set_dll_parameter(12, 0)");
}

TEST_F(SessionTest, CountsNoProgressOfAnItemBehindTheCleanUp) {
  bench.library.during["close_comm_port"] = [this] {
    bench.library.ReportSending();
    bench.library.ReportPercent("50");
  };
  EXPECT_EQ(Flash(), FirmwareUpdated);
  EXPECT_THAT(bench.Said({"attempt.cpp"}), ElementsAre("\t return m_CurrentProgress:0"));
}

TEST_F(SessionTest, TellsThatParameter12WasRefusedInTheEnd) {
  bench.library.during["close_comm_port"] = [this] { bench.library.results["set_dll_parameter"] = 6; };
  EXPECT_EQ(Flash(), FirmwareUpdated);
  EXPECT_THAT(Said(), Contains("E:Setting parameter, 6 failed"));
}

// --- The early ends --------------------------------------------------------------------------------------

TEST_F(SessionTest, EndsWithTheBudgetSpentWithoutBootingAndWithoutCleaningUp) {
  ToolKit::g_retry_times = 4;
  EXPECT_EQ(Flash(), FirmwareUpdateFailed);
  EXPECT_TRUE(IsUntouched());
  EXPECT_EQ(Said().back(), "\t MarkFirmwareFileForDownload OK");
  EXPECT_EQ(bench.library.CallCount("close_comm_port"), 0);
}

TEST_F(SessionTest, GoesOnWithTheBudgetJustReached) {
  ToolKit::g_retry_times = 3;
  EXPECT_EQ(Flash(), FirmwareUpdated);
}

TEST_F(SessionTest, HasNoBudgetToSpendWithMinusOneRetries) {
  ToolKit::mRetry_times = static_cast<unsigned long>(-1);
  ToolKit::g_retry_times = 1000;
  EXPECT_EQ(Flash(), FirmwareUpdated);
}

TEST_F(SessionTest, EndsWhenTheModemCannotBeBootedWithoutCleaningUp) {
  bench.modem.Become(Mode::Absent);
  ToolKit::g_bIsFiveBranch = false;
  EXPECT_EQ(Flash(), FirmwareUpdateFailed);
  EXPECT_EQ(Said().back(), "\t GO BootDeviceInFirmwareMode, g_retry_times: 0\n");
  EXPECT_EQ(bench.library.CallCount("close_comm_port"), 0);
}

TEST_F(SessionTest, EndsWhenTheFlashPortDoesNotComeWithoutCleaningUp) {
  bench.modem.Become(Mode::Normal);
  bench.modem.onReboot = [this] { bench.modem.Become(Mode::Absent); };
  ToolKit::g_bIsFiveBranch = false;
  EXPECT_EQ(Flash(), FirmwareUpdateFailed);
  EXPECT_TRUE(IsUntouched());
  EXPECT_EQ(bench.library.CallCount("close_comm_port"), 0);
}

TEST_F(SessionTest, EndsWhenTheTargetDoesNotBootWithoutCleaningUp) {
  ToolKit::g_bIsFiveBranch = false;
  bench.library.results["boot_target"] = 1;
  EXPECT_EQ(Flash(), FirmwareUpdateFailed);
  // The boot itself has closed its channel.
  EXPECT_EQ(bench.library.CallCount("close_comm_port"), 1);
  EXPECT_FALSE(CleanedUp());
}

TEST_F(SessionTest, EndsWhenTheBudgetIsSpentDuringTheBootThoughItSucceeded) {
  bench.library.during["boot_target"] = [] { ToolKit::g_retry_times = 9; };
  EXPECT_EQ(Flash(), FirmwareUpdateFailed);
  EXPECT_THAT(Written(), IsEmpty());
  EXPECT_THAT(Said(), Not(Contains("\t BootDeviceInFirmwareMode OK")));
  EXPECT_EQ(bench.library.CallCount("close_comm_port"), 0);
}

// --- A library that lacks functions ----------------------------------------------------------------------

struct Lack {
  const char* missing;
  UpdateFirmwareResult result;
};

class LackTest : public SessionTest, public testing::WithParamInterface<Lack> {};

TEST_P(LackTest, CountsAsACallThatFails) {
  bench.library.images[modem] = {1, 11, 5};
  bench.library.missingExports = {GetParam().missing};
  EXPECT_EQ(Flash(), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(AllExports, LackTest,
                         testing::Values(Lack{"_ZEMO_DL_boot_target", FirmwareUpdateFailed},
                                         Lack{"_ZEMO_DL_close_comm_port", FirmwareUpdated},
                                         Lack{"_ZEMO_DL_download_cust_file", FirmwareUpdateFailed},
                                         Lack{"_ZEMO_DL_download_dffs_file", FirmwareUpdateFailed},
                                         Lack{"_ZEMO_DL_download_fls_file", FirmwareUpdateFailed},
                                         Lack{"_ZEMO_DL_force_target_reset", FirmwareUpdateFailed},
                                         Lack{"_ZEMO_DL_get_sys_version", FirmwareUpdated},
                                         Lack{"_ZEMO_get_next_free_channel", FirmwareUpdated},
                                         Lack{"_ZEMO_DL_dll_get_nof_progressbars", FirmwareUpdateFailed},
                                         Lack{"_ZEMO_DL_init_callback", FirmwareUpdated},
                                         Lack{"_ZEMO_DL_open_comm_port", FirmwareUpdateFailed},
                                         Lack{"_ZEMO_DL_set_dll_parameter", FirmwareNotUpdated},
                                         Lack{"_ZEMO_DL_TOC_get_flash_technogy", FirmwareNotUpdated},
                                         Lack{"_ZEMO_DL_TOC_get_memory_class", FirmwareNotUpdated},
                                         Lack{"_ZEMO_DL_TOC_get_nof_items", FirmwareNotUpdated},
                                         Lack{"_ZEMO_DL_out_of_session_comm", FirmwareUpdated}),
                         [](const auto& row) { return std::string(row.param.missing).substr(1); });

TEST_F(SessionTest, WithoutTheLibraryIsRefusedAtTheParameters) {
  bench.library.loadError = ERROR_MOD_NOT_FOUND;
  EXPECT_EQ(Flash(), FirmwareNotUpdated);
  EXPECT_EQ(bench.TimesSaid("E:Setting parameter, -1 failed"), 16);
  EXPECT_EQ(Said().back(), "\t InitializeParametersForDownload FAIL, CFirmwareDownloader::Download --");
}

// --- An attempt that was given up ------------------------------------------------------------------------

constexpr int kGate = 1;

/// A worker flashes; the library hangs in one of its functions until Return.
class AbandonedTest : public SessionTest {
 protected:
  void HangIn(const std::string& function) {
    bench.library.during[function] = [this] {
      bench.clock.WaitAtGate(kGate);
      bench.library.ReportSending();
      bench.library.ReportPercent("50");
    };
  }
  /// Starts the worker and gives it up after `milliseconds`.
  void FlashAndGiveUp(DWORD milliseconds = 100000) {
    const auto engine = CFirmwareDownloader::GetInstance();
    bench.clock.Start([this, engine] { result = engine->Download(CTString(modem), CTString("")); });
    bench.clock.Pause(milliseconds);
    CFirmwareDownloader::Unload();
    bench.library.during.clear();
    callsBefore = bench.library.calls;
    heardBefore = bench.modem.heard;
    ToolKit::g_retry_times = 0;
  }
  void Return() {
    bench.clock.Open(kGate);
    bench.clock.RunUntilIdle();
  }
  void ExpectNothingHappened() const {
    EXPECT_EQ(bench.library.calls, callsBefore);
    EXPECT_EQ(bench.modem.heard, heardBefore);
    EXPECT_EQ(ToolKit::g_retry_times, 0u);
    EXPECT_FALSE(bench.key.Number(L"Flash_Progress").has_value());
    EXPECT_EQ(bench.clock.LivingThreads(), 0u);
  }
  void ExpectOnlyItsChannelWasClosed() {
    callsBefore.emplace_back("close_comm_port(7)");
    ExpectNothingHappened();
    EXPECT_EQ(bench.TimesSaid("E:Setting parameter, -1 failed"), 0);
  }

  int result = -1;
  std::vector<std::string> callsBefore;
  std::vector<std::string> heardBefore;
};

TEST_F(AbandonedTest, KeepsTheLibraryMappedUntilItsWorkerIsBack) {
  HangIn("download_fls_file");
  FlashAndGiveUp();
  EXPECT_TRUE(bench.library.IsMapped());
  Return();
  EXPECT_FALSE(bench.library.IsMapped());
}

TEST_F(AbandonedTest, FromWritingClosesItsChannelAndDoesNothingMore) {
  bench.library.images[modem] = {1, 2};
  HangIn("download_fls_file");
  FlashAndGiveUp();
  Return();
  EXPECT_EQ(result, FirmwareUpdateFailed);
  ExpectOnlyItsChannelWasClosed();
  EXPECT_EQ(bench.TimesSaid("E:\t Could not download file(|1|" + modem + ")"), 0);
  EXPECT_EQ(bench.TimesSaid("W:\t The attempt was given up meanwhile"), 1);
}

TEST_F(AbandonedTest, FromTheForcedResetClosesItsChannelAndDoesNothingMore) {
  HangIn("force_target_reset");
  FlashAndGiveUp();
  Return();
  ExpectOnlyItsChannelWasClosed();
}

TEST_F(AbandonedTest, ClosesItsChannelInALibraryThatStaysMappedForIt) {
  bool isMapped = false;
  HangIn("download_fls_file");
  FlashAndGiveUp();
  bench.library.during["close_comm_port"] = [&] { isMapped = bench.library.IsMapped(); };
  Return();
  EXPECT_TRUE(isMapped);
  EXPECT_FALSE(bench.library.IsMapped());
}

TEST_F(AbandonedTest, TellsThatItsChannelCouldNotBeClosed) {
  HangIn("download_fls_file");
  FlashAndGiveUp();
  bench.library.results["close_comm_port"] = 3;
  bench.library.reason = "still busy";
  Return();
  EXPECT_EQ(bench.TimesSaid("E:\t ERROR: Close CommPort failed due to still busy\n"), 1);
}

// Calls that were not made are no failures.
TEST_F(AbandonedTest, FromTheLastItemTellsOfNoResetThatFailed) {
  HangIn("download_fls_file");
  FlashAndGiveUp();
  Return();
  EXPECT_EQ(bench.TimesSaid("\t ForceTargetReset FAIL, set m_return_result = FirmwareUpdateFailed;"), 0);
}

class AbandonedListTest : public AbandonedTest, public testing::WithParamInterface<const char*> {};

TEST_P(AbandonedListTest, DoesNothingMoreAndTellsOfNoFailure) {
  bench.library.images[modem] = {1, 2};
  HangIn(GetParam());
  FlashAndGiveUp();
  Return();
  ExpectNothingHappened();
  EXPECT_THAT(Said(), Not(Contains(testing::HasSubstr("Could not"))));
}

TEST_P(AbandonedListTest, TellsOfNoRefusalThatCameTooLate) {
  bench.library.results[GetParam()] = 1;
  HangIn(GetParam());
  FlashAndGiveUp();
  Return();
  ExpectNothingHappened();
  EXPECT_THAT(Said(), Not(Contains(testing::HasSubstr("Could not"))));
}

INSTANTIATE_TEST_SUITE_P(Queries, AbandonedListTest,
                         testing::Values("TOC_get_flash_technogy", "TOC_get_memory_class",
                                         "TOC_get_nof_items"));

TEST_F(AbandonedTest, FromTheParametersDoesNothingMore) {
  HangIn("set_dll_parameter(12, 0)");
  FlashBench::Configure(L"[IPCTYPE]", L"PCIE");
  FlashAndGiveUp();
  Return();
  ExpectNothingHappened();
  EXPECT_EQ(bench.TimesSaid("E:Setting parameter, -1 failed"), 0);
}

TEST_F(AbandonedTest, FromBootingClosesItsChannelAndNeitherResetsNorSpendsARetry) {
  HangIn("boot_target");
  FlashAndGiveUp();
  EXPECT_EQ(result, FirmwareUpdateFailed);
  Return();
  ExpectOnlyItsChannelWasClosed();
  EXPECT_EQ(bench.TimesSaid("W:\t The attempt was given up meanwhile, "
                            "CFirmwareDownloader::InjectBootTargetThread --"),
            1);
}

TEST_F(AbandonedTest, FromABootThatFailedClosesItsChannelWithoutAPause) {
  bench.library.results["boot_target"] = 1;
  HangIn("boot_target");
  FlashAndGiveUp();
  const ULONGLONG begin = bench.clock.Now();
  Return();
  EXPECT_EQ(bench.clock.Now(), begin);
  ExpectOnlyItsChannelWasClosed();
  EXPECT_EQ(bench.TimesSaid("E:\t ERROR: Boot Target failed due to a reason, call BB_RST\n"), 0);
  EXPECT_FALSE(bench.HasSaid("\t Close Comm Port\n"));
}

TEST_F(AbandonedTest, FromAskingForAChannelTellsOfNoPort) {
  HangIn("get_next_free_channel");
  FlashAndGiveUp();
  Return();
  EXPECT_THAT(bench.Said({"firmwareboot.cpp"}),
              AllOf(Contains(testing::HasSubstr("GetNextFreeChannel, mCommChannel:")),
                    Contains(testing::HasSubstr("The attempt was given up meanwhile")),
                    Not(Contains(testing::HasSubstr("OpenCommPort")))));
}

TEST_F(AbandonedTest, FromOpeningThePortClosesItAndDoesNothingMore) {
  HangIn("open_comm_port");
  FlashAndGiveUp();
  Return();
  ExpectOnlyItsChannelWasClosed();
}

TEST_F(AbandonedTest, FromOpeningThePortInVainNeitherClosesNorResetsNorSpendsARetry) {
  bench.library.results["open_comm_port"] = 1;
  HangIn("open_comm_port");
  FlashAndGiveUp();
  Return();
  ExpectNothingHappened();
  EXPECT_EQ(bench.TimesSaid("E:\t ERROR: Open Comm Port failed due to a reason, call BB_RST\n"), 0);
}

TEST_F(AbandonedTest, FromBootingBehindANewerAttemptLeavesItsChannelOpen) {
  HangIn("boot_target");
  FlashAndGiveUp();
  bench.library.channel = 8;
  EXPECT_EQ(Flash(), FirmwareUpdated);
  Return();
  EXPECT_EQ(bench.library.CallCount("close_comm_port(7)"), 0);
  EXPECT_EQ(
      FunctionOf(bench.Records({"attempt.cpp"}), "W:\t Channel 7 stays open, a newer attempt has opened one"),
      "CFirmwareDownloader::InjectBootTargetThread");
}

TEST_F(AbandonedTest, FromWaitingForTheFlashPortDoesNothingMore) {
  bench.modem.Become(Mode::Normal);
  bench.modem.onReboot = [this] { bench.modem.Become(Mode::Absent); };
  FlashAndGiveUp(5000);
  Return();
  EXPECT_EQ(result, FirmwareUpdateFailed);
  ExpectNothingHappened();
}

TEST_F(AbandonedTest, FindsTheFlashPortButDoesNotBoot) {
  bench.modem.Become(Mode::Normal);
  bench.modem.onReboot = [this] { bench.modem.LeaveAndBecome(Mode::Flash, 8000); };
  FlashAndGiveUp(5000);
  Return();
  ExpectNothingHappened();
}

TEST_F(AbandonedTest, FromResettingTriesNoFurtherReset) {
  bench.modem.Become(Mode::Absent);
  bench.modem.takesResets = {false};
  ToolKit::mRetry_times = static_cast<unsigned long>(-1);
  FlashAndGiveUp(12000);
  EXPECT_EQ(bench.modem.Count("reset"), 3);
  Return();
  EXPECT_EQ(bench.modem.Count("reset"), 3);
  EXPECT_EQ(ToolKit::g_retry_times, 0u);
  EXPECT_EQ(bench.clock.LivingThreads(), 0u);
}

// The driver may take any time to let itself be opened.
TEST_F(AbandonedTest, FromOpeningTheDriverResetsNothing) {
  bench.modem.Become(Mode::Absent);
  bench.modem.onDriverOpen = [this] { bench.clock.WaitAtGate(kGate); };
  FlashAndGiveUp();
  Return();
  ExpectNothingHappened();
  EXPECT_FALSE(bench.HasSaid("E:\t Call BB_RST FAIL. Retry after 5s."));
}

TEST_F(AbandonedTest, FromOpeningTheAtPortSendsNoRebootCommand) {
  bench.modem.Become(Mode::Normal);
  bench.modem.onAtPortOpen = [this] { bench.clock.WaitAtGate(kGate); };
  FlashAndGiveUp();
  Return();
  ExpectNothingHappened();
  EXPECT_FALSE(bench.HasSaid("E:\t RebootModem FAIL."));
}

TEST_F(AbandonedTest, DoesNotTellALimitThatItDidNotReach) {
  bench.modem.Become(Mode::Absent);
  bench.modem.takesResets = {false};
  FlashAndGiveUp(2000);
  Return();
  EXPECT_THAT(bench.Said({"firmwareboot.cpp"}), Not(Contains("\t ControlBBrst --")));
}

TEST_F(AbandonedTest, LateStatusMessageDoesNotSwitchTheNewAttemptsProgressOff) {
  bench.library.during["download_fls_file"] = [this] {
    bench.clock.WaitAtGate(kGate);
    bench.library.Report(4, "something else");
  };
  FlashAndGiveUp();
  CFirmwareDownloader::GetInstance();
  bench.library.ReportSending();
  Return();
  bench.library.ReportPercent("10");
  EXPECT_TRUE(bench.key.Number(L"Flash_Progress").has_value());
}

TEST_F(AbandonedTest, FromBootingLeavesTheNewAttemptsProgressAlone) {
  HangIn("boot_target");
  FlashAndGiveUp();
  CFirmwareDownloader::GetInstance();
  callsBefore = bench.library.calls;
  Return();
  ExpectOnlyItsChannelWasClosed();
}

TEST_F(AbandonedTest, DoesNotHandItsChannelToANewerAttempt) {
  bench.library.channel = 9;
  EXPECT_EQ(Flash(), FirmwareUpdated);
  CFirmwareDownloader::Unload();
  HangIn("get_next_free_channel");
  FlashAndGiveUp();
  bench.library.channel = 5;
  Return();
  bench.library.calls.clear();
  bench.library.results["TOC_get_nof_items"] = 1;
  EXPECT_EQ(Flash(), FirmwareNotUpdated);
  EXPECT_THAT(bench.library.CallsOf({"close_comm_port"}), ElementsAre("close_comm_port(9)"));
}

TEST_F(AbandonedTest, BackInTheMiddleOfANewerWriteNeitherClosesNorResets) {
  HangIn("download_fls_file");
  FlashAndGiveUp();
  bench.library.channel = 8;
  std::vector<std::string> duringTheReturn;
  bench.library.during["download_fls_file"] = [&] {
    const std::size_t before = bench.library.calls.size();
    bench.clock.Open(kGate);
    bench.clock.Pause(10000);
    duringTheReturn.assign(bench.library.calls.begin() + static_cast<std::ptrdiff_t>(before),
                           bench.library.calls.end());
  };
  EXPECT_EQ(Flash(), FirmwareUpdated);
  EXPECT_EQ(bench.clock.LivingThreads(), 0u);
  EXPECT_THAT(duringTheReturn, IsEmpty());
  EXPECT_THAT(bench.library.CallsOf({"close_comm_port", "force_target_reset"}),
              ElementsAre("force_target_reset(8, 1, 16, 17, 0)", "close_comm_port(8)"));
  EXPECT_THAT(bench.modem.heard, IsEmpty());
  const std::string told = "W:\t Channel 7 stays open, a newer attempt has opened one";
  EXPECT_EQ(bench.TimesSaid(told), 1);
  EXPECT_EQ(FunctionOf(bench.Records({"attempt.cpp"}), told), "CFirmwareDownloader::CleanupAfterDownload");
  EXPECT_EQ(bench.TimesSaid("E:Setting parameter, -1 failed"), 0);
}

TEST_F(AbandonedTest, LeavesItsChannelOpenInALibraryThatCannotCloseIt) {
  bench.library.missingExports = {"_ZEMO_DL_close_comm_port"};
  HangIn("download_fls_file");
  FlashAndGiveUp();
  Return();
  EXPECT_EQ(result, FirmwareUpdateFailed);
  ExpectNothingHappened();
}

// It writes to the channel that the attempt before left.
TEST_F(AbandonedTest, BackWhileANewerAttemptWritesWithoutABootThreadClosesNothing) {
  HangIn("download_fls_file");
  FlashAndGiveUp();
  bench.clock.RefuseThread(1, ERROR_NO_SYSTEM_RESOURCES);
  int closesMeanwhile = -1;
  bench.library.during["download_fls_file"] = [&] {
    bench.clock.Open(kGate);
    bench.clock.Pause(10000);
    closesMeanwhile = bench.library.CallCount("close_comm_port");
  };
  EXPECT_EQ(Flash(), FirmwareUpdated);
  EXPECT_EQ(closesMeanwhile, 0);
  EXPECT_EQ(bench.library.CallCount("close_comm_port(7)"), 1);
}

TEST_F(AbandonedTest, BackBehindANewerAttemptLeavesItsChannelOpen) {
  HangIn("download_fls_file");
  FlashAndGiveUp();
  bench.library.channel = 8;
  EXPECT_EQ(Flash(), FirmwareUpdated);
  Return();
  EXPECT_EQ(bench.library.CallCount("close_comm_port(7)"), 0);
  EXPECT_THAT(Said(), Not(Contains(testing::HasSubstr("Close CommPort failed"))));
}

// Its own early end is none that cleans up.
TEST_F(AbandonedTest, BackFromTheTableOfContentsTellsOfNoChannel) {
  HangIn("TOC_get_nof_items");
  FlashAndGiveUp();
  CFirmwareDownloader::GetInstance();
  Return();
  EXPECT_THAT(Said(), Not(Contains(testing::HasSubstr("stays open"))));
}

// This end cleans up, but there is no channel that it left open.
TEST_F(AbandonedTest, BackFromTheTableOfContentsWithItemsLeftToAskForTellsOfNoChannel) {
  bench.library.images[modem] = {1, 4};
  HangIn("TOC_get_nof_items");
  FlashAndGiveUp();
  CFirmwareDownloader::GetInstance();
  callsBefore = bench.library.calls;
  Return();
  EXPECT_EQ(result, FirmwareNotUpdated);
  ExpectNothingHappened();
  EXPECT_TRUE(CleanedUp());
  EXPECT_THAT(Said(), Not(Contains(testing::HasSubstr("stays open"))));
}

constexpr int kCloseGate = 2;
constexpr int kThirdGate = 3;
constexpr int kFourthGate = 4;

/// The attempt that was given up is back, and inside its close.
class LateCloseTest : public AbandonedTest {
 protected:
  LateCloseTest() {
    HangIn("download_fls_file");
    FlashAndGiveUp();
    bench.library.during["close_comm_port"] = [this] {
      bench.library.during.clear();
      bench.clock.WaitAtGate(kCloseGate);
    };
    bench.clock.Open(kGate);
    bench.clock.Pause(100);
    bench.library.calls.clear();
    bench.library.channel = 8;
  }
};

TEST_F(LateCloseTest, KeepsANewerAttemptFromOpeningUntilItIsOver) {
  std::vector<std::string> beforeItWasOver;
  bench.clock.Start([&] {
    bench.clock.Pause(5000);
    beforeItWasOver = bench.library.CallsOf({"get_next_free_channel", "open_comm_port"});
    bench.clock.Open(kCloseGate);
  });
  const ULONGLONG begin = bench.clock.Now();
  EXPECT_EQ(Flash(), FirmwareUpdated);
  EXPECT_THAT(beforeItWasOver, IsEmpty());
  EXPECT_GE(bench.clock.Now() - begin, 5000u);
  EXPECT_LE(bench.clock.Now() - begin, 5200u);
  EXPECT_EQ(bench.TimesSaid("W:\t An earlier attempt is closing its channel, wait"), 1);
  EXPECT_EQ(
      FunctionOf(bench.Records({"firmwareboot.cpp"}), "W:\t An earlier attempt is closing its channel, wait"),
      "CFirmwareDownloader::InjectBootTarget");
}

// The boot has its ten seconds all the same.
TEST_F(LateCloseTest, IsNotWaitedForInTheBootsTime) {
  bench.clock.Start([&] {
    bench.clock.Pause(4500);
    bench.clock.Open(kCloseGate);
  });
  bench.library.during["boot_target"] = [this] { bench.clock.Pause(9000); };
  EXPECT_EQ(Flash(), FirmwareUpdated);
}

TEST_F(LateCloseTest, ThatDoesNotEndDelaysOneAttemptByFiveSecondsOnly) {
  const ULONGLONG begin = bench.clock.Now();
  EXPECT_EQ(Flash(), FirmwareUpdated);
  const ULONGLONG end = bench.clock.Now();
  const std::string told = "W:\t An earlier attempt is still closing its channel, go on";
  EXPECT_EQ(bench.TimesSaid(told), 1);
  EXPECT_EQ(FunctionOf(bench.Records({"firmwareboot.cpp"}), told), "CFirmwareDownloader::InjectBootTarget");
  CFirmwareDownloader::Unload();
  const ULONGLONG beginOfNext = bench.clock.Now();
  EXPECT_EQ(Flash(), FirmwareUpdated);
  const ULONGLONG durationOfNext = bench.clock.Now() - beginOfNext;
  EXPECT_EQ(end - begin, durationOfNext + 5000);
  EXPECT_EQ(bench.TimesSaid("W:\t An earlier attempt is closing its channel, wait"), 1);
  EXPECT_EQ(bench.TimesSaid(told), 1);
  // The one that closes.
  EXPECT_EQ(bench.clock.LivingThreads(), 1u);
}

// The first one waits for a part of it, and is given up meanwhile.
TEST_F(LateCloseTest, ThatDoesNotEndIsWaitedForByAllAttemptsTogetherForFiveSeconds) {
  bench.clock.Start([this] {
    bench.clock.Pause(3000);
    CFirmwareDownloader::Unload();
  });
  EXPECT_EQ(Flash(), FirmwareUpdateFailed);
  const ULONGLONG begin = bench.clock.Now();
  EXPECT_EQ(Flash(), FirmwareUpdated);
  CFirmwareDownloader::Unload();
  const ULONGLONG beginOfNext = bench.clock.Now();
  EXPECT_EQ(Flash(), FirmwareUpdated);
  EXPECT_LE(beginOfNext - begin, bench.clock.Now() - beginOfNext + 2100);
}

TEST_F(LateCloseTest, ThatEndsAtLastTakesNothingFromTheAttemptThatWentOn) {
  bench.library.during["download_fls_file"] = [this] { bench.clock.WaitAtGate(kThirdGate); };
  FlashAndGiveUp(12000);
  bench.clock.Open(kCloseGate);
  bench.clock.Pause(1000);
  bench.clock.Open(kThirdGate);
  bench.clock.RunUntilIdle();
  EXPECT_THAT(bench.library.CallsOf({"close_comm_port"}), ElementsAre("close_comm_port(8)"));
  EXPECT_EQ(bench.clock.LivingThreads(), 0u);
}

TEST_F(LateCloseTest, ThatEndsAtLastDoesNotEndTheCloseOfTheAttemptThatWentOn) {
  bench.library.during["download_fls_file"] = [this] { bench.clock.WaitAtGate(kThirdGate); };
  FlashAndGiveUp(12000);
  bench.library.during["close_comm_port"] = [this] {
    bench.library.during.clear();
    bench.clock.WaitAtGate(kFourthGate);
  };
  bench.clock.Open(kThirdGate);
  bench.clock.Pause(100);
  bench.clock.Open(kCloseGate);
  bench.clock.Pause(100);
  const ULONGLONG begin = bench.clock.Now();
  EXPECT_EQ(Flash(), FirmwareUpdated);
  EXPECT_GE(bench.clock.Now() - begin, 5000u);
  EXPECT_EQ(bench.TimesSaid("W:\t An earlier attempt is still closing its channel, go on"), 2);
  bench.clock.Open(kFourthGate);
}

TEST_F(LateCloseTest, KeepsANewerAttemptWithoutABootThreadFromWriting) {
  bench.clock.RefuseThread(2, ERROR_NO_SYSTEM_RESOURCES);
  std::vector<std::string> beforeItWasOver;
  bench.clock.Start([&] {
    bench.clock.Pause(5000);
    beforeItWasOver = bench.library.CallsOf({"download_fls_file"});
    bench.clock.Open(kCloseGate);
  });
  EXPECT_EQ(Flash(), FirmwareUpdated);
  EXPECT_THAT(beforeItWasOver, IsEmpty());
  EXPECT_THAT(bench.library.CallsOf({"open_comm_port"}), IsEmpty());
}

/// The attempt is given up inside a close that it began before.
class CloseUnderWayTest : public AbandonedTest {
 protected:
  void HangInTheClose() {
    bench.library.during["close_comm_port"] = [this] { bench.clock.WaitAtGate(kGate); };
    FlashAndGiveUp();
    ASSERT_EQ(bench.library.CallCount("close_comm_port"), 1);
    bench.library.results.clear();
    bench.library.calls.clear();
    bench.library.channel = 8;
  }
  void ExpectThatANewerAttemptWaits() {
    std::vector<std::string> beforeItWasOver;
    bench.clock.Start([&] {
      bench.clock.Pause(4000);
      beforeItWasOver = bench.library.CallsOf({"get_next_free_channel", "open_comm_port"});
      bench.clock.Open(kGate);
    });
    EXPECT_EQ(Flash(), FirmwareUpdated);
    // One that did not wait would be through before the look.
    bench.clock.RunUntilIdle();
    EXPECT_THAT(beforeItWasOver, IsEmpty());
    EXPECT_EQ(bench.TimesSaid("W:\t An earlier attempt is closing its channel, wait"), 1);
  }
};

TEST_F(CloseUnderWayTest, OfASuccessIsOverBeforeANewerAttemptOpens) {
  HangInTheClose();
  ExpectThatANewerAttemptWaits();
}

TEST_F(CloseUnderWayTest, OfAFailedBootIsOverBeforeANewerAttemptOpens) {
  bench.library.results["boot_target"] = 1;
  HangInTheClose();
  ExpectThatANewerAttemptWaits();
}

TEST_F(CloseUnderWayTest, OfASessionThatFailedBeforeItsBootIsOverBeforeANewerAttemptOpens) {
  bench.library.results["TOC_get_nof_items"] = 1;
  HangInTheClose();
  ExpectThatANewerAttemptWaits();
}

TEST_F(AbandonedTest, DoesNotDisturbTheNewAttempt) {
  HangIn("download_fls_file");
  FlashAndGiveUp();
  bench.library.during["download_fls_file"] = [this] {
    bench.clock.Open(kGate);
    bench.clock.Pause(1000);
    bench.library.ReportSending();
    bench.library.ReportPercent("30");
  };
  EXPECT_EQ(Flash(), FirmwareUpdated);
  EXPECT_EQ(bench.Registry(L"Flash_Progress"), 30);
  EXPECT_EQ(bench.library.CallCount("force_target_reset"), 1);
}

}  // namespace
