#include "hosts/cmdline/verbs.h"

#include <charconv>
#include <iostream>
#include <system_error>

#include "hosts/cmdline/journal.h"
#include "hosts/common/completion.h"
#include "hosts/common/handshake.h"
#include "hosts/common/text.h"
#include "hosts/common/wrong_usage.h"

namespace hosts {

namespace {

constexpr char kExitCodes[] =
    "Exit status: 0 flashed (or nothing wrong), 1 flash failed, 2 wrong usage, 3 no firmware images, 4 not "
    "ready, 5 interrupted or timed out.";

/// 30 days: more than anybody waits for a controlling program.
constexpr unsigned int kLongestTimeLimit = 30 * 24 * 60 * 60;

/// @return what is wrong with a number of seconds; empty when it is one.
std::string ComplaintAboutSeconds(const std::string& text) {
  unsigned int seconds = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds);
  if (error == std::errc() && stop == end && seconds > 0 && seconds <= kLongestTimeLimit) return {};
  return "\"" + text + "\" is no number of seconds. Give a whole number from 1 to " +
         std::to_string(kLongestTimeLimit) + " (30 days), or leave it out for no limit.";
}

// --- Options that several verbs have ----------------------------------------------------------------------

void AddJson(CLI::App& verb, bool& json) {
  verb.add_flag("--json", json, "Print JSON on standard output and nothing else");
}

void AddNoProgress(CLI::App& verb, bool& progress) {
  verb.add_flag_callback(
      "--no-progress", [&progress] { progress = false; }, "Show no progress");
}

void AddExpect(CLI::App& verb, std::string& expect) {
  verb.add_option("--expect", expect,
                  "Take only images whose SHA-256 is in that file, as sha256sum writes it")
      ->type_name("FILE");
}

// --- The verbs --------------------------------------------------------------------------------------------

void AddFlash(CLI::App& verb, VerbOptions& all) {
  FlashOptions& options = all.flash;
  AddJson(verb, options.json);
  CLI::Option* const images =
      verb.add_option("--images", options.images,
                      "Flash copies of these images, a folder of them or files, which stay where they are")
          ->type_name("FOLDER | FILE");
  verb.add_option("--ipc", options.ipc, "Bus of the modem (default: [IPCTYPE] of the configuration)")
      ->check(CLI::IsMember({"usb", "pcie"}));
  verb.add_option("--trace", options.trace, "0 writes no debug log")
      ->type_name("0 | 1")
      ->check(NumberFrom(0, 1))
      ->capture_default_str();
  CLI::Option* const wait =
      verb.add_flag("--wait-for-controller", options.waitForController,
                    "Wait until another program sets " + ToUtf8(kReadyValue) + ", instead of setting it");
  verb.add_option("--timeout", options.timeoutSeconds,
                  "Give up after that many seconds, 1 or more (default: no limit)")
      ->type_name("SECONDS")
      ->check(ComplaintAboutSeconds);
  // What a controlling program brings meanwhile would be flashed unseen.
  AddExpect(verb, options.expect);
  verb.get_option("--expect")->excludes(wait);
  images->excludes(wait);
  verb.add_option("--min-battery", options.minBattery,
                  "Refuse on battery when it is charged to less than that many percent")
      ->type_name("PERCENT")
      ->check(CLI::Range(1u, 100u));
  AddNoProgress(verb, options.progress);
  verb.add_flag("--quiet", options.quiet, "Show no progress, and do not name the images at the start");
}

void AddStatus(CLI::App& verb, VerbOptions& all) {
  StatusOptions& options = all.status;
  AddJson(verb, options.json);
  CLI::Option* const watch =
      verb.add_flag("--watch", options.watch, "Show every change until Ctrl+C; with --json one line each");
  CLI::Option* const service = verb.add_flag("--service", options.service,
                                             "Show the key of the service instead of the command line's");
  AddNoProgress(verb, options.progress);
  verb.add_flag("--history", options.history, "Show how the last flashes ended, the service's too")
      ->excludes(watch)
      ->excludes(service);
}

void AddCheck(CLI::App& verb, VerbOptions& all) {
  CheckOptions& options = all.check;
  AddJson(verb, options.json);
  verb.add_flag("--strict", options.strict, "Let warnings count as errors");
  verb.add_flag("--watch", options.watch, "Look again and again until a flash could begin, or Ctrl+C");
  AddExpect(verb, options.expect);
}

void AddImages(CLI::App& verb, VerbOptions& all) {
  ImagesOptions& options = all.images;
  AddJson(verb, options.json);
  verb.add_flag_callback(
      "--no-digests", [&options] { options.digests = false; },
      "Leave the images closed, and tell no digests");
}

void AddDoctor(CLI::App& verb, VerbOptions& all) {
  DoctorOptions& options = all.doctor;
  AddJson(verb, options.json);
  CLI::Option* const output =
      verb.add_option("--output", options.output,
                      "Name of the archive, which must not be there (default: a dated one in this folder)")
          ->type_name("FILE");
  verb.add_flag("--list", options.list, "Only tell what goes into the archive")->excludes(output);
}

void AddCompletion(CLI::App& verb, VerbOptions& all) {
  AddShell(verb, "SHELL", all.shell).required();
}

ExitCode PrintCompletion(const CLI::App& program) {
  std::cout << PowerShellCompletion(program, "completion") << std::flush;
  return ExitCode::Success;
}

struct Verb {
  const char* name;
  const char* description;
  const char* examples;
  void (*addOptions)(CLI::App& verb, VerbOptions& options);
  ExitCode (*run)(const CLI::App& program, const VerbOptions& options);
};
constexpr Verb kVerbs[] = {
    {"flash", "Flash the images of the configured folder, which are deleted at the end",
     "  corvel_cmdline flash\n"
     "  corvel_cmdline flash --images D:\\Firmware\\2.1 --expect D:\\SHA256SUMS\n"
     "  corvel_cmdline flash --images modem.fls nvm.fls --min-battery 40\n"
     "  corvel_cmdline flash --json --timeout 1200\n",
     AddFlash, [](const CLI::App&, const VerbOptions& options) { return RunFlash(options.flash); }},
    {"status", "Show the handshake, the modem and the images",
     "  corvel_cmdline status\n"
     "  corvel_cmdline status --watch --service\n"
     "  corvel_cmdline status --history --json\n",
     AddStatus, [](const CLI::App&, const VerbOptions& options) { return RunStatus(options.status); }},
    {"check", "Tell whether a flash could begin, without touching the modem",
     "  corvel_cmdline check\n"
     "  corvel_cmdline check --strict --expect SHA256SUMS\n"
     "  corvel_cmdline check --watch && corvel_cmdline flash\n",
     AddCheck, [](const CLI::App&, const VerbOptions& options) { return RunCheck(options.check); }},
    {"images", "List the images of the configured folder, and which of them a flash would take",
     "  corvel_cmdline images\n"
     "  corvel_cmdline images --json\n",
     AddImages, [](const CLI::App&, const VerbOptions& options) { return RunImages(options.images); }},
    {"doctor", "Collect for support what tells why a flash fails, in one ZIP archive",
     "  corvel_cmdline doctor --list\n"
     "  corvel_cmdline doctor --output D:\\for_support.zip\n",
     AddDoctor, [](const CLI::App&, const VerbOptions& options) { return RunDoctor(options.doctor); }},
    {"completion", "Print a script that lets a shell complete this program's verbs and options",
     "  corvel_cmdline completion powershell | Out-String | Invoke-Expression\n", AddCompletion,
     [](const CLI::App& program, const VerbOptions&) { return PrintCompletion(program); }},
};

}  // namespace

void AddVerbs(CLI::App& program, VerbOptions& options) {
  program.footer(std::string("\"corvel_cmdline help VERB\" tells the options of a verb.\n\n") + kExitCodes);
  program.require_subcommand(1);
  for (const Verb& each : kVerbs) {
    CLI::App* const verb = program.add_subcommand(each.name, each.description);
    verb->footer(std::string("Examples:\n") + each.examples + "\n" + kExitCodes);
    each.addOptions(*verb, options);
    verb->add_option("--log", options.log, "Write what this program tells to the end of that file, too")
        ->type_name("FILE");
    verb->add_flag("-v,--verbose", options.verbose, "Tell each step on standard error");
  }
}

ExitCode RunVerb(const CLI::App& program, const VerbOptions& options) {
  if (options.verbose) ShowDetails();
  for (const Verb& each : kVerbs) {
    if (program.got_subcommand(each.name)) return each.run(program, options);
  }
  return ExitCode::WrongUsage;
}

}  // namespace hosts
