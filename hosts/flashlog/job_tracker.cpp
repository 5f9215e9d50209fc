#include "hosts/flashlog/job_tracker.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>

namespace hosts::flashlog {

namespace {

// Where the log does not tell another one.
constexpr Milliseconds kAttemptLimit = 130'000;
constexpr Milliseconds kFlashPortLimit = 15'000;
constexpr Milliseconds kBootLimit = 10'000;
constexpr Milliseconds kReturnLimit = 23'000;
/// A job of a broken log must not take all memory.
constexpr std::size_t kMostOfAKind = 4000;

constexpr std::string_view kService = "ToolKit::MainThreadImplementation";
constexpr std::string_view kCommandLine = "ToolKit::FirmwareFlash_CmdLine";
/// Stands for both of them.
constexpr std::string_view kSupervisor = "";

/// How a record that says something begins.
struct Sign {
  std::string_view function;
  std::string_view message;
  EventKind kind;
};

constexpr Sign kSigns[] = {
    {"CConfigParser::LoadConfig", "VERSION: ", EventKind::LibraryVersion},
    {kSupervisor, "Start a new loop process", EventKind::PassBegins},
    {kSupervisor, "start a new loop process", EventKind::PassBegins},
    {"ToolKit::MonitorFlashReadyFlag", "flash flag changed to 1", EventKind::Requested},
    {kSupervisor, "fetch modem & NVM folder", EventKind::ImagesSought},
    {kSupervisor, "Can't find available fls", EventKind::NoImages},
    {kSupervisor, "DownloadFirmwareImplementation timeout: ", EventKind::AttemptBegins},
    {kSupervisor, "CreateThread DownloadFirmwareImplementation FAIL", EventKind::NoWorker},
    {"ToolKit::DownloadFirmwareImplementation", "ToolKit::DownloadFirmwareImplementation ++",
     EventKind::WorkerBegins},
    {"ToolKit::DownloadFirmwareImplementation", "ToolKit::DownloadFirmwareImplementation --",
     EventKind::WorkerEnds},
    {"CFirmwareDownloader::Download", "GO BootDeviceInFirmwareMode", EventKind::IntoFlashMode},
    {"CFirmwareDownloader::ControlBBrst", "Call BB_RST, g_retry_times", EventKind::ResetBegins},
    {"CUdeIoControl::TriggerFlashReset", "TriggerFlashReset++", EventKind::ResetSent},
    {"CUdeIoControl::TriggerFlashReset", "TriggerFlashReset ++", EventKind::ResetSent},
    {"CFirmwareDownloader::BootDeviceInFirmwareMode",
     "CFirmwareDownloader::BootDeviceInFirmwareMode --, retValue: 0", EventKind::PortAwaited},
    {"CFirmwareDownloader::ControlBBrst", "Call BB_RST OK", EventKind::PortAwaited},
    {"CFirmwareDownloader::InjectBootTarget", "InjectBootTargetThread timeout: ", EventKind::BootBegins},
    {"CFirmwareDownloader::InjectBootTarget", "InjectBootTargetThread return NEED_BBRST",
     EventKind::PortAwaited},
    {"CFirmwareDownloader::Download", "BootDeviceInFirmwareMode OK", EventKind::WriteBegins},
    {"CFirmwareDownloader::DownloadFirmwareIntoDevice", "TOC name flsFileName:", EventKind::ItemBegins},
    {"CFirmwareDownloader::Download", "DownloadFirmwareIntoDevice ", EventKind::WriteEnds},
    {kSupervisor, "Flash TIMEOUT or other issue", EventKind::Overran},
    {kSupervisor, "Flash timeout or other issue", EventKind::Overran},
    {kSupervisor, "Flash FAILED, goto Flash_FAILED", EventKind::AttemptFailed},
    {kSupervisor, "Flash NOT success, goto Flash_FAILED", EventKind::AttemptFailed},
    {kSupervisor, "Flash FAIL, retry again", EventKind::Retried},
    {kSupervisor, "After unload dll, wait", EventKind::Paused},
    {kSupervisor, "Flash OK, to wait for MBIM Modem re-arrival", EventKind::ReturnAwaited},
    {"ToolKit::WaitForMBIMRearrivedImplementation", "WaitForMBIMRearrivedImplementation ++",
     EventKind::ReturnWatched},
    {kSupervisor, "MBIM device not arrival, retry again", EventKind::ReturnRetried},
    {kSupervisor, "MBIM Modem re-arrival, FW update OK", EventKind::Returned},
    {"ToolKit::SetFlashProcess", "WriteRegistry Flash_Progress: ", EventKind::ProgressWritten},
    {"ToolKit::SetFlashResult", "WriteRegistry Flash_Result: ", EventKind::ResultWritten},
    {"ToolKit::DeleteFLSFiles", "DeleteFLSFiles --", EventKind::JobTidied},
};

using SignsOfFunction = std::unordered_map<std::string_view, std::vector<const Sign*>>;

SignsOfFunction SortedSigns() {
  SignsOfFunction signs;
  for (const Sign& sign : kSigns) signs[sign.function].push_back(&sign);
  signs[kService] = signs[kCommandLine] = signs[kSupervisor];
  return signs;
}

const Sign* FindSign(const Record& record) {
  static const SignsOfFunction signs = SortedSigns();
  const auto ofFunction = signs.find(record.function);
  if (ofFunction == signs.end()) return nullptr;
  const auto found = std::ranges::find_if(
      ofFunction->second, [&](const Sign* sign) { return record.message.starts_with(sign->message); });
  return found == ofFunction->second.end() ? nullptr : *found;
}

/// The number at the end of a message.
std::optional<int> LastNumber(std::string_view message) {
  const std::size_t before = message.find_last_not_of("0123456789");
  const std::string_view digits = before == std::string_view::npos ? message : message.substr(before + 1);
  int number = 0;
  const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return read.ec == std::errc() ? std::optional(number) : std::nullopt;
}

/// What a record says of how long something may take ("... timeout: 130s"), or what it usually may.
Milliseconds LimitIn(std::string_view message, Milliseconds usual) {
  constexpr std::string_view kMark = "timeout: ";
  const std::size_t mark = message.find(kMark);
  if (mark == std::string_view::npos) return usual;
  const std::string_view text = message.substr(mark + kMark.size());
  int seconds = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), seconds);
  const bool isLimit =
      read.ec == std::errc() && seconds > 0 && read.ptr != text.data() + text.size() && *read.ptr == 's';
  return isLimit ? Milliseconds{seconds} * 1000 : usual;
}

/// Most records are traces that no table has to be asked for.
const Trouble* TroubleOf(const Record& record) {
  if (record.level != Level::Error) {
    constexpr std::array<std::string_view, 5> kWords{"ail", "FAIL", "annot", "ould not", "n't"};
    const bool mayTell = std::ranges::any_of(
        kWords, [&](std::string_view word) { return record.message.find(word) != std::string_view::npos; });
    if (!mayTell) return nullptr;
  }
  return FindTrouble(record.function, record.message);
}

bool TellsError(const Record& record, const Trouble* trouble) {
  if (trouble != nullptr && trouble->kind == TroubleKind::Harmless) return false;
  return record.level == Level::Error || (trouble != nullptr && trouble->kind == TroubleKind::Cause);
}

Reason ReasonIn(const Record& record, const Trouble* trouble) {
  return {.time = record.time,
          .offset = record.offset,
          .function = std::string(record.function),
          .message = std::string(record.message.substr(0, 1000)),
          .trouble = trouble};
}

template <typename Item>
void AddBounded(std::vector<Item>& items, const Item& item) {
  if (items.size() < kMostOfAKind) items.push_back(item);
}

}  // namespace

Place JobTracker::Take(const Record& record) {
  if (record.flaw == Flaw::Foreign || record.flaw == Flaw::Malformed) {
    return {.job = m_Open ? Current().number : 0};
  }
  if (record.process != m_Process) {
    Finish(true);
    m_Process = record.process;
    m_Version.clear();
    m_GivenUp.clear();
  }
  const Sign* const sign = FindSign(record);
  if (sign != nullptr) Follow(sign->kind, record);
  if (m_Open && record.function == kCommandLine) Current().byCommandLine = true;
  const Trouble* const trouble = TroubleOf(record);
  // The record that ends a job is its last one.
  const bool inJob = m_Open || (sign != nullptr && sign->kind == EventKind::JobTidied && !m_Jobs.empty());
  if (inJob) Judge(record, trouble);
  const bool isStage = sign != nullptr && sign->kind != EventKind::ProgressWritten;
  return {.job = inJob ? Current().number : 0, .stage = isStage, .trouble = trouble};
}

void JobTracker::Finish(bool goesOn) {
  if (m_Open && !m_Decided && goesOn) Current().state = JobState::CutShort;
  if (m_Open) EndStage(Current().end);
  if (m_Open && !Current().attempts.empty() && Current().attempts.back().outcome == AttemptOutcome::Running) {
    Current().attempts.back().end = Current().end;
  }
  m_Open = false;
}

void JobTracker::Judge(const Record& record, const Trouble* trouble) {
  Job& job = Current();
  job.end = std::max(job.end, record.time);
  job.endOffset = record.offset + record.size;
  ++job.records;
  if (m_StageOpen) job.stages.back().end = job.end;
  if (record.level == Level::Warning) ++job.warnings;
  if (!TellsError(record, trouble)) return;
  ++job.errors;
  const bool isConsequence = trouble != nullptr && trouble->kind == TroubleKind::Consequence;
  if (!job.firstError || (!isConsequence && job.firstError->IsConsequence())) {
    job.firstError = ReasonIn(record, trouble);
  }
  if (!isConsequence && !job.lastCause && !m_Decided && !m_GivenUp.contains(record.thread)) {
    job.lastCause = ReasonIn(record, trouble);
  }
}

void JobTracker::Follow(EventKind kind, const Record& record) {
  switch (kind) {
    case EventKind::LibraryVersion:
      m_Version = record.message.substr(std::string_view("VERSION: ").size()).substr(0, 40);
      return;
    case EventKind::PassBegins:
      // Also where the images of the job before could not be tidied up.
      return Finish(true);
    case EventKind::Requested:
      Finish(true);
      return BeginJob(record, false);
    case EventKind::ImagesSought:
      if (!m_Open) BeginJob(record, true);
      return;
    case EventKind::ProgressWritten:
      return TakeProgress(LastNumber(record.message).value_or(0), record);
    case EventKind::ResultWritten:
      return TakeResult(LastNumber(record.message).value_or(0), record);
    case EventKind::ResetSent:
      return Note(MomentKind::Reset, record);
    case EventKind::ReturnAwaited:
    case EventKind::ReturnWatched:
    case EventKind::ReturnRetried:
    case EventKind::Returned:
      return FollowReturn(kind, record);
    case EventKind::NoImages:
      if (!m_Open) BeginJob(record, true);
      EndStage(record.time);
      Current().state = JobState::NoImages;
      m_Decided = true;
      return;
    case EventKind::JobTidied:
      // Without a result that could be written only a return of the modem tells of success.
      if (m_Open) EndJob(Current().state == JobState::Running ? JobState::Failed : Current().state, record);
      return;
    default:
      return FollowAttempt(kind, record);
  }
}

void JobTracker::FollowAttempt(EventKind kind, const Record& record) {
  if (!m_Open) {
    // An attempt of a job that is over may come back late; only the supervisor begins something.
    if (kind != EventKind::AttemptBegins) return;
    BeginJob(record, true);
  }
  switch (kind) {
    case EventKind::AttemptBegins:
      return BeginAttempt(record);
    case EventKind::WorkerBegins:
      m_GivenUp.erase(record.thread);
      // The one of an attempt that was given up has begun already.
      if (m_Worker == 0) m_Worker = record.thread;
      return;
    case EventKind::NoWorker:
      BeginAttempt(record);
      return EndAttempt(record, AttemptOutcome::NotStarted);
    case EventKind::Overran:
      m_GivenUp.insert(m_Worker);
      return EndAttempt(record, AttemptOutcome::Overran);
    case EventKind::AttemptFailed:
      return EndAttempt(record, AttemptOutcome::Failed);
    case EventKind::Retried:
      return Note(MomentKind::Retry, record);
    case EventKind::Paused:
      return BeginStage(StageKind::Pause, record, 0);
    default:
      break;
  }
  if (!IsWorker(record) || m_Decided) return;
  switch (kind) {
    case EventKind::WorkerEnds:
      if (!Current().attempts.empty()) Current().attempts.back().result = LastNumber(record.message);
      return;
    case EventKind::IntoFlashMode:
      return BeginStage(StageKind::FlashMode, record);
    case EventKind::ResetBegins:
      return BeginStage(StageKind::Reset, record);
    case EventKind::PortAwaited:
      return BeginStage(StageKind::FlashPort, record, kFlashPortLimit);
    case EventKind::BootBegins:
      return BeginStage(StageKind::Boot, record, LimitIn(record.message, kBootLimit));
    case EventKind::WriteBegins:
      return BeginStage(StageKind::Write, record);
    case EventKind::ItemBegins:
      return Note(MomentKind::Item, record);
    case EventKind::WriteEnds:
      return BeginStage(StageKind::Finish, record);
    default:
      return;
  }
}

void JobTracker::FollowReturn(EventKind kind, const Record& record) {
  if (kind == EventKind::ReturnWatched) {
    // The first wait was announced; the later ones only show by their watcher.
    const bool again =
        m_Open && !m_Decided && m_StageOpen && Current().stages.back().kind == StageKind::Pause;
    if (again) BeginStage(StageKind::Return, record, kReturnLimit);
    return;
  }
  if (!m_Open) BeginJob(record, true);
  switch (kind) {
    case EventKind::ReturnAwaited:
      EndAttempt(record, AttemptOutcome::Succeeded);
      Current().lastCause.reset();
      return BeginStage(StageKind::Return, record, kReturnLimit);
    case EventKind::ReturnRetried:
      Note(MomentKind::Retry, record);
      return BeginStage(StageKind::Pause, record);
    default:
      EndStage(record.time);
      Current().state = JobState::Succeeded;
      return;
  }
}

void JobTracker::BeginJob(const Record& record, bool beginMissing) {
  m_Open = true;
  m_Decided = false;
  m_StageOpen = false;
  m_Worker = 0;
  Job job;
  job.number = static_cast<int>(m_Jobs.size()) + 1;
  job.beginMissing = beginMissing;
  job.begin = job.end = record.time;
  job.offset = record.offset;
  job.before = record.before;
  job.version = m_Version;
  m_Jobs.push_back(std::move(job));
  BeginStage(StageKind::Images, record);
}

void JobTracker::BeginAttempt(const Record& record) {
  Job& job = Current();
  m_Worker = 0;
  // What stopped the attempt before has been overcome.
  job.lastCause.reset();
  const Attempt attempt{.number = static_cast<int>(job.attempts.size()) + 1,
                        .begin = record.time,
                        .end = record.time,
                        .limit = LimitIn(record.message, kAttemptLimit),
                        .offset = record.offset};
  AddBounded(job.attempts, attempt);
  BeginStage(StageKind::Prepare, record);
}

void JobTracker::EndAttempt(const Record& record, AttemptOutcome outcome) {
  EndStage(record.time);
  m_Worker = 0;
  if (Current().attempts.empty()) return;
  Attempt& attempt = Current().attempts.back();
  if (attempt.outcome != AttemptOutcome::Running) return;
  attempt.end = std::max(attempt.begin, record.time);
  attempt.outcome = outcome;
}

void JobTracker::BeginStage(StageKind kind, const Record& record, Milliseconds limit) {
  EndStage(record.time);
  Job& job = Current();
  const bool running = !job.attempts.empty() && job.attempts.back().outcome == AttemptOutcome::Running;
  const int attempt = running ? job.attempts.back().number : 0;
  const auto goesOn = [&](const Stage& last) { return last.kind == kind && last.attempt == attempt; };
  // One look after the other at the same thing is one stage, unless each has a limit of its own.
  if (!job.stages.empty() && goesOn(job.stages.back()) && limit == 0) {
    m_StageOpen = true;
    return;
  }
  if (job.stages.size() >= kMostOfAKind) return;
  job.stages.push_back({.kind = kind,
                        .attempt = attempt,
                        .begin = record.time,
                        .end = record.time,
                        .limit = limit,
                        .offset = record.offset});
  m_StageOpen = true;
}

void JobTracker::EndStage(Milliseconds time) {
  if (m_StageOpen) Current().stages.back().end = std::max(Current().stages.back().begin, time);
  m_StageOpen = false;
}

void JobTracker::EndJob(JobState state, const Record& record) {
  EndStage(record.time);
  Current().state = state;
  Current().end = std::max(Current().end, record.time);
  m_Open = false;
}

void JobTracker::TakeResult(int result, const Record& record) {
  if (!m_Open) return;
  Job& job = Current();
  job.result = result;
  if (result != 3 && result != 4) return;
  if (job.state != JobState::NoImages) job.state = result == 4 ? JobState::Succeeded : JobState::Failed;
  m_Decided = true;
  if (!job.attempts.empty()) BeginStage(StageKind::TidyUp, record);
}

void JobTracker::TakeProgress(int percent, const Record& record) {
  if (!m_Open) return;
  Current().highestProgress = std::max(Current().highestProgress, percent);
  if (!m_KeepsCurves) return;
  std::vector<ProgressPoint>& progress = Current().progress;
  if (progress.empty() || progress.back().percent != percent) {
    AddBounded(progress, {.time = record.time, .percent = percent});
  }
}

void JobTracker::Note(MomentKind kind, const Record& record) {
  if (m_Open) AddBounded(Current().moments, {.kind = kind, .time = record.time, .offset = record.offset});
}

// --- Names -----------------------------------------------------------------------------------------------

const char* TokenOf(StageKind kind) {
  constexpr std::array<const char*, kStageKinds> kTokens{"images",     "prepare", "flash_mode", "reset",
                                                         "flash_port", "boot",    "write",      "finish",
                                                         "pause",      "return",  "tidy_up"};
  return kTokens.at(static_cast<std::size_t>(kind));
}

const char* NameOf(StageKind kind) {
  constexpr std::array<const char*, kStageKinds> kNames{"looking for images",
                                                        "preparing",
                                                        "into flash mode",
                                                        "resetting",
                                                        "awaiting flash port",
                                                        "booting",
                                                        "writing",
                                                        "finishing",
                                                        "pause",
                                                        "awaiting the modem",
                                                        "tidying up"};
  return kNames.at(static_cast<std::size_t>(kind));
}

const char* TokenOf(AttemptOutcome outcome) {
  constexpr std::array<const char*, 5> kTokens{"running", "succeeded", "failed", "overran", "not_started"};
  return kTokens.at(static_cast<std::size_t>(outcome));
}

const char* TokenOf(JobState state) {
  constexpr std::array<const char*, 5> kTokens{"running", "succeeded", "failed", "no_images", "cut_short"};
  return kTokens.at(static_cast<std::size_t>(state));
}

const char* NameOf(JobState state) {
  constexpr std::array<const char*, 5> kNames{"not ended", "succeeded", "failed", "no images", "cut short"};
  return kNames.at(static_cast<std::size_t>(state));
}

}  // namespace hosts::flashlog
