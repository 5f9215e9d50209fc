#include <windows.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <exception>
#include <iostream>
#include <iterator>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hosts/common/completion.h"
#include "hosts/common/help_text.h"
#include "hosts/common/interruption.h"
#include "hosts/common/json_output.h"
#include "hosts/common/owners.h"
#include "hosts/common/problem.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "hosts/common/trusted_folders.h"
#include "hosts/common/wrong_usage.h"
#include "hosts/flashlog/job_table.h"
#include "hosts/flashlog/json_report.h"
#include "hosts/flashlog/log.h"
#include "hosts/flashlog/log_source.h"
#include "hosts/flashlog/news.h"
#include "hosts/flashlog/page.h"
#include "hosts/flashlog/page_file.h"

namespace hosts::flashlog {

namespace {

constexpr char kProgram[] = "corvel_flashlog";
constexpr char kFooter[] =
    "Examples:\n"
    "  corvel_flashlog FlashServiceDebugLogger_DLL.log\n"
    "  corvel_flashlog --html flash.html FlashServiceDebugLogger_DLL.log\n"
    "  corvel_flashlog --html fleet.html collected\\*.log\n"
    "  corvel_flashlog --follow FlashServiceDebugLogger_DLL.log\n"
    "\n"
    "Exit status: 0 all was read (and written), 1 not so, 2 wrong usage.";

constexpr std::size_t kUsualColumns = 80;
/// Behind bytes the next ones are looked for soon, then less and less often.
constexpr DWORD kShortestPauseMs = 1;
constexpr DWORD kLongestPauseMs = 250;
/// Of one log, before the others and Ctrl+C have their turn.
constexpr int kPiecesInARow = 64;
constexpr ULONGLONG kBetweenPagesMs = 2000;

enum class ExitCode : int { Success = 0, Failed = 1, WrongUsage = 2 };

struct Options {
  std::vector<std::string> files;
  std::string html;
  bool json = false;
  bool follow = false;
  PageLimits page;
  std::size_t columns = 0;  ///< 0: as the terminal has
};

/// A log with the place that its bytes come from.
struct Input {
  Input(std::string path, std::optional<PageLimits> page)
      : source(path), log(path == "-" ? "standard input" : std::move(path), page) {}

  LogSource source;
  Log log;
  bool isUnreadable = false;
  bool failureIsTold = false;
  bool absenceIsTold = false;
  bool utf16IsTold = false;
};
using Inputs = std::vector<std::unique_ptr<Input>>;

/// The files that a name with * or ? stands for, which no Windows shell looks up; the name itself when it
/// stands for none.
std::vector<std::string> FilesNamed(const std::string& name) {
  if (name.find_first_of("*?") == std::string::npos) return {name};
  WIN32_FIND_DATAW entry{};
  const HANDLE found = ::FindFirstFileW(ToWide(name).c_str(), &entry);
  if (found == INVALID_HANDLE_VALUE) return {name};
  const OwnedSearch search(found);
  const std::size_t separator = name.find_last_of("\\/:");
  const std::string folder = separator == std::string::npos ? "" : name.substr(0, separator + 1);
  std::vector<std::string> files;
  do {
    if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
      files.push_back(folder + ToUtf8(entry.cFileName));
  } while (::FindNextFileW(search.get(), &entry));
  std::ranges::sort(files);
  return files;
}

std::vector<Log*> LogsOf(const Inputs& inputs) {
  std::vector<Log*> logs;
  for (const auto& input : inputs) {
    if (!input->isUnreadable && !input->log.IsUtf16()) logs.push_back(&input->log);
  }
  return logs;
}

void ReportFailure(const Input& input) {
  const std::string where = input.log.Size() == 0 ? "" : " beyond byte " + std::to_string(input.log.Size());
  Report(kProgram,
         {"log_unreadable",
          input.log.Name() + " cannot be read" + where + ": " + SystemErrorText(input.source.Error()) + ".",
          "Look at the name and at the rights of the file, and whether its place can still be reached."},
         false);
}

void ReportUtf16(const Input& input) {
  Report(kProgram,
         {"log_utf16",
          input.log.Name() + " is a copy in UTF-16, as Windows PowerShell's > writes it; it is not read.",
          "Give the log itself, or a copy that was made with Copy-Item. To turn this one back: "
          "Get-Content COPY | Set-Content LOG."},
         false);
}

/// @return whether there may be more at once.
bool ReadPiece(Input& input) {
  switch (input.source.Read()) {
    case LogSource::Outcome::Bytes:
      input.log.Take(input.source.Bytes());
      return !input.log.IsUtf16();
    case LogSource::Outcome::BeganAnew:
      input.log.Finish(true);
      return true;
    case LogSource::Outcome::Failed:
      input.isUnreadable = input.log.Taken() == 0;
      if (input.source.BrokeOff()) input.log.BreakOff(SystemErrorText(input.source.Error()));
      return false;
    case LogSource::Outcome::Nothing:
      break;
  }
  return false;
}

/// What speaks against writing the page: a log would be lost, or something else that is in its place.
std::optional<Problem> ProblemOfPage(const std::string& page, const std::vector<std::string>& files) {
  const bool isLog = std::ranges::any_of(
      files, [&](const std::string& file) { return file != "-" && IsSameFile(ToWide(page), ToWide(file)); });
  if (isLog) {
    return Problem{"wrong_usage", page + " is to be the page and is a log to read, too: it would be lost.",
                   "Name the page directly behind --html, and the logs behind the page."};
  }
  if (LookAtPageFile(ToWide(page)) != ERROR_FILE_EXISTS) return std::nullopt;
  return Problem{"wrong_usage", page + " is no page of this program, and the page would take its place.",
                 "Name the page directly behind --html, and the logs behind the page. To have a page in that "
                 "place, delete the file that is there."};
}

/// @return the system's error.
DWORD WritePage(const std::string& path, const Inputs& inputs) {
  return WritePageFile(ToWide(path), Page(LogsOf(inputs)));
}

void ReportUnwritable(const std::string& path, DWORD error) {
  Report(kProgram,
         {"page_unwritable", "The page " + path + " cannot be written: " + SystemErrorText(error) + ".",
          "Name another file, or close what has this one open."},
         false);
}

/// @return whether it could be written, which is told otherwise.
bool WriteLastPage(const std::string& path, const Inputs& inputs) {
  const DWORD error = WritePage(path, inputs);
  if (error != ERROR_SUCCESS) ReportUnwritable(path, error);
  return error == ERROR_SUCCESS;
}

nlohmann::ordered_json ReportOn(const Inputs& inputs) {
  const std::vector<Log*> logs = LogsOf(inputs);
  return LogsAsJson({logs.begin(), logs.end()});
}

std::size_t ColumnsFor(const Options& options) {
  if (options.columns != 0) return options.columns;
  const auto visible = VisibleColumns(::GetStdHandle(STD_OUTPUT_HANDLE));
  // A line that fills the last column may wrap.
  return visible ? std::max<std::size_t>(*visible, 2) - 1 : kUsualColumns;
}

void Show(const Options& options, const Inputs& inputs) {
  if (options.json) return PrintJson(ReportOn(inputs), JsonLayout::Indented, kReportVersion);
  bool first = true;
  for (const Log* const log : LogsOf(inputs)) {
    std::cout << (first ? "" : "\n") << JobTable(*log, ColumnsFor(options));
    first = false;
  }
  std::cout << std::flush;
}

/// Reads each log to its end once.
ExitCode ReadAll(const Options& options, Inputs& inputs) {
  bool good = true;
  for (const auto& input : inputs) {
    while (ReadPiece(*input)) {
    }
    input->log.Finish();
    if (!input->isUnreadable && !input->source.BrokeOff() && !input->log.IsUtf16()) continue;
    if (input->log.IsUtf16()) {
      ReportUtf16(*input);
    } else {
      ReportFailure(*input);
    }
    good = false;
  }
  if (LogsOf(inputs).empty()) return ExitCode::Failed;
  if (!options.html.empty()) good = WriteLastPage(options.html, inputs) && good;
  if (options.html.empty() || options.json) Show(options, inputs);
  return good ? ExitCode::Success : ExitCode::Failed;
}

/// Has each log tell what happens in it.
void WatchAll(const Options& options, Inputs& inputs) {
  // Programs that read them want each in a line of its own.
  const std::size_t columns =
      options.columns != 0 ? options.columns : TextColumns(::GetStdHandle(STD_OUTPUT_HANDLE));
  for (const auto& input : inputs) {
    const auto news = std::make_shared<News>(inputs.size() == 1 ? "" : input->log.Name(), columns);
    input->log.Watch([&log = input->log, news](const Record& record, const Place& place) {
      std::cout << news->Behind(log, record, place);
    });
  }
}

std::size_t EndedJobs(const Inputs& inputs) {
  std::size_t ended = 0;
  for (const auto& input : inputs) {
    for (const Job& job : input->log.Jobs()) ended += job.state == JobState::Running ? 0 : 1;
  }
  return ended;
}

/// Goes on reading until it is interrupted, or all pipes have ended.
class Follower {
 public:
  Follower(const Options& options, Inputs& inputs)
      : m_Options(options), m_Inputs(inputs), m_PageIsOld(!options.html.empty()) {}

  ExitCode Run() {
    if (!m_Options.json) WatchAll(m_Options, m_Inputs);
    DWORD pause = 0;
    do {
      const bool news = ReadWhatIsThere();
      TellEnds();
      m_PageIsOld = m_PageIsOld || (news && !m_Options.html.empty());
      KeepPageFresh();
      pause = news ? kShortestPauseMs : std::min(2 * pause + 1, kLongestPauseMs);
    } while (CanGrow() && ::WaitForSingleObject(m_Interruption.Event(), pause) == WAIT_TIMEOUT);
    return End();
  }

 private:
  /// @return whether anything has come.
  bool ReadWhatIsThere() {
    bool news = false;
    for (const auto& input : m_Inputs) {
      const std::uint64_t before = input->log.Taken();
      for (int i = 0; i < kPiecesInARow && input->source.IsReady() && ReadPiece(*input); ++i) {
      }
      news = news || input->log.Taken() != before;
      // One that is not there yet may come.
      input->isUnreadable = false;
      TellFailure(*input);
      TellAbsence(*input);
      TellUtf16(*input);
    }
    std::cout << std::flush;
    return news;
  }

  /// Once: it may last.
  void TellFailure(Input& input) {
    const bool isNew = input.source.BrokeOff() && !input.failureIsTold;
    input.failureIsTold = input.source.BrokeOff();
    if (!isNew) return;
    ReportFailure(input);
    m_PageIsOld = !m_Options.html.empty();
  }

  /// Once: a log that is replaced is not there for a moment, and need not be told of.
  static void TellAbsence(Input& input) {
    if (input.source.HasBeenThere() || std::exchange(input.absenceIsTold, true)) return;
    Report(kProgram,
           {"log_absent",
            input.log.Name() + " cannot be opened: " + SystemErrorText(input.source.Error()) +
                ". It is waited for.",
            "Look at the name and at the rights of the file, unless it is still to come; Ctrl+C ends."},
           false);
  }

  /// Once: a log in its place may be one of the usual kind.
  static void TellUtf16(Input& input) {
    const bool isNew = input.log.IsUtf16() && !input.utf16IsTold;
    input.utf16IsTold = input.log.IsUtf16();
    if (isNew) ReportUtf16(input);
  }

  void TellEnds() {
    const std::size_t ended = EndedJobs(m_Inputs);
    if (!m_Options.json || ended == std::exchange(m_Ended, ended)) return;
    PrintJson(ReportOn(m_Inputs), JsonLayout::OneLine, kReportVersion);
  }

  void KeepPageFresh() {
    if (!m_PageIsOld || ::GetTickCount64() - m_LastPage < kBetweenPagesMs) return;
    const DWORD error = WritePage(m_Options.html, m_Inputs);
    // Somebody may hold the page for a moment.
    if (error != ERROR_SUCCESS && m_PageError == ERROR_SUCCESS) ReportUnwritable(m_Options.html, error);
    m_PageError = error;
    m_PageIsOld = error != ERROR_SUCCESS;
    m_LastPage = ::GetTickCount64();
  }

  bool CanGrow() const {
    return std::ranges::any_of(m_Inputs, [](const auto& input) { return input->source.CanGrow(); });
  }

  ExitCode End() {
    bool good = true;
    for (const auto& input : m_Inputs) {
      input->log.Finish();
      good = good && input->source.HasBeenThere() && !input->source.BrokeOff() && !input->log.IsUtf16();
    }
    if (!m_Options.html.empty()) good = WriteLastPage(m_Options.html, m_Inputs) && good;
    return good ? ExitCode::Success : ExitCode::Failed;
  }

  const Options& m_Options;
  Inputs& m_Inputs;
  const Interruption m_Interruption;
  bool m_PageIsOld;
  DWORD m_PageError = ERROR_SUCCESS;
  ULONGLONG m_LastPage = 0;
  std::size_t m_Ended = 0;
};

/// Without a log the program reads what is typed, which looks as if it did nothing.
void TellOfConsole() {
  DWORD mode = 0;
  if (!::GetConsoleMode(::GetStdHandle(STD_INPUT_HANDLE), &mode)) return;
  Report(kProgram,
         {"no_log_named", "No log is named, so standard input is read: what is typed here, up to Ctrl+Z.",
          "Name a log to see its flashes: corvel_flashlog FlashServiceDebugLogger_DLL.log; Ctrl+C ends."},
         false);
}

int Run(std::vector<std::string> words) {
  CLI::App program{"Shows what a debug log of the flash library tells: its flashes, and why one failed"};
  program.name(kProgram);
  WriteHelpForWindow(program);
  program.set_version_flag("-V,--version", std::string(kProgram) + " " + CORVEL_VERSION);
  program.footer(kFooter);
  // Paths may begin with a slash.
  program.allow_windows_style_options(false);
  Options options;
  program.add_option("FILE", options.files, "Debug logs, several side by side; none or - is standard input");
  program.add_option("--html", options.html, "Write a page with timelines and records to this file")
      ->type_name("FILE");
  program.add_flag("--json", options.json, "Print JSON on standard output and nothing else");
  program.add_flag("--follow", options.follow,
                   "Tell what comes until Ctrl+C; with --json a document behind each end of a flash");
  program
      .add_option(
          "--records", options.page.others,
          "How many records a page shows of each log besides errors, warnings and stages, whatever they "
          "take; without it 8000 at most, in a page of at most 5 MB of a log")
      ->type_name("COUNT")
      ->check(NumberFrom(0, 1'000'000));
  program
      .add_option("--width", options.columns,
                  "Columns of the table and of what --follow tells (default: the window's)")
      ->type_name("COUNT")
      ->check(NumberFrom(20, 1000));
  std::string shell;
  AddShell(program, "--completion", shell)
      .type_name("SHELL")
      ->description("Print a script that lets that shell, powershell, complete the options");
  try {
    // The parser takes them from the back.
    std::ranges::reverse(words);
    program.parse(std::move(words));
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return program.exit(error);
    Report(kProgram, WrongUsage(program, error), false);
    return static_cast<int>(ExitCode::WrongUsage);
  }
  if (!shell.empty()) {
    std::cout << PowerShellCompletion(program, "--completion") << std::flush;
    return static_cast<int>(ExitCode::Success);
  }
  if (options.files.empty()) {
    TellOfConsole();
    options.files.emplace_back("-");
  }

  if (program.count("--records") != 0) options.page.bytes = std::numeric_limits<std::size_t>::max();
  const auto page = options.html.empty() ? std::nullopt : std::optional(options.page);
  std::vector<std::string> files;
  for (const std::string& name : options.files)
    std::ranges::copy(FilesNamed(name), std::back_inserter(files));
  if (!options.html.empty()) {
    if (const auto problem = ProblemOfPage(options.html, files)) {
      Report(kProgram, *problem, false);
      return static_cast<int>(ExitCode::WrongUsage);
    }
  }
  Inputs inputs;
  for (const std::string& file : files) inputs.push_back(std::make_unique<Input>(file, page));
  return static_cast<int>(options.follow ? Follower(options, inputs).Run() : ReadAll(options, inputs));
}

int RunProgram() {
  const Utf8Terminal terminal;
  try {
    LoadFromTrustedFoldersOnly();
    return Run(CommandLineWords());
  } catch (const std::exception& error) {
    Report(kProgram,
           {"internal", std::string("Something unforeseen went wrong: ") + error.what() + ".", "Try again."},
           false);
    return static_cast<int>(ExitCode::Failed);
  }
}

}  // namespace

}  // namespace hosts::flashlog

int main() {
  return hosts::flashlog::RunProgram();
}
