#include "simulator/program/judgement.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace simulator {

namespace {

constexpr std::string_view kProgressWritten = "\t WriteRegistry Flash_Progress: ";
constexpr std::string_view kAttemptBegins = "ToolKit::DownloadFirmwareImplementation ++";
constexpr int kComplete = 100;

std::string Show(std::optional<std::uint32_t> value) {
  return value ? std::to_string(*value) : "absent";
}

bool IsDigit(char character) {
  return character >= '0' && character <= '9';
}

/// A number that a text ends in is whole: "StatusText: 300" does not hold "StatusText: 30".
bool Holds(const DebugRecord& record, std::string_view text) {
  const std::string_view message = record.message;
  const bool endsInNumber = !text.empty() && IsDigit(text.back());
  for (auto at = message.find(text); at != std::string_view::npos; at = message.find(text, at + 1)) {
    const std::string_view rest = message.substr(at + text.size());
    if (!endsInNumber || rest.empty() || !IsDigit(rest.front())) return true;
  }
  return false;
}

bool Is(const DebugRecord& record, const LogText& text) {
  return Holds(record, text.Text()) && record.level == text.LevelWord();
}

/// A log text on one line.
std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char character : text) {
    if (character == '\t') {
      quoted += "\\t";
    } else if (character == '\n') {
      quoted += "\\n";
    } else {
      quoted += character;
    }
  }
  return quoted + "\"";
}

std::string Quoted(const LogText& text) {
  return std::string(text.LevelWord()) + " " + Quoted(std::string_view(text.Text()));
}

class Judge {
 public:
  explicit Judge(const SessionReport& report) : m_Report(report) {}

  template <typename Value, typename Printer>
  void Compare(const char* what, const Value& expected, const Value& found, const Printer& print) {
    if (expected == found) return;
    Add(std::string(what) + " is " + print(found) + ", not " + print(expected));
  }
  void CompareNumber(const char* what, int expected, int found) {
    Compare(what, expected, found, [](int number) { return std::to_string(number); });
  }

  void CompareValues(const hosts::Handshake& expected, const hosts::Handshake& found) {
    Compare("Fls_Ready", expected.ready, found.ready, Show);
    Compare("Retry_Times", expected.retryTimes, found.retryTimes, Show);
    Compare("Time_Out", expected.timeOut, found.timeOut, Show);
    Compare("Flash_OnGoing", expected.onGoing, found.onGoing, Show);
    Compare("Flash_Progress", expected.progress, found.progress, Show);
    Compare("Flash_Result", expected.result, found.result, Show);
  }

  void RequireInOrder(const std::vector<LogText>& texts) {
    auto from = m_Report.log.begin();
    const LogText* before = nullptr;
    for (const LogText& text : texts) {
      const auto found =
          std::find_if(from, m_Report.log.end(), [&](const auto& record) { return Is(record, text); });
      if (found == m_Report.log.end()) {
        Add("the log lacks " + Quoted(text) + (before != nullptr ? " behind " + Quoted(*before) : ""));
        return;
      }
      from = found + 1;
      before = &text;
    }
  }

  void RequireOnce(const LogText& text) {
    const auto count =
        std::ranges::count_if(m_Report.log, [&](const auto& record) { return Holds(record, text.Text()); });
    if (count != 1) Add("the log has " + Quoted(text) + " " + std::to_string(count) + " times, not once");
    if (count == 1) RequireInOrder({text});
  }

  void Forbid(const char* text) {
    const auto found =
        std::ranges::find_if(m_Report.log, [&](const auto& record) { return Holds(record, text); });
    if (found != m_Report.log.end()) Add("the log must not hold " + Quoted(found->message));
  }

  /// The percentage never falls within an attempt and never passes 100.
  void CheckProgress() {
    long last = 0;
    for (const DebugRecord& record : m_Report.log) {
      if (record.message == kAttemptBegins) last = 0;
      if (!record.message.starts_with(kProgressWritten)) continue;
      const long percent = std::strtol(record.message.c_str() + kProgressWritten.size(), nullptr, 10);
      if (percent > kComplete || percent < last) {
        Add("Flash_Progress went from " + std::to_string(last) + " to " + std::to_string(percent));
      }
      last = percent;
    }
  }

  void Add(std::string difference) { m_Differences.push_back(std::move(difference)); }
  std::vector<std::string> Take() { return std::move(m_Differences); }

 private:
  const SessionReport& m_Report;
  std::vector<std::string> m_Differences;
};

}  // namespace

std::vector<std::string> Differences(const Expectation& expected, const SessionReport& report) {
  Judge judge(report);
  if (!report.finished) judge.Add(report.difficulty);
  if (report.serviceStarted && !expected.serviceStarts) judge.Add("the library began its service");
  judge.CompareValues(expected.values, report.values);
  judge.CompareNumber("number of attempts", expected.attempts, report.attempts);
  judge.CompareNumber("number of download workers that came back",
                      expected.workersBack.value_or(expected.attempts), report.workersBack);
  judge.CompareNumber("number of baseband resets", expected.resets, report.resets);
  judge.Compare("modem", expected.modem, report.modem,
                [](ModemState state) { return std::string(NameOf(state)); });
  judge.Compare("flash memory", expected.memory, report.memory,
                [](Memory memory) { return std::string(NameOf(memory)); });
  judge.CompareNumber("number of images left", expected.imagesLeft, report.imagesLeft);
  judge.RequireInOrder(expected.log);
  for (const LogText& text : expected.once) judge.RequireOnce(text);
  for (const char* text : expected.forbidden) judge.Forbid(text);
  judge.CheckProgress();
  return judge.Take();
}

}  // namespace simulator
