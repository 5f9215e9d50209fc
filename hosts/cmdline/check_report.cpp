#include "hosts/cmdline/check_report.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

#include "hosts/common/text_layout.h"

namespace hosts {

namespace {

constexpr std::size_t kVerdictColumn = 9;
constexpr std::size_t kSubjectColumn = 18;
/// In a narrower window message and advice stand below the subject.
constexpr std::size_t kTableColumns = 64;

const char* NameOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::Ok:
      return "ok";
    case Verdict::Warning:
      return "warning";
    case Verdict::Error:
      return "error";
  }
  return "error";
}

std::string Padded(std::string_view text, std::size_t width) {
  return std::string(text) + std::string(width - std::min(width, text.size()), ' ');
}

std::string FindingText(const Finding& finding, std::size_t columns, Colours colours) {
  const std::string verdict = NameOf(finding.verdict);
  const bool asTable = columns >= kTableColumns;
  const std::string indent(asTable ? kVerdictColumn + kSubjectColumn : 2, ' ');
  std::string text =
      asTable ? Wrapped(finding.message, columns,
                        Padded(verdict, kVerdictColumn) + Padded(finding.subject, kSubjectColumn), indent)
              : Wrapped(verdict + ": " + finding.subject, columns, "", indent) +
                    Wrapped(finding.message, columns, indent, indent);
  if (!finding.whatToDo.empty()) text += Wrapped(finding.whatToDo, columns, indent, indent);
  return WithVerdict(std::move(text), verdict, finding.verdict, colours);
}

std::string Counted(std::ptrdiff_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string CountsText(const CheckReport& report) {
  const std::ptrdiff_t errors = std::ranges::count(report.findings, Verdict::Error, &Finding::verdict);
  const std::ptrdiff_t warnings = std::ranges::count(report.findings, Verdict::Warning, &Finding::verdict);
  std::string text = errors == 0 ? "" : Counted(errors, "error");
  if (warnings != 0) text += (text.empty() ? "" : ", ") + Counted(warnings, "warning");
  return text;
}

std::string VerdictText(const CheckReport& report, std::size_t columns, Colours colours) {
  const std::string counts = CountsText(report);
  const Finding* const obstacle = report.Obstacle();
  if (obstacle != nullptr) {
    const std::string text =
        "Not ready: " + counts + ". Begin with what is said of \"" + obstacle->subject + "\".";
    return WithVerdict(Wrapped(text, columns, "", "  "), "Not ready", Verdict::Error, colours);
  }
  const std::string text = "Ready: a flash can begin" + (counts.empty() ? "" : ", with " + counts) + ".";
  return WithVerdict(Wrapped(text, columns, "", "  "), "Ready",
                     counts.empty() ? Verdict::Ok : Verdict::Warning, colours);
}

}  // namespace

const Finding* CheckReport::Obstacle() const {
  const Finding* const error = FirstOf(findings, Verdict::Error);
  return error == nullptr && strict ? FirstOf(findings, Verdict::Warning) : error;
}

std::string CheckText(const CheckReport& report, std::size_t columns, Colours colours) {
  std::string text;
  for (const Finding& finding : report.findings) text += FindingText(finding, columns, colours);
  return text + VerdictText(report, columns, colours);
}

nlohmann::ordered_json AsJson(const CheckReport& report) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const Finding& finding : report.findings) {
    list.push_back({{"subject", finding.subject},
                    {"verdict", NameOf(finding.verdict)},
                    {"code", finding.code},
                    {"message", finding.message},
                    {"what_to_do", finding.whatToDo}});
  }
  const Finding* const obstacle = report.Obstacle();
  nlohmann::ordered_json document{{"ready", obstacle == nullptr}, {"findings", list}};
  return obstacle == nullptr ? document : AsJson(ProblemOf(*obstacle), document);
}

}  // namespace hosts
