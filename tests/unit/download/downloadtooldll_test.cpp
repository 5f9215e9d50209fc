#include "download/downloadtooldll.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <new>
#include <string>

#include "support/flash_bench.h"
#include "support/lock_probe.h"
#include "support/scarce_memory.h"

using corvel::FlashSlot;
using corvel::Utf8FromWide;

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class DownloadToolDllTest : public testing::Test {
 protected:
  ~DownloadToolDllTest() override { CDownloadToolDll::Unload(); }

  std::vector<std::string> Said() const { return bench.Said({"downloadtooldll.cpp"}); }
  FARPROC Slot(FlashSlot slot) const { return CDownloadToolDll::Library()->functions[slot]; }

  FlashBench bench;
};

TEST_F(DownloadToolDllTest, LoadsTheLibraryFromTheInstallationFolderWithoutAnotherSeparator) {
  EXPECT_TRUE(CDownloadToolDll::Load());
  const std::wstring path =
      static_cast<const wchar_t*>(ToolKit::GetInstallationDir() + L"Firmwareflashdownload.dll");
  EXPECT_THAT(bench.library.loadedPaths, ElementsAre(path));
}

// Its bare name would have the system search its own folders and the current one.
TEST_F(DownloadToolDllTest, IsNeverLoadedByItsBareNameForLackOfMemory) {
  const std::wstring path =
      static_cast<const wchar_t*>(ToolKit::GetInstallationDir() + L"Firmwareflashdownload.dll");
  ToolKit::TurnLoggingOff();
  ScarceMemory memory;
  const int refused = memory.FailEachOf([] {
    try {
      CDownloadToolDll::Load();
    } catch (const std::bad_alloc&) {
    }
  });
  EXPECT_GE(refused, 3);
  EXPECT_THAT(bench.library.loadedPaths, testing::Each(path));
}

/// A host in a folder without the flashing library. Others have put one of its name into the current folder,
/// which is first in the search path as well.
class PlantedLibraryTest : public testing::Test {
 protected:
  PlantedLibraryTest() {
    const std::wstring any = OwnLibrary();
    std::filesystem::copy_file(any, m_Others.File(kName));
    m_FolderBefore = std::filesystem::current_path();
    std::filesystem::current_path(m_Others.Path());
    m_SearchPathBefore = Environment(L"PATH");
    ::SetEnvironmentVariableW(L"PATH", (m_Others.Path().wstring() + L";" + m_SearchPathBefore).c_str());
  }
  ~PlantedLibraryTest() override {
    CDownloadToolDll::Unload();
    ::SetEnvironmentVariableW(L"PATH", m_SearchPathBefore.c_str());
    std::filesystem::current_path(m_FolderBefore);
  }

  static constexpr wchar_t kName[] = L"Firmwareflashdownload.dll";
  /// The module of that name which is loaded now, if there is one.
  static HMODULE Loaded() { return ::GetModuleHandleW(kName); }

  HostFolder host;

 private:
  static std::wstring OwnLibrary() {
    std::wstring path(MAX_PATH, L'\0');
    path.resize(::GetModuleFileNameW(::GetModuleHandleW(L"toolkit_internals.dll"), path.data(), MAX_PATH));
    return path;
  }
  static std::wstring Environment(const wchar_t* name) {
    std::wstring value(::GetEnvironmentVariableW(name, nullptr, 0), L'\0');
    value.resize(::GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size())));
    return value;
  }

  TemporaryFolder m_Others;
  std::filesystem::path m_FolderBefore;
  std::wstring m_SearchPathBefore;
};

TEST_F(PlantedLibraryTest, IsFoundByItsBareName) {
  const HMODULE planted = ::LoadLibraryW(kName);
  EXPECT_NE(planted, nullptr) << "the others prove nothing";
  ::FreeLibrary(planted);
}

TEST_F(PlantedLibraryTest, IsNotLoadedForOneThatIsMissingBesideTheHost) {
  CConfigParser::GetInstance();
  CDownloadToolDll::Load();
  EXPECT_EQ(Loaded(), nullptr);
  const std::string path = Utf8FromWide(static_cast<const wchar_t*>(ToolKit::GetInstallationDir() + kName));
  EXPECT_THAT(host.Said(), Contains("E:LoadLibrary of " + path + " failed with: 126"));
}

TEST_F(PlantedLibraryTest, IsNotLoadedWhenTheHostsFolderCannotBeHad) {
  CConfigParser::GetInstance();
  HostFolder::Hide();
  EXPECT_TRUE(CDownloadToolDll::Load());
  EXPECT_EQ(Loaded(), nullptr);
  EXPECT_THAT(host.Said(), Contains("E:LoadLibrary of Firmwareflashdownload.dll failed with: 126"));
  EXPECT_EQ(CDownloadToolDll::Library()->functions[FlashSlot::BootTarget], nullptr);
}

TEST_F(DownloadToolDllTest, BindsAllSixteenExports) {
  CDownloadToolDll::Load();
  for (std::size_t slot = 0; slot < static_cast<std::size_t>(FlashSlot::Count); ++slot) {
    EXPECT_NE(Slot(static_cast<FlashSlot>(slot)), nullptr) << slot;
  }
}

TEST_F(DownloadToolDllTest, KeepsTheSlotsInTheTablesOrder) {
  EXPECT_EQ(static_cast<int>(FlashSlot::BootTarget), 0);
  EXPECT_EQ(static_cast<int>(FlashSlot::DownloadDffsFile), 3);
  EXPECT_EQ(static_cast<int>(FlashSlot::DownloadFlsFile), 4);
  EXPECT_EQ(static_cast<int>(FlashSlot::InitCallback), 9);
  EXPECT_EQ(static_cast<int>(FlashSlot::OutOfSessionComm), 15);
}

TEST_F(DownloadToolDllTest, ResolvesFlsBeforeDffs) {
  CDownloadToolDll::Load();
  EXPECT_THAT(bench.library.lookups,
              ElementsAre("_ZEMO_DL_boot_target", "_ZEMO_DL_close_comm_port", "_ZEMO_DL_download_cust_file",
                          "_ZEMO_DL_download_fls_file", "_ZEMO_DL_download_dffs_file",
                          "_ZEMO_DL_force_target_reset", "_ZEMO_DL_get_sys_version",
                          "_ZEMO_get_next_free_channel", "_ZEMO_DL_dll_get_nof_progressbars",
                          "_ZEMO_DL_init_callback", "_ZEMO_DL_open_comm_port", "_ZEMO_DL_set_dll_parameter",
                          "_ZEMO_DL_TOC_get_flash_technogy", "_ZEMO_DL_TOC_get_memory_class",
                          "_ZEMO_DL_TOC_get_nof_items", "_ZEMO_DL_out_of_session_comm"));
}

TEST_F(DownloadToolDllTest, FindsAnExportWithoutItsUnderscoreAndSaysNothing) {
  bench.library.exportsHaveNoUnderscore = true;
  EXPECT_TRUE(CDownloadToolDll::Load());
  EXPECT_NE(Slot(FlashSlot::BootTarget), nullptr);
  EXPECT_THAT(Said(),
              ElementsAre("++ CDownloadToolDll::Load", "CDownloadToolDll::Load ,SetFunctionPointers()"));
}

TEST_F(DownloadToolDllTest, CountsAMissingLibraryAsBoundWithNullSlots) {
  bench.library.loadError = ERROR_MOD_NOT_FOUND;
  EXPECT_TRUE(CDownloadToolDll::Load());
  EXPECT_EQ(Slot(FlashSlot::SetDllParameter), nullptr);
  EXPECT_THAT(Said(), ElementsAre("++ CDownloadToolDll::Load",
                                  "E:LoadLibrary of " + Utf8FromWide(bench.library.loadedPaths.at(0)) +
                                      " failed with: 126",
                                  "-- CDownloadToolDll::Load"));
}

TEST_F(DownloadToolDllTest, CountsALibraryThatLacksAMandatoryExportAsBound) {
  bench.library.missingExports = {"_ZEMO_DL_boot_target", "_ZEMO_DL_open_comm_port"};
  EXPECT_TRUE(CDownloadToolDll::Load());
  EXPECT_EQ(Slot(FlashSlot::BootTarget), nullptr);
  EXPECT_NE(Slot(FlashSlot::SetDllParameter), nullptr);
  EXPECT_THAT(
      Said(),
      ElementsAre("++ CDownloadToolDll::Load", "E:GetProcAddress(_ZEMO_DL_boot_target) failed with: 127",
                  "E:GetProcAddress(_ZEMO_DL_open_comm_port) failed with: 127", "-- CDownloadToolDll::Load"));
}

TEST_F(DownloadToolDllTest, WithoutTheVersionExportRegistersNoCallback) {
  bench.library.missingExports = {"_ZEMO_DL_get_sys_version"};
  EXPECT_TRUE(CDownloadToolDll::Load());
  EXPECT_THAT(bench.library.calls, IsEmpty());
}

TEST_F(DownloadToolDllTest, ToleratesAMissingOutOfSessionExportButNamesIt) {
  bench.library.missingExports = {"_ZEMO_DL_out_of_session_comm"};
  EXPECT_TRUE(CDownloadToolDll::Load());
  EXPECT_THAT(bench.library.calls, ElementsAre("init_callback()"));
  EXPECT_THAT(Said(), ElementsAre("++ CDownloadToolDll::Load",
                                  "E:GetProcAddress(_ZEMO_DL_out_of_session_comm) failed with: 127",
                                  "CDownloadToolDll::Load ,SetFunctionPointers()"));
}

TEST_F(DownloadToolDllTest, FailsOnlyWhenTheCallbackIsRefusedWithOne) {
  bench.library.results["init_callback"] = 1;
  bench.library.reason = "no callbacks today";
  EXPECT_FALSE(CDownloadToolDll::Load());
  EXPECT_THAT(Said(),
              ElementsAre("++ CDownloadToolDll::Load", "CDownloadToolDll::Load ,SetFunctionPointers()",
                          "E:PROGRESS: InitCallback failed due to no callbacks today\n"));
}

TEST_F(DownloadToolDllTest, TakesAnyCallbackResultButOneForSuccess) {
  bench.library.results["init_callback"] = 2;
  EXPECT_TRUE(CDownloadToolDll::Load());
  CDownloadToolDll::Unload();
  bench.library.results["init_callback"] = -1;
  EXPECT_TRUE(CDownloadToolDll::Load());
}

TEST_F(DownloadToolDllTest, PrintsAReasonThatFillsTheWholeBuffer) {
  bench.library.results["init_callback"] = 1;
  bench.library.reason = std::string(512, 'x');
  EXPECT_FALSE(CDownloadToolDll::Load());
  EXPECT_THAT(Said(), Contains("E:PROGRESS: InitCallback failed due to " + std::string(512, 'x') + "\n"));
}

// The library may go on using it: whoever was given up keeps the same module loaded.
TEST_F(DownloadToolDllTest, GivesTheLibraryOneCallbackBufferForAllBindings) {
  bench.library.results["init_callback"] = 2;
  CDownloadToolDll::Load();
  const char* const first = bench.library.callbackStatus;
  CDownloadToolDll::Unload();
  CDownloadToolDll::Load();
  EXPECT_EQ(bench.library.callbackStatus, first);
}

TEST_F(DownloadToolDllTest, GivesTheLibraryAnEmptyCallbackBufferEachTime) {
  bench.library.results["init_callback"] = 2;
  CDownloadToolDll::Load();
  EXPECT_STREQ(bench.library.callbackStatus, "a reason");
  CDownloadToolDll::Unload();
  CDownloadToolDll::Load();
  EXPECT_EQ(bench.library.callbackStatusBefore, "");
}

TEST_F(DownloadToolDllTest, UnloadReleasesMemoryThenTheLibrary) {
  CDownloadToolDll::Load();
  ASSERT_TRUE(bench.library.IsMapped());
  CDownloadToolDll::Unload();
  EXPECT_FALSE(bench.library.IsMapped());
  EXPECT_EQ(CDownloadToolDll::Library(), nullptr);
  EXPECT_THAT(Said(),
              ElementsAre("++ CDownloadToolDll::Load", "CDownloadToolDll::Load ,SetFunctionPointers()",
                          "CDownloadToolDll::Unload ++", "CDownloadToolDll::Unload, release memory",
                          "CDownloadToolDll::Unload, release library", "CDownloadToolDll::Unload --"));
}

TEST_F(DownloadToolDllTest, UnloadOfALibraryThatWasNotLoadedReleasesMemoryOnly) {
  bench.library.loadError = ERROR_MOD_NOT_FOUND;
  CDownloadToolDll::Load();
  CDownloadToolDll::Unload();
  EXPECT_THAT(Said(), Not(Contains("CDownloadToolDll::Unload, release library")));
  EXPECT_THAT(Said(), Contains("CDownloadToolDll::Unload, release memory"));
}

TEST_F(DownloadToolDllTest, UnloadWithoutABindingOnlySaysSo) {
  CDownloadToolDll::Unload();
  EXPECT_THAT(Said(), ElementsAre("CDownloadToolDll::Unload ++", "CDownloadToolDll::Unload --"));
}

TEST_F(DownloadToolDllTest, StaysMappedForWhoeverIsStillInsideIt) {
  CDownloadToolDll::Load();
  auto user = CDownloadToolDll::Library();
  CDownloadToolDll::Unload();
  EXPECT_TRUE(bench.library.IsMapped());
  EXPECT_NE(user->functions[FlashSlot::BootTarget], nullptr);
  user.reset();
  EXPECT_FALSE(bench.library.IsMapped());
}

struct Change {
  const char* name;
  void (*run)();
  /// Which of the locks that it gives back is the binding's.
  int time;
};

class BindingLockTest : public DownloadToolDllTest, public testing::WithParamInterface<Change> {};

TEST_P(BindingLockTest, KeepsTheOtherThreadFromTheBinding) {
  if (GetParam().name != std::string("Load")) CDownloadToolDll::Load();
  LockProbe locks;
  EXPECT_TRUE(locks.Excludes(
      GetParam().run, [] { CDownloadToolDll::Library(); }, GetParam().time));
}

INSTANTIATE_TEST_SUITE_P(EveryUse, BindingLockTest,
                         testing::Values(Change{"Load", [] { CDownloadToolDll::Load(); }, 1},
                                         Change{"Library", [] { CDownloadToolDll::Library(); }, 1},
                                         Change{"Unload", [] { CDownloadToolDll::Unload(); }, 2}),
                         [](const auto& change) { return change.param.name; });

// --- The callback ----------------------------------------------------------------------------------------

class CallbackTest : public DownloadToolDllTest {
 protected:
  CallbackTest() { CFirmwareDownloader::GetInstance(); }
  bool ReportedProgress() const { return bench.key.Number(L"Flash_Progress").has_value(); }
};

TEST_F(CallbackTest, LogsEveryCall) {
  bench.library.Report(2, "45");
  bench.library.Report(99, "something");
  EXPECT_THAT(Said(), Contains("Channel: 7, Status: 2, StatusText: 45"));
  EXPECT_THAT(Said(), Contains("Channel: 7, Status: 99, StatusText: something"));
}

TEST_F(CallbackTest, ReportsNoProgressBeforeDataIsSent) {
  bench.library.ReportPercent("45");
  EXPECT_FALSE(ReportedProgress());
}

TEST_F(CallbackTest, ReportsProgressWhileDataIsSent) {
  bench.library.ReportSending();
  bench.library.ReportPercent("45");
  EXPECT_TRUE(ReportedProgress());
}

TEST_F(CallbackTest, AnyOtherStatusTextSwitchesProgressOff) {
  bench.library.ReportSending();
  bench.library.Report(4, "something else");
  bench.library.ReportPercent("45");
  EXPECT_FALSE(ReportedProgress());
}

TEST_F(CallbackTest, TheSameWordsWithOneLeadingBlankSwitchProgressOff) {
  bench.library.ReportSending();
  bench.library.Report(4, " - Sending data. (RAW mode)");
  bench.library.ReportPercent("45");
  EXPECT_FALSE(ReportedProgress());
  bench.library.ReportSending();
  bench.library.ReportPercent("45");
  EXPECT_TRUE(ReportedProgress());
}

TEST_F(CallbackTest, AnotherStatusLeavesTheSendingStateAlone) {
  bench.library.ReportSending();
  bench.library.Report(3, "something else");
  bench.library.ReportPercent("45");
  EXPECT_TRUE(ReportedProgress());
}

TEST_F(CallbackTest, NeitherUnloadingNorLoadingResetsTheSendingState) {
  bench.library.ReportSending();
  CFirmwareDownloader::Unload();
  CFirmwareDownloader::GetInstance();
  bench.library.ReportPercent("45");
  EXPECT_TRUE(ReportedProgress());
}

TEST_F(CallbackTest, ToleratesANullText) {
  bench.library.ReportSending();
  bench.library.Report(2, nullptr);
  EXPECT_EQ(bench.Registry(L"Flash_Progress"), 0);
  bench.library.Report(4, nullptr);
  EXPECT_TRUE(bench.HasSaid("Channel: 7, Status: 4, StatusText: "));
}

TEST_F(CallbackTest, ToleratesThatThereIsNoEngine) {
  bench.library.ReportSending();
  CFirmwareDownloader::Unload();
  bench.library.ReportPercent("45");
  EXPECT_FALSE(ReportedProgress());
}

TEST_F(CallbackTest, WithoutMemoryATextIsLostAndNothingElse) {
  const std::string text(300, 't');
  ScarceMemory memory;
  memory.FailEachOf([&] { bench.library.Report(4, text.c_str()); });
  bench.library.ReportSending();
  bench.library.ReportPercent("45");
  EXPECT_TRUE(ReportedProgress());
}

TEST_F(CallbackTest, WritesProgressUnderTheServicesOwnKey) {
  bench.library.ReportSending();
  bench.library.ReportPercent("45");
  EXPECT_TRUE(bench.HasSaid("\t WriteRegistry Flash_Progress: 0"));
}

}  // namespace
