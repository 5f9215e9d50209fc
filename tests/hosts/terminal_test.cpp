// What the hosts do to the terminal that they run in, and what they hear from it.

#include "hosts/common/terminal.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "hosts/common/interruption.h"
#include "simulator/import_patch.h"

namespace hosts {

using testing::ElementsAre;

namespace {

constexpr UINT kFormerCodePage = 850;
std::vector<UINT> g_codePages;
PHANDLER_ROUTINE g_handler = nullptr;
std::vector<DWORD> g_sleeps;

UINT WINAPI TellCodePage() {
  return kFormerCodePage;
}

BOOL WINAPI TakeCodePage(UINT codePage) {
  g_codePages.push_back(codePage);
  return TRUE;
}

BOOL WINAPI TakeHandler(PHANDLER_ROUTINE handler, BOOL add) {
  if (add) g_handler = handler;
  return TRUE;
}

VOID WINAPI TakeSleep(DWORD milliseconds) {
  g_sleeps.push_back(milliseconds);
}

TEST(Utf8TerminalTest, TakesUtf8UntilItIsGone) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("GetConsoleOutputCP", &TellCodePage);
  patch.Replace("SetConsoleOutputCP", &TakeCodePage);
  {
    const Utf8Terminal terminal;
    EXPECT_THAT(g_codePages, ElementsAre(CP_UTF8));
  }
  EXPECT_THAT(g_codePages, ElementsAre(CP_UTF8, kFormerCodePage));
}

// --- What a terminal can do ------------------------------------------------------------------------------

/// Of the played terminal.
DWORD g_mode = 0;
bool g_knowsColours = true;

BOOL WINAPI TellModeOfTerminal(HANDLE, LPDWORD mode) {
  *mode = g_mode;
  return TRUE;
}

BOOL WINAPI TakeModeOfTerminal(HANDLE, DWORD mode) {
  if (!g_knowsColours) return FALSE;
  g_mode = mode;
  return TRUE;
}

class TerminalAbilitiesTest : public testing::Test {
 protected:
  TerminalAbilitiesTest() {
    g_mode = ENABLE_PROCESSED_OUTPUT;
    g_knowsColours = true;
    m_Patch.Replace("GetConsoleMode", &TellModeOfTerminal);
    m_Patch.Replace("SetConsoleMode", &TakeModeOfTerminal);
    SetVariable(L"TERM", nullptr);
    SetVariable(L"NO_COLOR", nullptr);
  }
  ~TerminalAbilitiesTest() override {
    SetVariable(L"TERM", nullptr);
    SetVariable(L"NO_COLOR", nullptr);
  }
  static void SetVariable(const wchar_t* name, const wchar_t* value) {
    ::SetEnvironmentVariableW(name, value);
  }

 private:
  simulator::ImportPatch m_Patch{::GetModuleHandleW(nullptr)};
};

TEST_F(TerminalAbilitiesTest, ColoursAreSwitchedOn) {
  EXPECT_TRUE(TakesColours(nullptr));
  EXPECT_EQ(g_mode, static_cast<DWORD>(ENABLE_PROCESSED_OUTPUT | ENABLE_VIRTUAL_TERMINAL_PROCESSING));
}

TEST_F(TerminalAbilitiesTest, NoColoursWhereTheUserOrTheTerminalHasNone) {
  SetVariable(L"NO_COLOR", L"1");
  EXPECT_FALSE(TakesColours(nullptr));
  EXPECT_TRUE(IsLiveTerminal(nullptr));
  SetVariable(L"NO_COLOR", nullptr);
  g_knowsColours = false;
  EXPECT_FALSE(TakesColours(nullptr));
  EXPECT_EQ(g_mode, static_cast<DWORD>(ENABLE_PROCESSED_OUTPUT));
}

TEST_F(TerminalAbilitiesTest, ADumbOneIsWrittenOverNowhere) {
  EXPECT_TRUE(IsLiveTerminal(nullptr));
  SetVariable(L"TERM", L"dumb");
  EXPECT_FALSE(IsLiveTerminal(nullptr));
  EXPECT_FALSE(TakesColours(nullptr));
}

TEST(TextColumnsTest, AreManyWhereNoTerminalIs) {
  EXPECT_EQ(TextColumns(nullptr), kUnlimitedColumns);
}

/// One test: what is final stays so.
TEST(InterruptionTest, IsFinalWhenTheSystemEndsTheProgramBehindIt) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("SetConsoleCtrlHandler", &TakeHandler);
  patch.Replace("Sleep", &TakeSleep);
  const Interruption interruption;
  ASSERT_NE(g_handler, nullptr);
  for (const DWORD event : {DWORD{CTRL_C_EVENT}, DWORD{CTRL_BREAK_EVENT}}) {
    ::ResetEvent(interruption.Event());
    // The system's own handler would end the program.
    EXPECT_TRUE(g_handler(event));
    EXPECT_EQ(::WaitForSingleObject(interruption.Event(), 0), static_cast<DWORD>(WAIT_OBJECT_0));
    EXPECT_FALSE(interruption.IsFinal());
    EXPECT_THAT(g_sleeps, ElementsAre());
  }
  ::ResetEvent(interruption.Event());
  g_handler(CTRL_CLOSE_EVENT);
  EXPECT_EQ(::WaitForSingleObject(interruption.Event(), 0), static_cast<DWORD>(WAIT_OBJECT_0));
  EXPECT_TRUE(interruption.IsFinal());
  EXPECT_THAT(g_sleeps, ElementsAre(INFINITE));
}

}  // namespace

}  // namespace hosts
