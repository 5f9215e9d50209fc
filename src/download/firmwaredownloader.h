#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/handles.h"
#include "common/tstring.h"
#include "download/downloadfile.h"
#include "download/downloadtooldll.h"
#include "download/flashchannel.h"
#include "toolkit/toolkit.h"

class FlashPortSearch;

/// What bringing the modem into flash mode comes to.
inline constexpr int kBootOk = 0;
inline constexpr int kBootNeedsReset = 1;
inline constexpr int kBootFailed = 2;

/// The download engine: brings the modem into flash mode, writes the images, resets it.
///
/// One engine serves one attempt, on one worker thread and the threads that this starts. An attempt that
/// overran its time is abandoned, not stopped: its worker still holds the engine, the library and all they
/// use, while a new attempt has a new engine. Whoever works for an abandoned engine takes no further step
/// that anybody outside can see.
class CFirmwareDownloader : public std::enable_shared_from_this<CFirmwareDownloader> {
 public:
  /// The engine of the present attempt, made with the flashing library bound on first use. Null when the
  /// library refused the callback; the engine is there all the same for the next call.
  static std::shared_ptr<CFirmwareDownloader> GetInstance();
  /// Ends the present attempt: unbinds the library and gives the engine up.
  static void Unload();
  /// The engine that the calling thread works for; else that of the present attempt, if there is one.
  static std::shared_ptr<CFirmwareDownloader> OfThisThread();

  /// Flashes the images (either may be empty) and resets the modem.
  UpdateFirmwareResult Download(CTString firmwareFile, CTString custFile);

  /// Overall percentage, 0 to 100, from the present item's percentage as the library's callback reports it.
  int GetAbsoluteProgress(const char* statusText);

  /// True once a newer attempt may be running.
  bool IsAbandoned() const { return m_abandoned; }
  /// Does `step` unless the attempt is abandoned, and keeps it from being abandoned meanwhile.
  template <typename Step>
  void UnlessAbandoned(Step step) {
    const ScopedLock lock(m_abandonLock);
    if (!m_abandoned) step();
  }

  static bool IsMBIMModemPresence();
  static bool IsFlashPortPresence();
  /// Asks Plug and Play to look at the whole device tree again. @return true when it was asked.
  static bool ScanForHardwareChanges();
  /// The same, with half a second before and after, for use behind a baseband reset.
  static void ScanForHardwareChangesAndSettle();

  // Bringing the modem into flash mode.
  int BootDeviceInFirmwareMode();
  int MonitorFlashPort();
  int InjectBootTarget();
  /// Asks the running modem through the Mobile Broadband API to reboot into flash mode.
  /// @return S_OK when the modem took the command.
  HRESULT RebootModemByMbimCmd();

 private:
  CFirmwareDownloader() = default;

  /// Makes the calling thread one that works for an engine while it lives.
  class ThreadScope {
   public:
    explicit ThreadScope(CFirmwareDownloader& engine);
    ~ThreadScope();
    ThreadScope(const ThreadScope&) = delete;
    ThreadScope& operator=(const ThreadScope&) = delete;

    /// False, with the last error set, when the system had no room to note it: what the library reports on
    /// this thread could not be told from the news of another attempt.
    bool IsNoted() const { return m_noted; }

   private:
    CFirmwareDownloader* m_outer;
    bool m_noted;
  };

  void Abandon();

  // The session's steps.
  bool IsFirmwareFileValid();
  bool IsCustFileValid();
  bool InitializeParametersForDownload();
  bool SetUpDownloadLog();
  bool SetParameter(std::uint8_t id, std::uint32_t value);
  bool SubmitParameter(const char* function, std::uint8_t id, std::uintptr_t value);
  static bool IsPCIEdevice();
  bool MarkFirmwareFileForDownload();
  bool MarkCustFile(std::uint32_t& technology);
  bool MarkFurtherItems(std::uint32_t technology, const CDownloadFile* firstItem);
  CDownloadFile* AddToDownloadList(std::uint32_t technology, std::uint32_t memoryClass, const CTString& file,
                                   const CDownloadFile* firstItem, std::uint32_t index);
  bool GetFlashTechnology(std::uint32_t& technology);
  bool GetFlashTechnologyOfCust(std::uint32_t& technology);
  bool GetMemoryClass(std::uint32_t& memoryClass, std::uint32_t index);
  bool GetMemoryClassOfCust(std::uint32_t& memoryClass, std::uint32_t index);
  bool QueryFlashTechnology(const char* function, const CTString& file, std::uint32_t& technology);
  bool QueryMemoryClass(const char* function, const CTString& file, std::uint32_t& memoryClass,
                        std::uint32_t index);
  bool BringIntoFlashMode();
  UpdateFirmwareResult WriteAndReset();
  int DownloadFirmwareIntoDevice();
  int WriteItem(const CDownloadFile& item);
  int WriteCustItem(const CDownloadFile& item);
  void CleanupAfterDownload();
  std::optional<int> CloseChannelThatWasLeftOpen();

  // The boot's steps.
  static bool RetryBudgetSpent();
  void SpendRetry();
  bool RequestReboot();
  bool FindFlashPort();
  int RebootModem();
  static int RebootModemByXlog4();
  bool ControlBBrst();
  bool SearchFlashPort();
  static bool CheckFlashPortImplementation(CFirmwareDownloader* engine, FlashPortSearch& search);
  int InjectBootTargetThread();
  bool TakeChannel();
  int OpenAndBoot(const std::string& bootFile);
  void CloseAfterFailure(const char* pauseText);

  /// Calls into the flashing library. @return nothing when it lacks the function, or the attempt was given
  /// up.
  template <typename Function, typename... Arguments>
  auto TryLibrary(Function* function, Arguments... arguments)
      -> std::optional<decltype(function(arguments...))> {
    if (function == nullptr || IsAbandoned()) return std::nullopt;
    return function(arguments...);
  }
  /// The same, where a call that was not made counts as one that failed with `failed`.
  template <typename Function, typename Result, typename... Arguments>
  Result CallLibrary(Function* function, Result failed, Arguments... arguments) {
    return static_cast<Result>(TryLibrary(function, arguments...).value_or(failed));
  }
  /// The functions of this attempt's library; none when it could not be bound for lack of memory.
  const FunctionTable& Library() const;
  char* Status() { return m_status.data(); }

  std::atomic<bool> m_abandoned{false};
  SRWLOCK m_abandonLock = SRWLOCK_INIT;
  const std::uint64_t m_attempt = FlashChannel::NewAttempt();

  std::shared_ptr<FlashLibrary> m_library;
  StatusText m_status{};

  int m_CurrentProgress = 0;
  int m_LastProgressUpdate = 0;
  CTString m_FirmwareFile;
  CTString m_CustFile;
  std::uint32_t m_ProgressBars = 0;
  const CDownloadFile* m_DownloadingFile = nullptr;
  CTString m_downloadLogFile;
  std::vector<std::unique_ptr<CDownloadFile>> m_downloadList;

  CTString m_COMPort;
  std::atomic<bool> m_searchFlashPort{false};
  std::atomic<int> m_bootResult{kBootFailed};
  std::uint32_t m_bootWord = 0;
  /// The channel of the last attempt until this one has its own: a session that fails before its boot closes
  /// that one.
  std::atomic<std::uint8_t> m_commChannel{FlashChannel::Last()};
  std::atomic<bool> m_channelTaken{false};
};
