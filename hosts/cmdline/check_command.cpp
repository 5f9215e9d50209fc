#include <algorithm>
#include <cstddef>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "hosts/cmdline/commands.h"
#include "hosts/cmdline/preflight.h"
#include "hosts/cmdline/surroundings.h"
#include "hosts/common/json_output.h"
#include "hosts/common/modem_presence.h"
#include "hosts/common/who_flashes.h"
#include "toolkit/toolkit.h"

namespace hosts {

namespace {

constexpr std::size_t kVerdictColumn = 9;
constexpr std::size_t kSubjectColumn = 18;

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

/// A missing modem is no error: a flash begins by bringing it back.
std::vector<Finding> LookAtModem() {
  const ModemPresence presence = LookForModem();
  const bool present = presence.mode == ModemMode::Mbim || presence.mode == ModemMode::FlashPort;
  return {presence.resetDriver
              ? Finding{"reset driver", Verdict::Ok, "its flash interface is present", ""}
              : Finding{"reset driver", Verdict::Warning, "its flash interface is absent",
                        "Install the modem's USB driver: without it a modem that hangs cannot be reset.",
                        "no_reset_driver"},
          present
              ? Finding{"modem", Verdict::Ok, NameOf(presence.mode), ""}
              : Finding{"modem", Verdict::Warning, NameOf(presence.mode),
                        "Look at the device manager; a flash tries a baseband reset first.", "modem_absent"}};
}

/// Both, because they do not know of each other: they may flash at the same time.
std::vector<Finding> LookAtOtherHosts() {
  const auto found = [](const char* subject, const std::optional<Obstacle>& obstacle) {
    return obstacle ? Finding{subject, Verdict::Error, obstacle->message, obstacle->whatToDo, obstacle->code}
                    : Finding{subject, Verdict::Ok, "not in the way", ""};
  };
  return {found("command line", FindFlashingCommandLine()),
          found("flash service", FindServiceInTheWay(CommandLineKey()))};
}

bool Holds(const std::vector<Finding>& findings, std::string_view code) {
  return std::ranges::find(findings, code, &Finding::code) != findings.end();
}

std::string Padded(std::string_view text, std::size_t width) {
  return std::string(text) + std::string(width - text.size(), ' ');
}

void Print(const std::vector<Finding>& findings) {
  for (const Finding& finding : findings) {
    std::cout << Padded(NameOf(finding.verdict), kVerdictColumn) << Padded(finding.subject, kSubjectColumn)
              << finding.message << "\n";
    if (!finding.whatToDo.empty())
      std::cout << Padded("", kVerdictColumn + kSubjectColumn) << finding.whatToDo << "\n";
  }
  std::cout << std::flush;
}

nlohmann::ordered_json AsJson(const std::vector<Finding>& findings, const Finding* obstacle) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const Finding& finding : findings) {
    list.push_back({{"subject", finding.subject},
                    {"verdict", NameOf(finding.verdict)},
                    {"code", finding.code},
                    {"message", finding.message},
                    {"what_to_do", finding.whatToDo}});
  }
  nlohmann::ordered_json document{{"ready", obstacle == nullptr}, {"findings", list}};
  return obstacle == nullptr ? document : AsJson(ProblemOf(*obstacle), document);
}

/// What decides the exit status: the first error, or else, if they count too, the first warning.
const Finding* FindObstacle(const std::vector<Finding>& findings, bool strict) {
  const Finding* const error = FirstOf(findings, Verdict::Error);
  return error == nullptr && strict ? FirstOf(findings, Verdict::Warning) : error;
}

}  // namespace

ExitCode RunCheck(const CheckOptions& options) {
  // Looking must not empty the log of the last flash.
  ToolKit::TurnLoggingOff();
  std::vector<Finding> findings = LookAtOtherHosts();
  const LeftAlone leftAlone{.configuration = Holds(findings, kServiceStarts),
                            .images = FirstOf(findings, Verdict::Error) != nullptr};
  for (Finding& finding : LookBeforeFlash({.expect = options.expect}, leftAlone))
    findings.push_back(std::move(finding));
  for (Finding& finding : LookAtModem()) findings.push_back(std::move(finding));

  const Finding* const obstacle = FindObstacle(findings, options.strict);
  if (options.json) {
    PrintJson(AsJson(findings, obstacle));
  } else {
    Print(findings);
  }
  return obstacle == nullptr ? ExitCode::Success : obstacle->exitCode;
}

}  // namespace hosts
