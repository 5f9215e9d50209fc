// The reader of logs that the soak trusts.

#include "soak/log_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

using soak::CheckLog;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

std::string Record(const std::string& message, const std::string& function = "ToolKit::Initialize") {
  return "#2026-11-15\t23:04:11.042\t4120~5388\tFlashSvc\tTrace\tmodule.cpp\t339\t" + function + "\t" +
         message + "##\r\n";
}

TEST(LogCheckTest, SoundRecordsAreCounted) {
  const auto check = CheckLog(Record("one") + Record("\t two\n") + Record("three\twith a tab"));
  EXPECT_EQ(check.records, 3u);
  EXPECT_THAT(check.findings, IsEmpty());
}

TEST(LogCheckTest, ARecordInTheMiddleOfAnotherIsFound) {
  std::string outer = Record("the outer one");
  outer.insert(outer.size() - 8, Record("the inner one"));
  EXPECT_THAT(CheckLog(outer).findings, SizeIs(2));
}

TEST(LogCheckTest, ARecordWhoseEndIsLostIsFound) {
  const std::string whole = Record("whole");
  EXPECT_THAT(CheckLog(whole.substr(0, whole.size() - 4) + Record("next")).findings, SizeIs(1));
}

TEST(LogCheckTest, ARecordThatIsCutAtTheEndIsFound) {
  EXPECT_THAT(CheckLog(Record("whole") + Record("cut").substr(0, 40)).findings, SizeIs(1));
}

TEST(LogCheckTest, BytesBetweenRecordsAreFound) {
  EXPECT_THAT(CheckLog(Record("one") + "?" + Record("two")).findings, SizeIs(1));
}

TEST(LogCheckTest, ALineThatIsNoNumberIsFound) {
  std::string record = Record("one");
  record.replace(record.find("339"), 3, "x39");
  EXPECT_THAT(CheckLog(record).findings, SizeIs(1));
}

TEST(LogCheckTest, AnUnknownLevelIsFound) {
  std::string record = Record("one");
  record.replace(record.find("Trace"), 5, "Off");
  EXPECT_THAT(CheckLog(record).findings, SizeIs(1));
}

TEST(LogCheckTest, NumbersOfWritersComeInTheOrderOfTheLog) {
  const auto check = CheckLog(Record("\t writer 0, number 1", "SoakHost::Writer") +
                              Record("\t writer 1, number 1", "SoakHost::Writer") +
                              Record("\t writer 0, number 3", "SoakHost::Writer"));
  EXPECT_THAT(check.numbersOfWriter.at(0), ElementsAre(1, 3));
  EXPECT_THAT(check.numbersOfWriter.at(1), ElementsAre(1));
}

TEST(LogCheckTest, ValuesThatWereWrittenAndKeysThatWereLeftOpenAreCounted) {
  const auto check =
      CheckLog(Record("\t WriteRegistry Flash_Result: 4", "ToolKit::SetFlashResult") +
               Record("\t Flash Time_Out: 153000", "ToolKit::SetFlashTimeOut") +
               Record("\t Read regedit Retry_Times successfully, data:3", "ToolKit::ReadRegistry"));
  EXPECT_EQ(check.valuesWritten.at("Flash_Result"), 1);
  EXPECT_EQ(check.valuesWritten.at("Time_Out"), 1);
  EXPECT_EQ(check.keysLeftOpen, 1);
}

}  // namespace
