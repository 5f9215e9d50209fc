#pragma once

#include <nlohmann/json.hpp>

#include "hosts/cmdline/progress_line.h"
#include "hosts/cmdline/status_report.h"

namespace hosts {

/// How a status that is watched is shown.
enum class StatusForm {
  Text,
  LiveText,  ///< on a terminal, beneath which a line tells of a running job and is written over
  Json,      ///< a document per line
};

/// Shows a status again whenever something of it has changed.
class StatusDisplay {
 public:
  explicit StatusDisplay(StatusForm form) : m_Form(form) {}

  void Show(const Status& now);
  /// Ends the live line, so that what follows begins on a line of its own.
  void Finish() { m_Line.Finish(); }

 private:
  nlohmann::ordered_json DocumentOf(const Status& now) const;
  void Print(const Status& now, const nlohmann::ordered_json& document) const;
  void Draw(const RunningJob& job);

  StatusForm m_Form;
  LiveOutput m_Line;
  nlohmann::ordered_json m_Shown;
};

/// On standard output, in lines as long as its window is wide.
void PrintStatus(const Status& status);

}  // namespace hosts
