#include <windows.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "commands.h"
#include "interruption.h"
#include "json_output.h"
#include "preflight.h"
#include "progress_line.h"
#include "setup.h"
#include "text.h"
#include "toolkit/toolkit.h"

namespace {

constexpr DWORD kRefreshMs = 500;
constexpr wchar_t kOneAtATime[] = L"Global\\corvel_cmdline flash";

/// This program's claim to be the only one that flashes by the command line's key.
class Claim {
 public:
  Claim() : m_mutex(::CreateMutexW(nullptr, FALSE, kOneAtATime)) {
    if (::GetLastError() == ERROR_ALREADY_EXISTS) m_mutex.reset();
  }
  bool IsHeld() const { return m_mutex != nullptr; }

 private:
  OwnedHandle m_mutex;
};

/// The request for a flash. Takes it back in the end, unless the library has dealt with it.
class Request {
 public:
  explicit Request(const HandshakeKey& key)
      : m_key(key), m_error(WriteHandshakeValue(key, L"Fls_Ready", 1)) {}
  ~Request() {
    if (ReadHandshake(m_key).ready == 1u) WriteHandshakeValue(m_key, L"Fls_Ready", 0);
  }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  DWORD Error() const { return m_error; }

 private:
  const HandshakeKey& m_key;
  DWORD m_error;
};

/// The library's part, on a thread of its own. It cannot be stopped, only left: the process then ends
/// under it.
class Job {
 public:
  Job(int trace, std::string ipcType) {
    std::thread([ended = m_ended, trace, type = std::move(ipcType)]() mutable {
      ToolKit::FirmwareFlash_CmdLine(trace, type.data(), 0, nullptr, nullptr);
      ::SetEvent(ended->get());
    }).detach();
  }
  HANDLE Ended() const { return m_ended->get(); }

 private:
  std::shared_ptr<OwnedHandle> m_ended = std::make_shared<OwnedHandle>(NewEvent());
};

/// One run of the flash verb.
class FlashRun {
 public:
  explicit FlashRun(const FlashOptions& options)
      : m_options(options), m_key(CommandLineKey()), m_progress(options.quiet) {}

  ExitCode Run();

 private:
  enum class Ending { JobEnded, Interrupted, TimedOut };

  std::optional<ExitCode> FindObstacle();
  bool LoadConfiguration();
  void ForgetLastRun();
  Ending Follow(HANDLE jobEnded);
  bool PastTimeLimit() const;
  long long Seconds() const;
  bool HasLog() const { return m_options.trace > 0 && !AnsiLogPath().empty(); }
  bool MayStop() const;
  void WarnOnce();
  ExitCode Conclude();
  ExitCode ConcludeWithoutImages();
  ExitCode GiveUp(Ending ending);
  nlohmann::ordered_json Details(const Handshake& values) const;

  const FlashOptions& m_options;
  HandshakeKey m_key;
  ProgressLine m_progress;
  Interruption m_interruption;
  bool m_warned = false;
  std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
};

bool FlashRun::LoadConfiguration() {
  // Asking makes the configuration and with it the service's log name; the log of this host has to be named
  // between that and the first record.
  ToolKit::IsConfigLoaded();
  if (ToolKit* const toolkit = ToolKit::GetInstance()) {
    toolkit->SetDebugLoggerFileName(m_options.trace > 0 ? AnsiLogPath().c_str() : "");
  }
  const bool loaded = ToolKit::LoadConfig(nullptr);
  // Loading turned it on.
  if (m_options.trace == 0) ToolKit::TurnLoggingOff();
  return loaded;
}

std::optional<ExitCode> FlashRun::FindObstacle() {
  const std::vector<Finding> findings = LookBeforeFlash();
  const Finding* const error = FirstOf(findings, Verdict::Error);
  // A controlling program may put the images there until it asks for the flash.
  const bool imagesMayCome = m_options.waitForController && error && error->exitCode == ExitCode::NoImages;
  if (error == nullptr || imagesMayCome) return std::nullopt;
  Report(ProblemOf(*error), m_options.json);
  return error->exitCode;
}

void FlashRun::ForgetLastRun() {
  // As the library does when it begins; until then the values of an earlier run must not be taken for this
  // one's.
  ToolKit::SetFlashOnGoingFlag(m_key.root, m_key.path.c_str(), 0);
  ToolKit::SetFlashProcess(m_key.root, m_key.path.c_str(), 0);
  ToolKit::SetFlashResult(m_key.root, m_key.path.c_str(), 0);
}

bool FlashRun::PastTimeLimit() const {
  return m_options.timeoutSeconds > 0 && Seconds() >= m_options.timeoutSeconds;
}

long long FlashRun::Seconds() const {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - m_begin).count();
}

bool FlashRun::MayStop() const {
  return m_warned || m_interruption.IsFinal() || !ReadHandshake(m_key).IsJobRunning();
}

void FlashRun::WarnOnce() {
  m_progress.Finish();
  std::cerr
      << "corvel_cmdline: The flash is running. Stopping now may leave the modem in flash mode; the next run "
         "recovers it.\nPress Ctrl+C once more to stop all the same."
      << std::endl;
  m_warned = true;
  ::ResetEvent(m_interruption.Event());
}

FlashRun::Ending FlashRun::Follow(HANDLE jobEnded) {
  HandshakeWatch watch(m_key);
  const HANDLE signals[] = {jobEnded, m_interruption.Event(), watch.Event()};
  for (;;) {
    // Armed before the look, so that no change falls between the look and the wait.
    watch.Arm();
    m_progress.Show(ReadHandshake(m_key));
    switch (::WaitForMultipleObjects(3, signals, FALSE, kRefreshMs)) {
      case WAIT_OBJECT_0:
        return Ending::JobEnded;
      case WAIT_OBJECT_0 + 1:
        if (MayStop()) return Ending::Interrupted;
        WarnOnce();
        break;
      default:
        if (PastTimeLimit()) return Ending::TimedOut;
    }
  }
}

nlohmann::ordered_json FlashRun::Details(const Handshake& values) const {
  return {{"flashed", values.Is(FlashResult::Succeeded)},
          {"result", values.result.value_or(0)},
          {"meaning", MeaningOfResult(values.result)},
          {"progress", values.progress.value_or(0)},
          {"attempts", m_progress.Attempts()},
          {"seconds", Seconds()},
          {"log", HasLog() ? ToUtf8(LogPath()) : ""}};
}

ExitCode FlashRun::ConcludeWithoutImages() {
  Report({"no_images", "The firmware folder held no image when the flash began.",
          "Copy the images (*.fls) into the configured folder and try again."},
         m_options.json);
  return ExitCode::NoImages;
}

ExitCode FlashRun::Conclude() {
  const Handshake values = ReadHandshake(m_key);
  m_progress.Show(values);
  m_progress.Finish();
  if (values.Is(FlashResult::Idle)) return ConcludeWithoutImages();

  const bool flashed = values.Is(FlashResult::Succeeded);
  const Problem failure{
      "flash_failed", "The flash failed.",
      std::string(values.Is(FlashResult::Failed)
                      ? "The image files were removed: copy them anew and run the flash again."
                      : "The download could not be started: run the flash again.") +
          " A modem that was left in flash mode is found there. The debug log says more in its lines of "
          "level "
          "Error."};
  if (m_options.json) {
    PrintJson(flashed ? Details(values) : AsJson(failure, Details(values)));
  } else {
    std::cout << (flashed ? "The modem was flashed and is back." : failure.message) << " Result "
              << values.result.value_or(0) << " (" << MeaningOfResult(values.result) << "), "
              << m_progress.Attempts() << (m_progress.Attempts() == 1 ? " attempt, " : " attempts, ")
              << Seconds() << " s.\n"
              << (flashed ? "Nothing is left to do." : failure.whatToDo) << std::endl;
    if (HasLog()) std::cout << "Debug log: " << ToUtf8(LogPath()) << std::endl;
  }
  return flashed ? ExitCode::Flashed : ExitCode::FlashFailed;
}

ExitCode FlashRun::GiveUp(Ending ending) {
  m_progress.Finish();
  const bool timedOut = ending == Ending::TimedOut;
  Report(
      {timedOut ? "timed_out" : "interrupted",
       timedOut ? "The time limit passed before the flash ended." : "Interrupted.",
       ReadHandshake(m_key).IsJobRunning() ? "The modem may be left in flash mode; the next run recovers it."
                                           : "The modem was not touched."},
      m_options.json);
  return ExitCode::Interrupted;
}

ExitCode FlashRun::Run() {
  const Claim claim;
  if (!claim.IsHeld()) {
    Report({"already_running", "Another corvel_cmdline is flashing.", "Wait for its end."}, m_options.json);
    return ExitCode::NotReady;
  }
  // Before anything may log: the records would go into the log of the service.
  ToolKit::TurnLoggingOff();
  if (const auto obstacle = FindObstacle()) return *obstacle;
  if (!LoadConfiguration()) {
    Report({"no_configuration", "The configuration " + ToUtf8(ConfigurationPath()) + " cannot be loaded.",
            "Close whatever holds it open; \"corvel_cmdline check\" tells more."},
           m_options.json);
    return ExitCode::NotReady;
  }

  ForgetLastRun();
  std::optional<Request> request;
  if (!m_options.waitForController) request.emplace(m_key);
  if (request && request->Error() != ERROR_SUCCESS) {
    Report({"no_registry_access", "Fls_Ready cannot be set: " + SystemErrorText(request->Error()) + ".",
            "Run this program as an administrator."},
           m_options.json);
    return ExitCode::NotReady;
  }
  const Job job(m_options.trace, m_options.ipc == "pcie" ? "PCIE" : "USB");
  const Ending ending = Follow(job.Ended());
  return ending == Ending::JobEnded ? Conclude() : GiveUp(ending);
}

}  // namespace

ExitCode RunFlash(const FlashOptions& options) {
  return FlashRun(options).Run();
}
