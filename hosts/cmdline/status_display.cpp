#include "hosts/cmdline/status_display.h"

#include <windows.h>

#include <algorithm>
#include <iostream>
#include <optional>
#include <utility>

#include "hosts/common/json_output.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"

namespace hosts {

void StatusDisplay::Show(const Status& now) {
  nlohmann::ordered_json document = DocumentOf(now);
  if (document != m_Shown) {
    m_Line.Finish();
    Print(now, document);
    m_Shown = std::move(document);
  }
  if (m_Form != StatusForm::LiveText) return;
  if (now.job) {
    Draw(*now.job);
  } else {
    m_Line.Finish();
  }
}

/// What changes all the time is left to the live line.
nlohmann::ordered_json StatusDisplay::DocumentOf(const Status& now) const {
  nlohmann::ordered_json document = AsJson(now);
  if (m_Form != StatusForm::LiveText || document["job"].is_null()) return document;
  document["job"].erase("percent");
  document["values"].erase(ToUtf8(kProgressValue));
  return document;
}

void StatusDisplay::Print(const Status& now, const nlohmann::ordered_json& document) const {
  if (m_Form == StatusForm::Json) {
    PrintJson(document, JsonLayout::OneLine);
  } else {
    PrintStatus(now);
  }
}

void StatusDisplay::Draw(const RunningJob& job) {
  const flashlog::Milliseconds time = LocalTime();
  const std::optional<TimedStep>& step =
      job.stageTimes && job.stageTimes->limit != 0 ? job.stageTimes : job.attemptTimes;
  const std::optional<TimedStep>& begun = job.attemptTimes ? job.attemptTimes : job.stageTimes;
  m_Line.Draw({.stage = job.stage,
               .percent = job.percent,
               .attempt = job.attempt,
               .elapsedSeconds = begun ? std::max<long long>(0, (time - begun->begin) / 1000) : 0,
               .remainingSeconds = step ? step->SecondsLeft(time) : std::nullopt});
}

void PrintStatus(const Status& status) {
  std::cout << StatusText(status, TextColumns(::GetStdHandle(STD_OUTPUT_HANDLE))) << std::flush;
}

}  // namespace hosts
