#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "hosts/cmdline/chosen_images.h"
#include "hosts/cmdline/commands.h"
#include "hosts/cmdline/flash_end.h"
#include "hosts/cmdline/journal.h"
#include "hosts/cmdline/logged_cause.h"
#include "hosts/cmdline/preflight.h"
#include "hosts/cmdline/problems.h"
#include "hosts/cmdline/progress_line.h"
#include "hosts/cmdline/surroundings.h"
#include "hosts/common/facts.h"
#include "hosts/common/interruption.h"
#include "hosts/common/job_record.h"
#include "hosts/common/json_output.h"
#include "hosts/common/kept_logs.h"
#include "hosts/common/library_configuration.h"
#include "hosts/common/owners.h"
#include "hosts/common/power.h"
#include "hosts/common/serving_notice.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "hosts/common/who_flashes.h"
#include "toolkit/toolkit.h"

namespace hosts {

namespace {

constexpr DWORD kRefreshMs = 500;

/// The bus in the library's words, which knows no third one.
std::string BusOf(const FlashOptions& options, const LibraryConfiguration& configuration) {
  const bool pcie = options.ipc.empty() ? configuration.Get(kIpcTypeKey) == L"PCIE" : options.ipc == "pcie";
  return pcie ? "PCIE" : "USB";
}

bool Exists(const std::wstring& path) {
  return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES ||
         (::GetLastError() != ERROR_FILE_NOT_FOUND && ::GetLastError() != ERROR_PATH_NOT_FOUND);
}

std::string Listed(const std::vector<std::wstring>& paths) {
  std::string list;
  for (const std::wstring& path : paths) list += (list.empty() ? "" : ", ") + ToUtf8(path);
  return list;
}

/// What became of the images that the library took. To be looked at when its job has ended.
class UsedImages {
 public:
  /// @param areCopies of images that stay where they are.
  explicit UsedImages(bool areCopies) : m_AreCopies(areCopies) {
    for (const CTString& image : {ToolKit::GetModemFlsFile(), ToolKit::GetNVMFlsFile()}) {
      if (image.IsEmpty()) continue;
      const auto path = static_cast<std::wstring>(image);
      ++m_Used;
      if (Exists(path)) m_Left.push_back(path);
    }
  }

  bool AreDeleted() const { return m_Used > 0 && m_Left.empty(); }
  std::string WhatToDoAfterSuccess() const {
    if (m_Left.empty() && m_AreCopies) {
      return "The copies were deleted, the originals are where they were. Nothing is left to do.";
    }
    if (m_Left.empty()) return "The images were deleted. Nothing is left to do.";
    return "Delete what could not be deleted, or the next flash writes it again: " + Listed(m_Left);
  }
  std::string WhatToDoAfterFailure() const {
    if (m_AreCopies) return "The originals are where they were: run the flash again.";
    if (m_Left.empty()) return "The image files were removed: copy them anew and run the flash again.";
    if (m_Left.size() == m_Used) return "The image files are still there: run the flash again.";
    return "Of the image files only " + Listed(m_Left) +
           " is still there: copy the other one anew and run the flash again.";
  }

 private:
  bool m_AreCopies;
  std::size_t m_Used = 0;
  std::vector<std::wstring> m_Left;
};

/// The request for a flash. Takes it back in the end, unless the library has dealt with it.
class Request {
 public:
  explicit Request(const HandshakeKey& key) : m_Key(key), m_Error(WriteHandshakeValue(key, kReadyValue, 1)) {}
  ~Request() {
    if (ReadHandshake(m_Key).ready == 1u) WriteHandshakeValue(m_Key, kReadyValue, 0);
  }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  DWORD Error() const { return m_Error; }

 private:
  const HandshakeKey& m_Key;
  DWORD m_Error;
};

/// The library's part, on a thread of its own. It cannot be stopped, only left: the process then ends
/// under it.
class Job {
 public:
  Job(int trace, std::string ipcType) {
    std::thread([ended = m_Ended, trace, type = std::move(ipcType)]() mutable {
      ToolKit::FirmwareFlash_CmdLine(trace, type.data(), 0, nullptr, nullptr);
      ::SetEvent(ended->get());
    }).detach();
  }
  HANDLE Ended() const { return m_Ended->get(); }

 private:
  std::shared_ptr<OwnedHandle> m_Ended = std::make_shared<OwnedHandle>(NewEvent());
};

void Print(const FlashEnd& end) {
  const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
  std::cout << FlashEndText(end, TextColumns(output), TakesColours(output) ? Colours::Ansi : Colours::None)
            << std::flush;
}

bool HasResult(const Handshake& values) {
  return values.Is(FlashResult::Failed) || values.Is(FlashResult::Succeeded);
}

/// Whether the library is past all that it does with the modem, and only writes down how the flash ended,
/// lets go of what it holds and deletes the images. For values that no earlier run has left.
bool IsOver(const Handshake& values) {
  const bool isFlashing = values.Is(FlashResult::Flashing) || values.Is(FlashResult::Retrying);
  return HasResult(values) || (isFlashing && !values.IsJobRunning());
}

bool MayHaveTouchedModem(const Handshake& values) {
  return values.error != ERROR_SUCCESS || (values.result && !values.Is(FlashResult::Idle));
}

const char* WhatBecameOfModem(const Handshake& values) {
  if (values.Is(FlashResult::Succeeded)) return "The modem was flashed and is back.";
  return MayHaveTouchedModem(values) ? "The modem may be left in flash mode; the next run recovers it."
                                     : "The modem was not touched.";
}

/// One run of the flash verb.
class FlashRun {
 public:
  explicit FlashRun(const FlashOptions& options)
      : m_Options(options), m_Key(CommandLineKey()), m_Progress(options.quiet || !options.progress) {}

  ExitCode Run();

 private:
  enum class Ending { JobEnded, Interrupted, TimedOut };

  /// What the look before a flash asks of the folder.
  enum class Folder { HoldsImages, MayBeEmpty };

  ExitCode RunAlone(const CommandLineClaim& claim, ImageCopies& copies);
  std::optional<ExitCode> FindObstacle(Folder folder) const;
  std::optional<ExitCode> FindOtherHost(const CommandLineClaim& claim) const;
  std::optional<ExitCode> BringImages(const CommandLineClaim& claim, ImageCopies& copies);
  bool BringsImages() const { return !m_Options.images.empty(); }
  ExitCode Refuse(const Finding& error) const;
  void TellOfBattery(const std::vector<Finding>& findings) const;
  void KeepLogOfLastRun() const;
  bool LoadConfiguration() const;
  void TellWhatWillBeDeleted(const std::wstring& folder, const FolderImages& images) const;
  void ForgetLastRun();
  Ending Follow(HANDLE jobEnded);
  std::optional<Ending> BeInterrupted();
  bool PastTimeLimit() const;
  long long Seconds() const;
  bool HasLog() const { return m_Options.trace > 0 && !AnsiLogPath().empty(); }
  void Warn(const char* text);
  ExitCode Conclude();
  ExitCode ConcludeWithoutImages(const Handshake& values);
  void TellSuccess(const Handshake& values, const UsedImages& images) const;
  void TellFailure(const Handshake& values, const UsedImages& images) const;
  std::string ResultText(const Handshake& values) const;
  void LeaveRecordOf(const Handshake& values) const;
  ExitCode Flash(const LibraryConfiguration& configuration, const FolderImages& images);
  ExitCode GiveUp(Ending ending);
  ExitCode GiveUp(const std::exception& error);
  void ReportWithoutDeletion(const Problem& problem) const;
  nlohmann::ordered_json Details(const Handshake& values, const UsedImages& images) const;

  const FlashOptions& m_Options;
  HandshakeKey m_Key;
  ProgressLine m_Progress;
  Interruption m_Interruption;
  bool m_Warned = false;
  bool m_AskedForPatience = false;
  std::chrono::steady_clock::time_point m_Begin = std::chrono::steady_clock::now();
};

void FlashRun::KeepLogOfLastRun() const {
  if (m_Options.trace == 0) return;
  const std::string problem = KeepLastLog(LogPath());
  if (!problem.empty()) Tell(problem);
}

bool FlashRun::LoadConfiguration() const {
  // Asking makes the configuration and with it the service's log name; the log of this host has to be named
  // between that and the first record.
  ToolKit::IsConfigLoaded();
  if (ToolKit* const toolkit = ToolKit::GetInstance()) {
    toolkit->SetDebugLoggerFileName(m_Options.trace > 0 ? AnsiLogPath().c_str() : "");
  }
  const bool loaded = ToolKit::LoadConfig(nullptr);
  // Loading turned it on.
  if (m_Options.trace == 0) ToolKit::TurnLoggingOff();
  return loaded;
}

std::optional<ExitCode> FlashRun::FindOtherHost(const CommandLineClaim& claim) const {
  auto obstacle = claim.WhoHoldsIt();
  if (!obstacle) obstacle = FindServiceInTheWay(m_Key);
  // Its job would delete what is being copied, or flash it by itself.
  if (!obstacle && BringsImages()) obstacle = FindServiceThatUses(LookAtConfiguredFolder().path);
  if (!obstacle) return std::nullopt;
  Report({obstacle->code, obstacle->message + ".", obstacle->whatToDo}, m_Options.json);
  return ExitCode::NotReady;
}

ExitCode FlashRun::Refuse(const Finding& error) const {
  Report(ProblemOf(error), m_Options.json);
  return error.exitCode;
}

std::optional<ExitCode> FlashRun::FindObstacle(Folder folder) const {
  std::vector<Finding> findings =
      LookBeforeFlash({.expect = m_Options.expect, .minBattery = m_Options.minBattery});
  if (folder == Folder::MayBeEmpty) {
    std::erase_if(findings, [](const Finding& each) { return std::string_view(each.code) == kNoImages; });
  }
  // A controlling program may put the images there until it asks for the flash.
  if (m_Options.waitForController) {
    std::erase_if(findings, [](const Finding& each) { return each.exitCode == ExitCode::NoImages; });
  }
  for (const Finding& each : findings) TellDetail(std::string(each.subject) + ": " + each.message);
  const Finding* const error = FirstOf(findings, Verdict::Error);
  if (error != nullptr) return Refuse(*error);
  if (folder == Folder::HoldsImages) TellOfBattery(findings);
  return std::nullopt;
}

/// Whether the library would take the chosen images, and no other ones.
bool TakesExactly(const std::vector<ChosenImage>& chosen, const std::wstring& folder) {
  const FolderImages taken = LookForImages(folder);
  const auto isTaken = [&](const ChosenImage& image) {
    const std::wstring& path = image.file.IsModemImage() ? taken.modem : taken.nvm;
    return IsSameName(path, folder + L"\\" + image.file.Name());
  };
  const auto count = static_cast<std::size_t>(!taken.modem.empty()) + (taken.nvm.empty() ? 0 : 1);
  return count == chosen.size() && std::ranges::all_of(chosen, isTaken);
}

std::optional<ExitCode> FlashRun::BringImages(const CommandLineClaim& claim, ImageCopies& copies) {
  const ConfiguredFolder folder = LookAtConfiguredFolder();
  const ChosenImages chosen = LookAtChosenImages(m_Options.images, m_Options.expect);
  if (chosen.error) return Refuse(*chosen.error);
  if (const auto others = FindOtherImages(chosen.images, folder.path)) return Refuse(*others);
  // What does not hang on the images comes before the work of copying them.
  if (const auto obstacle = FindObstacle(Folder::MayBeEmpty)) return obstacle;
  if (const auto otherHost = FindOtherHost(claim)) return otherHost;
  if (const auto error = copies.Make(chosen.images, folder.path)) return Refuse(*error);
  for (const ChosenImage& image : chosen.images) {
    TellDetail("Copied " + ToUtf8(image.file.path) + " to " + ToUtf8(folder.path) + ", SHA-256 " +
               image.sha256);
  }
  if (TakesExactly(chosen.images, folder.path)) return std::nullopt;
  return Refuse({"folder", Verdict::Error, "not the chosen images would be taken from " + ToUtf8(folder.path),
                 "Keep other programs from putting images there, and choose a folder and names that are "
                 "shorter than 260 characters together.",
                 "others_taken"});
}

/// Of all that is not as it should be, this is what somebody can still mend before the modem is touched.
void FlashRun::TellOfBattery(const std::vector<Finding>& findings) const {
  const auto found = std::ranges::find(findings, std::string_view(kOnBattery), &Finding::code);
  if (found == findings.end()) return;
  Tell("Warning, " + found->message + ". " + found->whatToDo);
}

void FlashRun::TellWhatWillBeDeleted(const std::wstring& folder, const FolderImages& images) const {
  if (m_Options.quiet) return;
  std::vector<std::wstring> paths{images.modem, images.nvm};
  std::erase(paths, std::wstring());
  // What a controlling program will have put there until then is not known yet.
  const std::string what =
      m_Options.waitForController ? "the images that it finds in " + ToUtf8(folder) : Listed(paths);
  Tell("When the flash ends, it deletes " + what);
}

void FlashRun::ForgetLastRun() {
  // As the library does when it begins; until then the values of an earlier run must not be taken for this
  // one's.
  ToolKit::SetFlashOnGoingFlag(m_Key.root, m_Key.path.c_str(), 0);
  ToolKit::SetFlashProcess(m_Key.root, m_Key.path.c_str(), 0);
  ToolKit::SetFlashResult(m_Key.root, m_Key.path.c_str(), 0);
}

bool FlashRun::PastTimeLimit() const {
  return m_Options.timeoutSeconds > 0 && Seconds() >= m_Options.timeoutSeconds;
}

long long FlashRun::Seconds() const {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - m_Begin).count();
}

/// Tells what an interruption comes to, when it does not end the run.
void FlashRun::Warn(const char* text) {
  m_Progress.Finish();
  Tell(text);
  ::ResetEvent(m_Interruption.Event());
}

/// @return how the run ends; nothing when it goes on.
std::optional<FlashRun::Ending> FlashRun::BeInterrupted() {
  const Handshake values = ReadHandshake(m_Key);
  if (IsOver(values)) {
    // Whoever loses patience with a library that does not let go is told how the flash ended.
    if (m_AskedForPatience && HasResult(values)) return Ending::JobEnded;
    m_AskedForPatience = true;
    Warn("The flash is over. The images are being deleted; this takes seconds.");
    return std::nullopt;
  }
  if (m_Warned || m_Interruption.IsFinal() || !values.IsJobRunning()) return Ending::Interrupted;
  m_Warned = true;
  Warn(
      "The flash is running. Stopping now may leave the modem in flash mode;\n"
      "the next run recovers it. Press Ctrl+C once more to stop all the same.");
  return std::nullopt;
}

FlashRun::Ending FlashRun::Follow(HANDLE jobEnded) {
  HandshakeWatch watch(m_Key);
  const HANDLE signals[] = {jobEnded, m_Interruption.Event(), watch.Event()};
  for (;;) {
    // Armed before the look, so that no change falls between the look and the wait.
    watch.Arm();
    m_Progress.Show(ReadHandshake(m_Key));
    switch (::WaitForMultipleObjects(3, signals, FALSE, kRefreshMs)) {
      case WAIT_OBJECT_0:
        return Ending::JobEnded;
      case WAIT_OBJECT_0 + 1:
        if (const auto ending = BeInterrupted()) return *ending;
        break;
      case WAIT_FAILED:
        ThrowLastError("The wait for the flash failed");
      default:
        if (PastTimeLimit() && !IsOver(ReadHandshake(m_Key))) return Ending::TimedOut;
    }
  }
}

nlohmann::ordered_json FlashRun::Details(const Handshake& values, const UsedImages& images) const {
  return {{"flashed", values.Is(FlashResult::Succeeded)},
          {"result", values.result.value_or(0)},
          {"meaning", MeaningOfResult(values.result)},
          {"progress", values.progress.value_or(0)},
          {"attempts", m_Progress.Attempts()},
          {"seconds", Seconds()},
          {"images_deleted", images.AreDeleted()},
          {"log", HasLog() ? ToUtf8(LogPath()) : ""}};
}

/// Of a flash that has not come to the point where the library deletes the images.
void FlashRun::ReportWithoutDeletion(const Problem& problem) const {
  Report(problem, m_Options.json, {{"images_deleted", false}});
}

ExitCode FlashRun::ConcludeWithoutImages(const Handshake& values) {
  LeaveRecordOf(values);
  ReportWithoutDeletion({"no_images",
                         "The firmware folder held no image when the flash began, or it could not be read to "
                         "its end.",
                         "Copy the images (*.fls) into the configured folder and try again. \"corvel_cmdline "
                         "check\" tells whether the folder can be read."});
  return ExitCode::NoImages;
}

ExitCode FlashRun::Conclude() {
  const Handshake values = ReadHandshake(m_Key);
  m_Progress.Show(values);
  m_Progress.Finish();
  if (values.Is(FlashResult::Idle)) return ConcludeWithoutImages(values);

  const bool flashed = values.Is(FlashResult::Succeeded);
  const UsedImages images(BringsImages());
  Note(std::string(flashed ? "Flashed" : "The flash failed") + ", result " +
       std::to_string(values.result.value_or(0)));
  LeaveRecordOf(values);
  if (flashed) {
    TellSuccess(values, images);
  } else {
    TellFailure(values, images);
  }
  return flashed ? ExitCode::Success : ExitCode::FlashFailed;
}

void FlashRun::TellSuccess(const Handshake& values, const UsedImages& images) const {
  if (m_Options.json) return PrintJson(Details(values, images));
  Print({.flashed = true,
         .verdict = "The modem was flashed and is back.",
         .result = ResultText(values),
         .whatToDo = images.WhatToDoAfterSuccess(),
         .log = HasLog() ? ToUtf8(LogPath()) : ""});
}

/// What, why, and what to do: the log says why, to whoever reads it.
void FlashRun::TellFailure(const Handshake& values, const UsedImages& images) const {
  const auto cause = HasLog() ? FindLoggedCause(LogPath()) : std::nullopt;
  const Problem failure{"flash_failed", "The flash failed.",
                        (values.Is(FlashResult::Failed) ? "" : "The download could not be started. ") +
                            (cause && !cause->whatToDo.empty() ? cause->whatToDo + " " : "") +
                            images.WhatToDoAfterFailure() +
                            " A modem that was left in flash mode is found there."};
  if (m_Options.json) {
    nlohmann::ordered_json details = Details(values, images);
    details["cause"] = AsJson(cause);
    return PrintJson(AsJson(failure, details));
  }
  Print({.flashed = false,
         .verdict = failure.message,
         .result = ResultText(values),
         .why = cause ? cause->Text() : "",
         .whatToDo = failure.whatToDo,
         .log = HasLog() ? ToUtf8(LogPath()) : "",
         .toShowLog = HasLog() ? "corvel_flashlog \"" + ToUtf8(LogPath()) + "\"" : ""});
}

std::string FlashRun::ResultText(const Handshake& values) const {
  return "Result " + std::to_string(values.result.value_or(0)) + " (" + MeaningOfResult(values.result) +
         "), " + std::to_string(m_Progress.Attempts()) +
         (m_Progress.Attempts() == 1 ? " attempt, " : " attempts, ") + std::to_string(Seconds()) + " s.";
}

void FlashRun::LeaveRecordOf(const Handshake& values) const {
  const std::string problem = LeaveRecord("cmdline", {.flashed = values.Is(FlashResult::Succeeded),
                                                      .result = values.result.value_or(0),
                                                      .progress = values.progress.value_or(0),
                                                      .seconds = Seconds()});
  if (!problem.empty()) Tell(problem);
}

ExitCode FlashRun::GiveUp(Ending ending) {
  const Handshake values = ReadHandshake(m_Key);
  // It may have ended since the last look.
  if (HasResult(values)) return Conclude();
  m_Progress.Finish();
  const bool timedOut = ending == Ending::TimedOut;
  const Problem problem{timedOut ? "timed_out" : "interrupted",
                        timedOut ? "The time limit passed before the flash ended." : "Interrupted.",
                        WhatBecameOfModem(values)};
  ReportWithoutDeletion(problem);
  return ExitCode::Interrupted;
}

/// An error of this program's own, while the library flashes or after that.
ExitCode FlashRun::GiveUp(const std::exception& error) {
  m_Progress.Finish();
  Report({"internal", std::string("Something unforeseen went wrong: ") + error.what() + ".",
          WhatBecameOfModem(ReadHandshake(m_Key))},
         m_Options.json);
  return ExitCode::Interrupted;
}

/// From the request to the end.
ExitCode FlashRun::Flash(const LibraryConfiguration& configuration, const FolderImages& images) {
  const ServingNotice notice(Server::CommandLine, m_Key);
  ForgetLastRun();
  std::optional<Request> request;
  if (!m_Options.waitForController) request.emplace(m_Key);
  if (request && request->Error() != ERROR_SUCCESS) {
    Report({"no_registry_access",
            ToUtf8(kReadyValue) + " cannot be set: " + SystemErrorText(request->Error()) + ".",
            "Run this program as an administrator."},
           m_Options.json);
    return ExitCode::NotReady;
  }
  TellDetail(std::string(request ? "Asked" : "Waits to be asked") + " for the flash under " + m_Key.Text());
  TellWhatWillBeDeleted(configuration.FirmwareFolder(), images);
  const StayAwake awake;
  if (!awake.Refusal().empty()) Tell(awake.Refusal());
  try {
    const Job job(m_Options.trace, BusOf(m_Options, configuration));
    const Ending ending = Follow(job.Ended());
    return ending == Ending::JobEnded ? Conclude() : GiveUp(ending);
  } catch (const std::exception& error) {
    return GiveUp(error);
  }
}

/// With the claim to be the only command line that flashes.
ExitCode FlashRun::RunAlone(const CommandLineClaim& claim, ImageCopies& copies) {
  if (const auto otherHost = FindOtherHost(claim)) return *otherHost;
  if (BringsImages()) {
    if (const auto obstacle = BringImages(claim, copies)) return *obstacle;
    if (::WaitForSingleObject(m_Interruption.Event(), 0) == WAIT_OBJECT_0) {
      ReportWithoutDeletion({"interrupted", "Interrupted.", "The modem was not touched."});
      return ExitCode::Interrupted;
    }
  }
  if (const auto obstacle = FindObstacle(Folder::HoldsImages)) return *obstacle;
  const auto configuration = LibraryConfiguration::Read(ConfigurationPath());
  const FolderImages images = configuration ? LookForImages(configuration->FirmwareFolder()) : FolderImages();
  KeepLogOfLastRun();
  if (!configuration || !LoadConfiguration()) {
    Report({"no_configuration", "The configuration " + ToUtf8(ConfigurationPath()) + " cannot be loaded.",
            "Close whatever holds it open; \"corvel_cmdline check\" tells more."},
           m_Options.json);
    return ExitCode::NotReady;
  }
  // Once more: a service may have come while all that was looked at and loaded.
  if (const auto otherHost = FindOtherHost(claim)) return *otherHost;
  return Flash(*configuration, images);
}

ExitCode FlashRun::Run() {
  const CommandLineClaim claim;
  // Before anything may log: the records would go into the log of the service.
  ToolKit::TurnLoggingOff();
  ImageCopies copies;
  const ExitCode end = RunAlone(claim, copies);
  for (const std::wstring& left : copies.TakeBack()) {
    Tell("The copy " + ToUtf8(left) + " could not be removed. Delete it, or the next flash writes it again.");
  }
  return end;
}

}  // namespace

ExitCode RunFlash(const FlashOptions& options) {
  return FlashRun(options).Run();
}

}  // namespace hosts
