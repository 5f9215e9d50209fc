#include "hosts/cmdline/progress_line.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "simulator/import_patch.h"

namespace hosts {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

namespace {

const Progress kWriting{
    .stage = "writing", .percent = 50, .attempt = 2, .elapsedSeconds = 14, .remainingSeconds = 139};

TEST(LiveLineTest, TellsStageBarAttemptAndBothTimes) {
  EXPECT_THAT(LiveLine(kWriting, 80),
              HasSubstr("writing            [########........]  50 %  attempt 2  14 s, limit in 139 s"));
}

TEST(LiveLineTest, LeavesOutWhatANarrowWindowDoesNotHold) {
  EXPECT_EQ(LiveLine(kWriting, 70), "writing            [########........]  50 %  attempt 2  14 s         ");
  EXPECT_EQ(LiveLine(kWriting, 50), "writing             50 %  attempt 2  14 s        ");
  EXPECT_EQ(LiveLine(kWriting, 40), "writing             50 %  #2  14 s     ");
  EXPECT_EQ(LiveLine(kWriting, 33), "writing             50 %  14 s  ");
  EXPECT_EQ(LiveLine(kWriting, 20), "writing            ");
}

TEST(LiveLineTest, LosesNothingBeforeItHasTo) {
  const std::string all = "writing            [########........]  50 %  attempt 2  14 s, limit in 139 s";
  EXPECT_EQ(LiveLine(kWriting, all.size() + 1), all);
  EXPECT_THAT(LiveLine(kWriting, all.size()), Not(HasSubstr("limit")));
}

TEST(LiveLineTest, IsOneNarrowerThanAnyWindow) {
  for (const std::size_t columns : {1u, 2u, 39u, 40u, 79u, 80u, 200u})
    EXPECT_THAT(LiveLine(kWriting, columns), SizeIs(columns - 1));
  EXPECT_THAT(LiveLine(kWriting, 0), SizeIs(0));
}

TEST(LiveLineTest, FillsItsBarAtTheEndOnly) {
  EXPECT_THAT(LiveLine({.stage = "writing", .percent = 99}, 80), HasSubstr("#.]  99 %"));
  EXPECT_THAT(LiveLine({.stage = "flashed", .percent = 100}, 80), HasSubstr("##] 100 %"));
}

TEST(LiveLineTest, NamesNoLimitWhileNoAttemptRuns) {
  EXPECT_THAT(LiveLine({.stage = "waiting to begin"}, 80), Not(HasSubstr("limit")));
}

TEST(LiveLineTest, IsAlwaysAsWideSoThatItWritesOverALongerOne) {
  EXPECT_THAT(LiveLine({.stage = "failed"}, 80), SizeIs(79));
}

TEST(LiveLineTest, FitsIntoEightyColumnsAtItsLongest) {
  const std::string line = LiveLine({.stage = "awaiting the modem",
                                     .percent = 100,
                                     .attempt = 9,
                                     .elapsedSeconds = 9999,
                                     .remainingSeconds = 153},
                                    80);
  EXPECT_THAT(line, SizeIs(79));
  EXPECT_THAT(line, HasSubstr("9999 s, limit in 153 s"));
}

// --- On a terminal that the test plays -------------------------------------------------------------------

/// The terminal's window, and what was drawn in it.
struct PlayedTerminal {
  bool isOne = true;
  SHORT left = 0;
  SHORT right = 79;
  std::vector<std::string> drawn;
};
PlayedTerminal g_terminal;

BOOL WINAPI TellMode(HANDLE, LPDWORD mode) {
  *mode = 0;
  return TRUE;
}

BOOL WINAPI TellScreen(HANDLE, PCONSOLE_SCREEN_BUFFER_INFO screen) {
  if (!g_terminal.isOne) return FALSE;
  screen->dwSize = {300, 100};
  screen->srWindow = {.Left = g_terminal.left, .Top = 0, .Right = g_terminal.right, .Bottom = 24};
  return TRUE;
}

BOOL WINAPI TakeDrawing(HANDLE, LPCVOID text, DWORD size, LPDWORD written, LPOVERLAPPED) {
  g_terminal.drawn.emplace_back(static_cast<const char*>(text), size);
  *written = size;
  return TRUE;
}

class TerminalTest : public testing::Test {
 protected:
  void SetUp() override {
    g_terminal = {};
    m_Patch.Replace("GetConsoleMode", &TellMode);
    m_Patch.Replace("GetConsoleScreenBufferInfo", &TellScreen);
    m_Patch.Replace("WriteFile", &TakeDrawing);
  }

 private:
  simulator::ImportPatch m_Patch{::GetModuleHandleW(nullptr)};
};

TEST_F(TerminalTest, IsDrawnInItsWholeWidthAlsoAfterItWasNarrowed) {
  Handshake values;
  values.onGoing = 1;
  values.progress = 40;
  values.result = 1;
  ProgressLine line(false);
  g_terminal.right = 99;
  line.Show(values);
  g_terminal.left = 10;
  g_terminal.right = 49;
  line.Show(values);
  ASSERT_THAT(g_terminal.drawn, SizeIs(2));
  // The line itself is one narrower than the window, after the return to its beginning.
  EXPECT_THAT(g_terminal.drawn[0], AllOf(SizeIs(100), HasSubstr("\rwriting            [######")));
  EXPECT_THAT(g_terminal.drawn[1], AllOf(SizeIs(40), HasSubstr("\rwriting             40 %  #1  0 s")));
  EXPECT_THAT(g_terminal.drawn, Each(Not(HasSubstr("\n"))));
}

Handshake ValuesOf(FlashResult result, std::uint32_t progress) {
  Handshake values;
  values.timeOut = 153000;
  values.onGoing = 1;
  values.progress = progress;
  values.result = static_cast<std::uint32_t>(result);
  return values;
}

TEST_F(TerminalTest, ShowsTheStageOfAJob) {
  ProgressLine line(false);
  for (const Handshake& values :
       {Handshake{}, ValuesOf(FlashResult::Idle, 0), ValuesOf(FlashResult::Flashing, 0),
        ValuesOf(FlashResult::Flashing, 1), ValuesOf(FlashResult::Retrying, 99),
        ValuesOf(FlashResult::Retrying, 100), ValuesOf(FlashResult::Flashing, 250),
        ValuesOf(FlashResult::Succeeded, 100), ValuesOf(FlashResult::Failed, 100)}) {
    line.Show(values);
  }
  EXPECT_THAT(g_terminal.drawn,
              ElementsAre(StartsWith("\rwaiting to begin   ["), StartsWith("\rwaiting to begin   ["),
                          StartsWith("\rinto flash mode    ["), StartsWith("\rwriting            ["),
                          StartsWith("\rpausing to retry   ["), StartsWith("\rawaiting the modem ["),
                          AllOf(StartsWith("\rawaiting the modem ["), HasSubstr("] 100 %  attempt 2")),
                          AllOf(StartsWith("\rflashed            ["), Not(HasSubstr("limit"))),
                          AllOf(StartsWith("\rfailed             ["), Not(HasSubstr("limit")))));
}

TEST_F(TerminalTest, CountsAnAttemptThatNobodySawBegin) {
  ProgressLine line(false);
  line.Show(ValuesOf(FlashResult::Retrying, 0));
  line.Show(ValuesOf(FlashResult::Flashing, 0));
  line.Show(ValuesOf(FlashResult::Flashing, 1));
  EXPECT_EQ(line.Attempts(), 2);
  EXPECT_THAT(g_terminal.drawn.back(), HasSubstr("attempt 2  0 s, limit in 153 s"));
}

TEST_F(TerminalTest, IsLeftAloneByAQuietOne) {
  ProgressLine line(true);
  line.Show(ValuesOf(FlashResult::Flashing, 1));
  EXPECT_THAT(g_terminal.drawn, SizeIs(0));
  EXPECT_EQ(line.Attempts(), 1);
}

TEST_F(TerminalTest, HasItsLineEndedOnce) {
  testing::internal::CaptureStderr();
  ProgressLine line(false);
  line.Finish();
  line.Show({});
  line.Finish();
  line.Finish();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "\n");
}

TEST_F(TerminalTest, OfAnUnknownWidthIsTakenForOneOfEightyColumns) {
  g_terminal.isOne = false;
  ProgressLine line(false);
  line.Show({});
  ASSERT_THAT(g_terminal.drawn, SizeIs(1));
  EXPECT_THAT(g_terminal.drawn[0], SizeIs(80));
}

}  // namespace

}  // namespace hosts
