#include <algorithm>

#include <gmock/gmock.h>

#include "simulation_test.h"
#include "simulator/import_patch.h"

namespace simulator {

namespace {

using PlatformFaultsTest = SimulationTest;

DWORD WINAPI Nothing(void*) {
  return 0;
}

TEST_F(PlatformFaultsTest, OnlyTheChosenCallFails) {
  options.faults.platform = {{"CreateThread", Occurrence::Only(2), ERROR_NO_SYSTEM_RESOURCES}};
  Start();
  const UniqueHandle first(platform.StartThread(nullptr, 0, &Nothing, nullptr, 0, nullptr));
  const UniqueHandle second(platform.StartThread(nullptr, 0, &Nothing, nullptr, 0, nullptr));
  const DWORD error = ::GetLastError();
  const UniqueHandle third(platform.StartThread(nullptr, 0, &Nothing, nullptr, 0, nullptr));
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(error, static_cast<DWORD>(ERROR_NO_SYSTEM_RESOURCES));
  EXPECT_NE(third, nullptr);
  EXPECT_EQ(pc->PlatformCalls()["CreateThread"], 3);
}

TEST_F(PlatformFaultsTest, RegistryCallsFailByTheirResult) {
  options.faults.platform = {{"RegOpenKeyExW", Occurrence::Always(), ERROR_ACCESS_DENIED}};
  Start();
  HKEY key = nullptr;
  EXPECT_EQ(platform.OpenKey(HKEY_CURRENT_USER, L"Software", 0, KEY_READ, &key), ERROR_ACCESS_DENIED);
}

TEST_F(PlatformFaultsTest, AnExpiredWaitFails) {
  options.faults.platform = {{"WaitForSingleObject", Occurrence::Times(1), ERROR_INVALID_HANDLE}};
  Start();
  const UniqueHandle event(::CreateEventW(nullptr, TRUE, TRUE, nullptr));
  EXPECT_EQ(platform.Wait(event.get(), 0), WAIT_FAILED);
  EXPECT_EQ(platform.Wait(event.get(), 0), WAIT_OBJECT_0);
}

TEST_F(PlatformFaultsTest, EveryCallIsNamedOnce) {
  auto names = FaultableCalls();
  std::ranges::sort(names);
  EXPECT_TRUE(std::ranges::adjacent_find(names) == names.end());
}

/// The library as data: nothing in it runs.
class MappedLibrary {
 public:
  MappedLibrary() : m_Module(::LoadLibraryExW(L"CorvelToolKit.dll", nullptr, DONT_RESOLVE_DLL_REFERENCES)) {}
  ~MappedLibrary() { ::FreeLibrary(m_Module); }
  MappedLibrary(const MappedLibrary&) = delete;
  MappedLibrary& operator=(const MappedLibrary&) = delete;

  std::vector<std::string> FunctionsCalled() const {
    std::vector<std::string> functions = ImportedFunctions(m_Module);
    for (std::string& name : functions) name.erase(0, name.find('!') + 1);
    return functions;
  }

 private:
  HMODULE m_Module;
};

TEST(ImportsOfTheLibrary, AreAllThatTheVirtualPcReplaces) {
  const auto called = MappedLibrary().FunctionsCalled();
  auto replaced = FaultableCalls();
  replaced.insert(replaced.end(),
                  {"CloseHandle", "FreeLibrary", "FreeLibraryAndExitThread", "GetTickCount64", "Sleep"});
  for (const std::string& name : replaced) EXPECT_THAT(called, testing::Contains(name));
}

TEST(ImportPatchTest, RefusesAFunctionThatIsNotImported) {
  ImportPatch patch(::GetModuleHandleW(nullptr));
  EXPECT_THROW(patch.Replace("NoSuchFunction", &Nothing), std::runtime_error);
  EXPECT_FALSE(patch.ReplaceIfImported("NoSuchFunction", &Nothing));
}

}  // namespace

}  // namespace simulator
