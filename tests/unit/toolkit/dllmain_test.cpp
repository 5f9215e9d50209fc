// The library's entry routine, called as the loader calls it. The library that ships has it; the one for the
// tests has none, so it is linked into this program.

#include <objbase.h>
#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "common/handles.h"
#include "config/configparser.h"
#include "simulator/import_patch.h"
#include "support/host_folder.h"
#include "toolkit/toolkit.h"

using corvel::OwnFileHandle;
using corvel::UniqueHandle;

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID reserved);

namespace {

/// What the loader hands over while the process ends, and otherwise.
int g_something = 0;
void* const kProcessEnds = &g_something;
void* const kLibraryIsFreed = nullptr;

std::wstring g_hostPath;
int g_supervisors = 0;
int g_comLeft = 0;

DWORD WINAPI HostPath(HMODULE module, LPWSTR buffer, DWORD size) {
  EXPECT_EQ(module, nullptr);
  const std::size_t copied = g_hostPath.copy(buffer, size - 1);
  buffer[copied] = L'\0';
  return static_cast<DWORD>(copied);
}

HANDLE WINAPI CountSupervisors(SECURITY_ATTRIBUTES*, SIZE_T, LPTHREAD_START_ROUTINE, void*, DWORD, DWORD*) {
  ++g_supervisors;
  return ::CreateEventW(nullptr, TRUE, TRUE, nullptr);
}

void WINAPI CountLeavingCom() {
  ++g_comLeft;
  ::CoUninitialize();
}

class ReleasableToolKit : public ToolKit {
 public:
  using ToolKit::ReleaseInstance;
};

class EntryRoutineTest : public testing::Test {
 protected:
  EntryRoutineTest() {
    g_supervisors = g_comLeft = 0;
    host.WriteConfig("title\n[TraceLevel]=1\n");
    library.Replace("CreateThread", &CountSupervisors);
    library.Replace("CoUninitialize", &CountLeavingCom);
    entry.Replace("GetModuleFileNameW", &HostPath);
  }
  ~EntryRoutineTest() override { ReleasableToolKit::ReleaseInstance(); }

  BOOL Attach(const std::wstring& path) {
    g_hostPath = path;
    return DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr);
  }
  bool StartsService(const std::wstring& path) {
    EXPECT_TRUE(Attach(path));
    return g_supervisors > 0;
  }

  HostFolder host;
  simulator::ImportPatch library{::GetModuleHandleW(L"toolkit_internals.dll")};
  simulator::ImportPatch entry{::GetModuleHandleW(nullptr)};
};

TEST_F(EntryRoutineTest, StartsTheServiceInAnyHost) {
  EXPECT_TRUE(StartsService(L"C:\\Program Files\\Quenta\\corvel_service.exe"));
  EXPECT_EQ(g_supervisors, 1);
}

TEST_F(EntryRoutineTest, StartsNothingInTheCommandLineHost) {
  EXPECT_FALSE(StartsService(L"C:\\tools\\corvel_cmdline.exe"));
}

TEST_F(EntryRoutineTest, KnowsTheCommandLineHostWhateverItsCase) {
  EXPECT_FALSE(StartsService(L"C:\\TOOLS\\Corvel_CmdLine.EXE"));
}

TEST_F(EntryRoutineTest, KnowsTheCommandLineHostByItsFolderToo) {
  EXPECT_FALSE(StartsService(L"C:\\corvel_cmdline-1.8\\tool.exe"));
}

TEST_F(EntryRoutineTest, DoesNotTakeANameThatEndsLikeTheCommandLineHostsForIt) {
  EXPECT_TRUE(StartsService(L"C:\\tools\\my_corvel_cmdline.exe"));
}

TEST_F(EntryRoutineTest, KnowsTheCommandLineHostAtTheEndOfALongPath) {
  EXPECT_FALSE(StartsService(L"\\\\?\\C:" + std::wstring(20'000, L'\\') + L"corvel_cmdline.exe"));
}

TEST_F(EntryRoutineTest, SucceedsThoughTheServiceCannotStart) {
  std::filesystem::remove(host.ConfigPath());
  EXPECT_TRUE(Attach(L"C:\\corvel_service.exe"));
  EXPECT_EQ(g_supervisors, 0);
}

TEST_F(EntryRoutineTest, DoesNothingForThreads) {
  g_hostPath = L"C:\\corvel_service.exe";
  EXPECT_TRUE(DllMain(nullptr, DLL_THREAD_ATTACH, nullptr));
  ToolKit::LoadConfig(nullptr);
  EXPECT_TRUE(DllMain(nullptr, DLL_THREAD_DETACH, nullptr));
  EXPECT_EQ(g_supervisors, 0);
  EXPECT_TRUE(ToolKit::IsConfigLoaded());
}

/// Detaching shuts the log for good, so each test does it in a process of its own.
class DetachTest : public EntryRoutineTest {
 protected:
  bool LogIsClosed() const {
    const UniqueHandle log = OwnFileHandle(
        ::CreateFileW(host.LogPath().c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    return log != nullptr;
  }
  bool Detach(LPVOID reserved) { return DllMain(nullptr, DLL_PROCESS_DETACH, reserved) != FALSE; }
};

/// The process ends with 0 when all of it holds, else with the number of the first that does not.
template <typename... Conditions>
[[noreturn]] void EndWith(Conditions... conditions) {
  int number = 0;
  int failed = 0;
  (
      [&] {
        ++number;
        if (!conditions && failed == 0) failed = number;
      }(),
      ...);
  std::_Exit(failed);
}

TEST_F(DetachTest, ReleasesTheConfigurationAndLeavesCom) {
  EXPECT_EXIT(
      {
        Attach(L"C:\\corvel_service.exe");
        CConfigParser::GetInstance()->SetConfigVar(L"[ERASEMODE]", L"2");
        const bool succeeded = Detach(kLibraryIsFreed);
        EndWith(succeeded, CConfigParser::ConfiguredEraseMode() == 0, g_comLeft == 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(DetachTest, AtTheProcesssEndDropsTheConfigurationAndLeavesComAlone) {
  EXPECT_EXIT(
      {
        Attach(L"C:\\corvel_service.exe");
        CConfigParser::GetInstance()->SetConfigVar(L"[ERASEMODE]", L"2");
        const bool succeeded = Detach(kProcessEnds);
        EndWith(succeeded, CConfigParser::ConfiguredEraseMode() == 0, g_comLeft == 0);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(DetachTest, ClosesTheLog) {
  EXPECT_EXIT(
      {
        Attach(L"C:\\corvel_service.exe");
        const bool openBefore = !LogIsClosed();
        Detach(kLibraryIsFreed);
        EndWith(openBefore, LogIsClosed());
      },
      testing::ExitedWithCode(0), "");
}

// A record that a static object writes while it is destroyed would create the log again, and empty.
TEST_F(DetachTest, KeepsWhatTheLogHoldsFromLaterRecords) {
  EXPECT_EXIT(
      {
        Attach(L"C:\\corvel_service.exe");
        const std::size_t before = host.Log().size();
        Detach(kLibraryIsFreed);
        ToolKit::OutputDebug(3, "test", "Test", "test.cpp", 1, "late");
        EndWith(before > 0, host.Log().size() == before);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
