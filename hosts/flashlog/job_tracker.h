#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "hosts/flashlog/jobs.h"
#include "hosts/flashlog/record.h"

namespace hosts::flashlog {

/// What a record says to somebody who follows a job.
enum class EventKind {
  LibraryVersion,
  PassBegins,
  Requested,
  ImagesSought,
  NoImages,
  AttemptBegins,
  NoWorker,
  WorkerBegins,
  WorkerEnds,
  IntoFlashMode,
  ResetBegins,
  ResetSent,
  PortAwaited,
  BootBegins,
  WriteBegins,
  ItemBegins,
  WriteEnds,
  Overran,
  AttemptFailed,
  Retried,
  Paused,
  ReturnAwaited,
  ReturnWatched,
  ReturnRetried,
  Returned,
  ProgressWritten,
  ResultWritten,
  JobTidied,
};

/// What a record was to the jobs of its log.
struct Place {
  int job = 0;         ///< its number; 0 outside of jobs
  bool stage = false;  ///< tells how the job goes on
  /// What the table knows of an error, or of another record that tells one.
  const Trouble* trouble = nullptr;
};

/// Follows the records of one log and makes out its jobs.
class JobTracker {
 public:
  /// @param keepsCurves whether the jobs have their percentages over time, which need the most memory.
  explicit JobTracker(bool keepsCurves) : m_KeepsCurves(keepsCurves) {}

  Place Take(const Record& record);
  /// The log is over, or begins anew. A job that has not ended stays as running, or as cut short when
  /// `goesOn`.
  void Finish(bool goesOn);

  const std::vector<Job>& Jobs() const { return m_Jobs; }

 private:
  void Follow(EventKind kind, const Record& record);
  void FollowAttempt(EventKind kind, const Record& record);
  void FollowReturn(EventKind kind, const Record& record);
  void BeginJob(const Record& record, bool beginMissing);
  void BeginAttempt(const Record& record);
  void EndAttempt(const Record& record, AttemptOutcome outcome);
  void BeginStage(StageKind kind, const Record& record, Milliseconds limit = 0);
  void EndStage(Milliseconds time);
  void EndJob(JobState state, const Record& record);
  void TakeResult(int result, const Record& record);
  void TakeProgress(int percent, const Record& record);
  void Judge(const Record& record, const Trouble* trouble);
  void Note(MomentKind kind, const Record& record);
  bool IsWorker(const Record& record) const { return record.thread == m_Worker; }
  Job& Current() { return m_Jobs.back(); }

  bool m_KeepsCurves;
  std::vector<Job> m_Jobs;
  bool m_Open = false;
  /// The result stands; only the tidying up follows.
  bool m_Decided = false;
  std::uint32_t m_Process = 0;
  std::uint32_t m_Worker = 0;
  /// Threads of attempts that were left to themselves: what they still say tells nothing of a later attempt.
  std::set<std::uint32_t> m_GivenUp;
  bool m_StageOpen = false;
  std::string m_Version;
};

}  // namespace hosts::flashlog
