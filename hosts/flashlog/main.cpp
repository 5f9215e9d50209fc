#include <windows.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hosts/common/interruption.h"
#include "hosts/common/json_output.h"
#include "hosts/common/owners.h"
#include "hosts/common/problem.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "hosts/common/trusted_folders.h"
#include "hosts/flashlog/job_table.h"
#include "hosts/flashlog/json_report.h"
#include "hosts/flashlog/log.h"
#include "hosts/flashlog/log_source.h"
#include "hosts/flashlog/news.h"
#include "hosts/flashlog/page.h"

namespace hosts::flashlog {

namespace {

constexpr char kProgram[] = "corvel_flashlog";
constexpr char kFooter[] =
    "Examples:\n"
    "  corvel_flashlog FlashServiceDebugLogger_DLL.log\n"
    "  corvel_flashlog --html flash.html FlashServiceDebugLogger_DLL.log\n"
    "  corvel_flashlog --html fleet.html collected\\*.log\n"
    "  corvel_flashlog --follow FlashServiceDebugLogger_DLL.log\n"
    "Exit status: 0 all was read (and written), 1 not so, 2 wrong usage.";

constexpr std::size_t kUsualColumns = 80;
constexpr std::size_t kUsualOthers = 8000;
constexpr DWORD kLookAgainMs = 250;
constexpr ULONGLONG kBetweenPagesMs = 2000;

enum class ExitCode : int { Success = 0, Failed = 1, WrongUsage = 2 };

struct Options {
  std::vector<std::string> files;
  std::string html;
  bool json = false;
  bool follow = false;
  std::size_t others = kUsualOthers;
  std::size_t columns = 0;  ///< 0: as the terminal has
};

/// A log with the place that its bytes come from.
struct Input {
  Input(std::string path, std::optional<std::size_t> others)
      : source(path), log(path == "-" ? "standard input" : std::move(path), others) {}

  LogSource source;
  Log log;
  bool isUnreadable = false;
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
    if (!input->isUnreadable) logs.push_back(&input->log);
  }
  return logs;
}

void ReportUnreadable(const Input& input) {
  Report(
      kProgram,
      {"log_unreadable", input.log.Name() + " cannot be read: " + SystemErrorText(input.source.Error()) + ".",
       "Look at the name and at the rights of the file."},
      false);
}

/// Reads what there is at present. @return whether anything has come.
bool ReadOn(Input& input) {
  bool news = false;
  for (;;) {
    switch (input.source.Read()) {
      case LogSource::Outcome::Bytes:
        input.log.Take(input.source.Bytes());
        news = true;
        break;
      case LogSource::Outcome::BeganAnew:
        input.log.Finish(true);
        break;
      case LogSource::Outcome::Failed:
        input.isUnreadable = input.log.Size() == 0;
        return news;
      case LogSource::Outcome::Nothing:
        return news;
    }
  }
}

/// @return the system's error.
DWORD WriteWhole(const std::wstring& path, const std::string& text) {
  const HANDLE handle =
      ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return ::GetLastError();
  const OwnedHandle file(handle);
  DWORD written = 0;
  const BOOL good = ::WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
  if (!good) return ::GetLastError();
  return written == text.size() ? ERROR_SUCCESS : ERROR_DISK_FULL;
}

/// Never half a page: somebody may have it open. @return whether it could be written.
bool WritePage(const std::string& path, const Inputs& inputs) {
  const std::wstring file = ToWide(path);
  const std::wstring draft = file + L".new";
  DWORD error = WriteWhole(draft, Page(LogsOf(inputs)));
  if (error == ERROR_SUCCESS && !::MoveFileExW(draft.c_str(), file.c_str(), MOVEFILE_REPLACE_EXISTING)) {
    error = ::GetLastError();
  }
  if (error == ERROR_SUCCESS) return true;
  Report(kProgram,
         {"page_unwritable", "The page " + path + " cannot be written: " + SystemErrorText(error) + ".",
          "Name another file, or close what has this one open."},
         false);
  return false;
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
    ReadOn(*input);
    input->log.Finish();
    if (!input->isUnreadable) continue;
    ReportUnreadable(*input);
    good = false;
  }
  if (LogsOf(inputs).empty()) return ExitCode::Failed;
  if (!options.html.empty()) good = WritePage(options.html, inputs) && good;
  if (options.html.empty() || options.json) Show(options, inputs);
  return good ? ExitCode::Success : ExitCode::Failed;
}

/// Has each log tell what happens in it.
void WatchAll(Inputs& inputs) {
  for (const auto& input : inputs) {
    const auto news = std::make_shared<News>(inputs.size() == 1 ? "" : input->log.Name());
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
ExitCode Follow(const Options& options, Inputs& inputs) {
  const Interruption interruption;
  if (!options.json) WatchAll(inputs);
  bool pageIsOld = !options.html.empty();
  ULONGLONG lastPage = 0;
  std::size_t told = 0;
  for (bool canGrow = true; canGrow;) {
    bool news = false;
    canGrow = false;
    for (const auto& input : inputs) {
      news = ReadOn(*input) || news;
      // One that is not there yet may come.
      input->isUnreadable = false;
      canGrow = canGrow || input->source.CanGrow();
    }
    std::cout << std::flush;
    pageIsOld = !options.html.empty() && (pageIsOld || news);
    const std::size_t ended = EndedJobs(inputs);
    if (options.json && ended != std::exchange(told, ended)) {
      PrintJson(ReportOn(inputs), JsonLayout::OneLine, kReportVersion);
    }
    if (pageIsOld && ::GetTickCount64() - lastPage >= kBetweenPagesMs) {
      if (!WritePage(options.html, inputs)) return ExitCode::Failed;
      lastPage = ::GetTickCount64();
      pageIsOld = false;
    }
    if (canGrow && ::WaitForSingleObject(interruption.Event(), kLookAgainMs) == WAIT_OBJECT_0) break;
  }
  for (const auto& input : inputs) input->log.Finish();
  if (!options.html.empty() && !WritePage(options.html, inputs)) return ExitCode::Failed;
  return ExitCode::Success;
}

int Run(std::vector<std::string> words) {
  CLI::App program{"Shows what a debug log of the flash library tells: its flashes, and why one failed."};
  program.name(kProgram);
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
      .add_option("--records", options.others,
                  "How many records a page shows of each log besides errors, warnings and stages")
      ->check(CLI::Range(0, 1'000'000))
      ->capture_default_str();
  program.add_option("--width", options.columns, "Columns of the table (default: the window's, or 80)")
      ->check(CLI::Range(20, 1000));
  try {
    // The parser takes them from the back.
    std::ranges::reverse(words);
    program.parse(std::move(words));
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return program.exit(error);
    Report(kProgram, {"wrong_usage", error.what(), "See \"corvel_flashlog --help\"."}, false);
    return static_cast<int>(ExitCode::WrongUsage);
  }
  if (options.files.empty()) options.files.emplace_back("-");

  const auto others = options.html.empty() ? std::nullopt : std::optional(options.others);
  Inputs inputs;
  for (const std::string& name : options.files) {
    for (const std::string& file : FilesNamed(name)) inputs.push_back(std::make_unique<Input>(file, others));
  }
  return static_cast<int>(options.follow ? Follow(options, inputs) : ReadAll(options, inputs));
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
