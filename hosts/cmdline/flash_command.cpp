#include <windows.h>

#include <chrono>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>

#include "commands.h"
#include "progress_line.h"
#include "setup.h"
#include "text.h"
#include "toolkit/toolkit.h"

namespace {

constexpr DWORD kRefreshMs = 500;
constexpr char kLogName[] = "FlashCommandLineLogger_DLL.log";

HANDLE g_interrupted = nullptr;

BOOL WINAPI OnConsoleControl(DWORD) {
  ::SetEvent(g_interrupted);
  return TRUE;
}

/// The log's name in the narrow form that the library takes, beside this program.
std::string LogPath() {
  const std::wstring path = ProgramFolder() + ToWide(kLogName);
  std::string narrow(path.size() * 2 + 1, '\0');
  const int length = ::WideCharToMultiByte(CP_ACP, 0, path.c_str(), static_cast<int>(path.size()),
                                           narrow.data(), static_cast<int>(narrow.size()), nullptr, nullptr);
  narrow.resize(static_cast<std::size_t>(length));
  return narrow;
}

/// One run of the flash verb.
class FlashRun {
 public:
  explicit FlashRun(const FlashOptions& options)
      : m_options(options), m_key(CommandLineKey()), m_progress(options.quiet) {}

  ExitCode Run();

 private:
  enum class Ending { JobEnded, Interrupted, TimedOut };

  std::optional<Problem> Prepare();
  std::optional<ExitCode> CheckImages();
  bool RaiseFlag();
  Ending Follow(HANDLE jobEnded);
  bool PastTimeLimit() const;
  bool IsDownloading() const { return ReadHandshake(m_key).onGoing == 1u; }
  void WarnOnce();
  void LowerFlag();
  ExitCode Conclude();
  ExitCode GiveUp(Ending ending);

  const FlashOptions& m_options;
  HandshakeKey m_key;
  ProgressLine m_progress;
  bool m_raised = false;
  bool m_warned = false;
  std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
};

std::optional<Problem> FlashRun::Prepare() {
  if (!ToolKit::LoadConfig(nullptr)) {
    return Problem{"no_configuration",
                   "The configuration " + ToUtf8(ConfigurationPath()) + " cannot be loaded.",
                   "Put CorvelConfig.ini beside this program and close whatever holds it open; "
                   "\"corvel_cmdline check\" tells more."};
  }
  if (m_options.trace > 0) {
    if (ToolKit* const toolkit = ToolKit::GetInstance()) toolkit->SetDebugLoggerFileName(LogPath().c_str());
  } else {
    ToolKit::TurnLoggingOff();
  }
  if (const DWORD error = CheckHandshakeKeyWritable(m_key)) {
    return Problem{"no_registry_access",
                   "The registry key " + m_key.Text() + " cannot be written: " + SystemErrorText(error) + ".",
                   "Run this program as an administrator."};
  }
  return std::nullopt;
}

std::optional<ExitCode> FlashRun::CheckImages() {
  const auto configuration = ConfigurationFile::Read(ConfigurationPath());
  const std::wstring folder = configuration ? configuration->FirmwareFolder() : std::wstring();
  if (LookForImages(folder).Any()) return std::nullopt;
  Report({"no_images", "There is no firmware image (*.fls) in the folder \"" + ToUtf8(folder) + "\".",
          "Copy the modem image and the NVM image there, or correct [ModemAndNVMFirmwareFolder] in "
          "CorvelConfig.ini."},
         m_options.json);
  return ExitCode::NoImages;
}

bool FlashRun::RaiseFlag() {
  if (m_options.waitForController) return true;
  m_raised = WriteHandshakeValue(m_key, L"Fls_Ready", 1) == ERROR_SUCCESS;
  return m_raised;
}

void FlashRun::LowerFlag() {
  if (m_raised) WriteHandshakeValue(m_key, L"Fls_Ready", 0);
}

bool FlashRun::PastTimeLimit() const {
  return m_options.timeoutSeconds > 0 &&
         std::chrono::steady_clock::now() - m_begin >= std::chrono::seconds(m_options.timeoutSeconds);
}

void FlashRun::WarnOnce() {
  m_progress.Finish();
  std::cerr
      << "corvel_cmdline: The flash is running. Stopping now may leave the modem in flash mode; the next run "
         "recovers it.\nPress Ctrl+C once more to stop all the same."
      << std::endl;
  m_warned = true;
}

FlashRun::Ending FlashRun::Follow(HANDLE jobEnded) {
  HandshakeWatch watch(m_key);
  const HANDLE signals[] = {jobEnded, g_interrupted, watch.Event()};
  for (;;) {
    // Armed before the look, so that no change falls between the look and the wait.
    watch.Arm();
    m_progress.Show(ReadHandshake(m_key));
    switch (::WaitForMultipleObjects(3, signals, FALSE, kRefreshMs)) {
      case WAIT_OBJECT_0:
        return Ending::JobEnded;
      case WAIT_OBJECT_0 + 1:
        if (m_warned || !IsDownloading()) return Ending::Interrupted;
        WarnOnce();
        break;
      default:
        if (PastTimeLimit()) return Ending::TimedOut;
    }
  }
}

ExitCode FlashRun::Conclude() {
  const Handshake values = ReadHandshake(m_key);
  m_progress.Show(values);
  m_progress.Finish();
  if (values.Is(FlashResult::Idle) && values.ready == 1u) {
    LowerFlag();
    Report({"no_images", "The firmware folder held no image when the flash began.",
            "Copy the images (*.fls) into the configured folder and try again."},
           m_options.json);
    return ExitCode::NoImages;
  }

  const bool flashed = values.Is(FlashResult::Succeeded);
  const auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - m_begin).count();
  const std::string next = flashed
                               ? "Nothing is left to do."
                               : "Look at the debug log for lines of level Error. The image files were "
                                 "removed: copy them anew, and "
                                 "run the flash again. A modem that was left in flash mode is found there.";
  if (m_options.json) {
    const nlohmann::ordered_json document{{"flashed", flashed},
                                          {"result", values.result.value_or(0)},
                                          {"meaning", MeaningOfResult(values.result)},
                                          {"progress", values.progress.value_or(0)},
                                          {"attempts", m_progress.Attempts()},
                                          {"seconds", seconds},
                                          {"log", m_options.trace > 0 ? LogPath() : ""},
                                          {"what_to_do", next}};
    std::cout << document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << std::endl;
  } else {
    std::cout << (flashed ? "The modem was flashed and is back." : "The flash failed.") << " Result "
              << values.result.value_or(0) << " (" << MeaningOfResult(values.result) << "), "
              << m_progress.Attempts() << (m_progress.Attempts() == 1 ? " attempt, " : " attempts, ")
              << static_cast<long long>(seconds) << " s.\n"
              << next << std::endl;
    if (m_options.trace > 0) std::cout << "Debug log: " << LogPath() << std::endl;
  }
  return flashed ? ExitCode::Flashed : ExitCode::FlashFailed;
}

ExitCode FlashRun::GiveUp(Ending ending) {
  m_progress.Finish();
  const bool downloading = IsDownloading();
  if (!downloading) LowerFlag();
  Report({ending == Ending::TimedOut ? "timed_out" : "interrupted",
          ending == Ending::TimedOut ? "The time limit passed before the flash ended." : "Interrupted.",
          downloading ? "The modem may be left in flash mode; the next run recovers it."
                      : "The modem was not touched."},
         m_options.json);
  return ExitCode::Interrupted;
}

ExitCode FlashRun::Run() {
  if (const auto problem = Prepare()) {
    Report(*problem, m_options.json);
    return ExitCode::NotReady;
  }
  if (!m_options.waitForController) {
    if (const auto noImages = CheckImages()) return *noImages;
  }
  g_interrupted = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
  ::SetConsoleCtrlHandler(OnConsoleControl, TRUE);
  if (!RaiseFlag()) {
    Report({"no_registry_access", "Fls_Ready cannot be set.", "Run this program as an administrator."},
           m_options.json);
    return ExitCode::NotReady;
  }

  std::string ipcType = m_options.ipc == "pcie" ? "PCIE" : "USB";
  const HANDLE jobEnded = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  std::thread job([&, trace = m_options.trace] {
    ToolKit::FirmwareFlash_CmdLine(trace, ipcType.data(), 0, nullptr, nullptr);
    ::SetEvent(jobEnded);
  });
  const Ending ending = Follow(jobEnded);
  if (ending == Ending::JobEnded) {
    job.join();
    return Conclude();
  }
  const ExitCode code = GiveUp(ending);
  // The job cannot be stopped, only left: the process ends under it.
  std::cout.flush();
  std::cerr.flush();
  ::ExitProcess(static_cast<UINT>(code));
}

}  // namespace

ExitCode RunFlash(const FlashOptions& options) {
  return FlashRun(options).Run();
}
