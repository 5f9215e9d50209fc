// What a watched status looks like on a terminal that the test plays.

#include "hosts/cmdline/status_display.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <streambuf>
#include <string>

#include "simulator/import_patch.h"

namespace hosts {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

/// All that was written, in its order: lines of text, and the line that is written over.
std::ostringstream g_screen;
SHORT g_columns = 80;

BOOL WINAPI TellScreen(HANDLE, PCONSOLE_SCREEN_BUFFER_INFO screen) {
  screen->srWindow = {.Left = 0, .Top = 0, .Right = static_cast<SHORT>(g_columns - 1), .Bottom = 24};
  return TRUE;
}

BOOL WINAPI TakeDrawing(HANDLE, LPCVOID text, DWORD size, LPDWORD written, LPOVERLAPPED) {
  g_screen << std::string(static_cast<const char*>(text), size);
  *written = size;
  return TRUE;
}

class StatusDisplayTest : public testing::Test {
 protected:
  void SetUp() override {
    g_screen.str({});
    g_columns = 80;
    m_Patch.Replace("GetConsoleScreenBufferInfo", &TellScreen);
    m_Patch.Replace("WriteFile", &TakeDrawing);
    status.values.onGoing = 1;
    status.values.result = 1;
    status.job = RunningJob{.stageToken = "write",
                            .stage = "writing",
                            .attempt = 2,
                            .mostAttempts = 4,
                            .percent = 0,
                            .stageTimes = std::nullopt,
                            .attemptTimes = TimedStep{.begin = LocalTime() - 30'000, .limit = 130'000}};
  }
  ~StatusDisplayTest() override {
    std::cout.rdbuf(m_Output);
    std::cerr.rdbuf(m_Errors);
  }
  void Progress(std::uint32_t percent) {
    status.values.progress = percent;
    status.job->percent = percent;
  }
  /// What this look adds to the screen.
  std::string Show(StatusDisplay& display) {
    g_screen.str({});
    display.Show(status);
    return g_screen.str();
  }

  Status status{.key = {.path = L"SOFTWARE\\Quenta\\FlashService"},
                .writer = Writer::Lives,
                .values = {},
                .modem = {.mode = ModemMode::FlashPort, .atPort = false, .resetDriver = true},
                .folder = L"C:\\Firmware",
                .images = {},
                .hindrances = {}};

 private:
  std::streambuf* m_Output = std::cout.rdbuf(g_screen.rdbuf());
  std::streambuf* m_Errors = std::cerr.rdbuf(g_screen.rdbuf());
  simulator::ImportPatch m_Patch{::GetModuleHandleW(nullptr)};
};

TEST_F(StatusDisplayTest, TellsProgressInALineBeneathThePictureThatIsWrittenOver) {
  StatusDisplay display(StatusForm::LiveText);
  Progress(42);
  const std::string picture = Show(display);
  EXPECT_THAT(picture, AllOf(StartsWith("HKLM\\SOFTWARE\\Quenta\\FlashService\n"),
                             HasSubstr("\nFolder:      C:\\Firmware\n")));
  EXPECT_EQ(picture.substr(picture.rfind('\n') + 1).substr(0, 55),
            "\rwriting            [######..........]  42 %  attempt 2");
  EXPECT_THAT(picture, HasSubstr(" s, limit in "));
  Progress(50);
  const std::string line = Show(display);
  EXPECT_THAT(line, AllOf(StartsWith("\rwriting            [########........]  50 %"), Not(HasSubstr("\n"))));
  EXPECT_EQ(line.size(), 80u);
}

TEST_F(StatusDisplayTest, EndsTheLineBeforeANewPicture) {
  StatusDisplay display(StatusForm::LiveText);
  Show(display);
  status.job->stage = "awaiting the modem";
  const std::string next = Show(display);
  EXPECT_THAT(next, AllOf(StartsWith("\nHKLM"), HasSubstr("\n\rawaiting the modem [")));
  status.job.reset();
  status.values.result = 4;
  EXPECT_THAT(Show(display), AllOf(StartsWith("\nHKLM"), Not(HasSubstr("\r"))));
  EXPECT_EQ(Show(display), "");
}

TEST_F(StatusDisplayTest, IsAsWideAsTheWindow) {
  g_columns = 40;
  StatusDisplay display(StatusForm::LiveText);
  Progress(42);
  std::istringstream lines(Show(display));
  for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 40u) << line;
  EXPECT_THAT(Show(display), StartsWith("\rwriting             42 %"));
}

TEST_F(StatusDisplayTest, ShowsEachPercentWhereNoLineIsWrittenOver) {
  StatusDisplay display(StatusForm::Text);
  Progress(42);
  EXPECT_THAT(Show(display), AllOf(HasSubstr(" 42 "), Not(HasSubstr("\r"))));
  EXPECT_EQ(Show(display), "");
  Progress(43);
  EXPECT_THAT(Show(display), AllOf(StartsWith("HKLM"), HasSubstr(" 43 ")));
}

TEST_F(StatusDisplayTest, PrintsADocumentPerLineForPrograms) {
  StatusDisplay display(StatusForm::Json);
  Progress(42);
  const std::string document = Show(display);
  EXPECT_EQ(document.find('\n'), document.size() - 1);
  EXPECT_EQ(nlohmann::json::parse(document)["job"]["percent"], 42);
  EXPECT_EQ(Show(display), "");
}

}  // namespace

}  // namespace hosts
