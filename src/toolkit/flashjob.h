#pragma once

#include <windows.h>

#include "common/internaldata.h"

namespace corvel {

/// What a job does and says differently when the service or the command line runs it. Everything else is
/// the same, FlashJob below.
struct FlashJobRules {
  /// The function that the job's records are logged under.
  const char* procedure;

  /// Whether a download worker that cannot be started is a failed attempt; otherwise it ends the job where
  /// it stands.
  bool countsMissingWorker;
  DWORD pauseBeforeRetryMs;
  /// Whether a modem that was not back in time is looked for once more.
  bool looksOnceMore;

  const char* startOfPass;
  const char* workerNotStarted;
  const char* attemptTimeLimit;
  const char* attemptOverran;
  const char* attemptFailed;
  const char* retry;
  const char* pauseBeforeRetry;
  const char* flashed;
  const char* rearrivalLimitReached;
  const char* lateWithReset;
  const char* lateWithoutReset;
};
extern CORVEL_INTERNAL_DATA const FlashJobRules kServiceRules;
extern CORVEL_INTERNAL_DATA const FlashJobRules kCommandLineRules;

/// One flash job: waits for the controlling program, finds the images, downloads with retries, waits for
/// the modem to come back, reports. Runs on the thread that calls it.
class FlashJob {
 public:
  explicit FlashJob(const FlashJobRules& rules) : m_Rules(rules) {}

  /// The values that a controlling program finds before the first job.
  static void WriteInitialValues();

  /// Readies the registry and waits until a flash is asked for.
  void AwaitRequest();
  /// Takes the images from the configured folder. @return false when there is none.
  bool FindImages();
  /// Flashes what was found, and reports.
  void Run();

 private:
  enum class Outcome { Succeeded, Failed, Dropped };
  enum class Attempt { Succeeded, Failed, NoWorker };

  Outcome Download();
  Attempt DownloadOnce();
  bool MayDownloadAgain();

  Outcome AwaitRearrival();
  bool ModemRearrived();
  bool MayAwaitAgain();
  bool IsBackAfterAll();

  static void End(int result);

  const FlashJobRules& m_Rules;
  /// Attempts that failed in this job, in downloading or in coming back.
  unsigned long m_Failures = 0;
};

}  // namespace corvel
