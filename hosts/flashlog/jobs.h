#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hosts/common/troubleshooting.h"
#include "hosts/flashlog/record.h"

namespace hosts::flashlog {

/// What a job does at a time.
enum class StageKind {
  Images,     ///< looking for the images
  Prepare,    ///< checking the images, setting up the flashing library
  FlashMode,  ///< telling the modem to go into flash mode
  Reset,      ///< resetting the modem's baseband
  FlashPort,  ///< waiting for the flash port
  Boot,       ///< opening the flash port, booting the modem
  Write,      ///< writing the items
  Finish,     ///< resetting the modem behind the download, cleaning up
  Pause,      ///< before the next attempt or the next wait
  Return,     ///< waiting for the modem's return
  TidyUp,     ///< deleting the images
};
inline constexpr int kStageKinds = static_cast<int>(StageKind::TidyUp) + 1;
/// For scripts ("flash_port") and for people ("awaiting the flash port").
const char* TokenOf(StageKind kind);
const char* NameOf(StageKind kind);

struct Stage {
  StageKind kind = StageKind::Images;
  int attempt = 0;  ///< 0: belongs to no attempt
  Milliseconds begin = 0;
  Milliseconds end = 0;
  /// How long it may take; 0 without a limit.
  Milliseconds limit = 0;
  std::uint64_t offset = 0;  ///< of the record that it begins with
};

enum class AttemptOutcome { Running, Succeeded, Failed, Overran, NotStarted };
const char* TokenOf(AttemptOutcome outcome);

struct Attempt {
  int number = 1;
  Milliseconds begin = 0;
  Milliseconds end = 0;
  Milliseconds limit = 0;
  AttemptOutcome outcome = AttemptOutcome::Running;
  /// What the download worker said in the end.
  std::optional<int> result = std::nullopt;
  std::uint64_t offset = 0;
};

struct ProgressPoint {
  Milliseconds time = 0;
  int percent = 0;
};

enum class MomentKind { Reset, Retry, Item };
struct Moment {
  MomentKind kind = MomentKind::Reset;
  Milliseconds time = 0;
  std::uint64_t offset = 0;
};

/// A record that tells why something failed.
struct Reason {
  Milliseconds time = 0;
  std::uint64_t offset = 0;
  std::string function{};
  std::string message{};
  /// nullptr when the library's table does not know the text.
  const Trouble* trouble = nullptr;

  bool IsConsequence() const { return trouble != nullptr && trouble->kind == TroubleKind::Consequence; }
};

enum class JobState {
  Running,  ///< the log ends in it
  Succeeded,
  Failed,
  NoImages,  ///< nothing was found to flash
  CutShort,  ///< the log goes on without its end
};
const char* TokenOf(JobState state);
const char* NameOf(JobState state);

struct Job {
  int number = 1;
  bool byCommandLine = false;
  /// The log begins in the middle of it.
  bool beginMissing = false;
  Milliseconds begin = 0;
  Milliseconds end = 0;
  std::uint64_t offset = 0;
  std::uint64_t endOffset = 0;
  /// Bytes that the log had before it began anew: all offsets of the job count from there.
  std::uint64_t before = 0;
  JobState state = JobState::Running;
  /// The last Flash_Result that was written in it.
  std::optional<int> result = std::nullopt;
  std::string version{};  ///< of the library; empty when the log does not tell
  std::vector<Stage> stages;
  std::vector<Attempt> attempts;
  int highestProgress = 0;
  /// The percentages over time, where they are wanted.
  std::vector<ProgressPoint> progress;
  std::vector<Moment> moments;
  /// The first cause, or the first error when none is known as one.
  std::optional<Reason> firstError = std::nullopt;
  /// The first cause of the last attempt, or of the waits for the modem behind it.
  std::optional<Reason> lastCause = std::nullopt;
  std::uint64_t records = 0;
  std::uint64_t errors = 0;  ///< without those that are none
  std::uint64_t warnings = 0;
};

}  // namespace hosts::flashlog
