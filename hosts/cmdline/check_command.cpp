#include <windows.h>

#include <algorithm>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "hosts/cmdline/check_report.h"
#include "hosts/cmdline/commands.h"
#include "hosts/cmdline/preflight.h"
#include "hosts/cmdline/surroundings.h"
#include "hosts/common/interruption.h"
#include "hosts/common/json_output.h"
#include "hosts/common/library_configuration.h"
#include "hosts/common/modem_presence.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "hosts/common/who_flashes.h"
#include "hosts/common/write_access.h"
#include "toolkit/toolkit.h"

namespace hosts {

namespace {

/// Seldom enough for a host that begins to flash between two looks, which open what it needs for itself.
constexpr DWORD kLookAgainMs = 2000;

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

/// Nothing to say while administrators and the system alone may change what a flash uses.
std::vector<Finding> LookAtWriters(bool configurationIsLeftAlone) {
  std::wstring images;
  if (!configurationIsLeftAlone) {
    if (const auto configuration = LibraryConfiguration::Read(ConfigurationPath())) {
      images = configuration->FirmwareFolder();
    }
  }
  std::string open;
  for (const OpenPlace& place : FindOpenPlaces(ProgramFolder(), images)) {
    open += (open.empty() ? "" : "; ") + ToUtf8(place.path) + " " + place.why;
  }
  if (open.empty()) return {};
  return {Finding{
      "permissions", Verdict::Warning, std::move(open),
      "Whoever changes that has the rights of the service, or flashes an image of their own: leave it "
      "to administrators and the system, for the folders of programs and images by \"corvel_service "
      "install\".",
      "writable_by_users"}};
}

bool Holds(const std::vector<Finding>& findings, std::string_view code) {
  return std::ranges::find(findings, code, &Finding::code) != findings.end();
}

void Show(const CheckReport& report) {
  const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
  std::cout << CheckText(report, TextColumns(output), TakesColours(output) ? Colours::Ansi : Colours::None)
            << std::flush;
}

ExitCode EndOf(const CheckReport& report) {
  const Finding* const obstacle = report.Obstacle();
  return obstacle == nullptr ? ExitCode::Success : obstacle->exitCode;
}

/// Shows every change until a flash could begin.
ExitCode Watch(const CheckOptions& options) {
  const Interruption interruption;
  nlohmann::ordered_json shown;
  for (;;) {
    const CheckReport report = Check(options);
    nlohmann::ordered_json document = AsJson(report);
    if (document != shown) {
      if (options.json) {
        PrintJson(document, JsonLayout::OneLine);
      } else {
        std::cout << (shown.is_null() ? "" : "\n");
        Show(report);
      }
      shown = std::move(document);
    }
    if (report.Obstacle() == nullptr) return ExitCode::Success;
    if (::WaitForSingleObject(interruption.Event(), kLookAgainMs) == WAIT_OBJECT_0)
      return ExitCode::Interrupted;
  }
}

}  // namespace

CheckReport Check(const CheckOptions& options) {
  CheckReport report{.findings = LookAtOtherHosts(), .strict = options.strict};
  std::vector<Finding>& findings = report.findings;
  const LeftAlone leftAlone{.configuration = Holds(findings, kServiceStarts),
                            .images = FirstOf(findings, Verdict::Error) != nullptr};
  for (Finding& finding : LookBeforeFlash({.expect = options.expect}, leftAlone))
    findings.push_back(std::move(finding));
  for (Finding& finding : LookAtWriters(leftAlone.configuration)) findings.push_back(std::move(finding));
  for (Finding& finding : LookAtModem()) findings.push_back(std::move(finding));
  return report;
}

ExitCode RunCheck(const CheckOptions& options) {
  // Looking must not empty the log of the last flash.
  ToolKit::TurnLoggingOff();
  if (options.watch) return Watch(options);
  const CheckReport report = Check(options);
  if (options.json) {
    PrintJson(AsJson(report));
  } else {
    Show(report);
  }
  return EndOf(report);
}

}  // namespace hosts
