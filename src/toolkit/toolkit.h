#pragma once

#include <string>

#include "common/toolkitexport.h"
#include "common/tstring.h"
#include "common/updatefirmwareresult.h"

#if defined(_MSC_VER)
#pragma warning(push)
#pragma warning(disable : 4251)  // CTString members; toolkitexport.h tells what a host needs for them.
#endif

// The platform's own types, named here so that hosts need none of its headers for this one.
struct HKEY__;

// For this header alone.
#if defined(__GNUC__) && !defined(__clang__)
#define CORVEL_PRINTF(text, first) __attribute__((format(ms_printf, text, first)))
#elif defined(__GNUC__)
#define CORVEL_PRINTF(text, first) __attribute__((format(printf, text, first)))
#else
#define CORVEL_PRINTF(text, first)
#endif

/// The library's face towards its host: static services and the process-wide state of the flash service.
///
/// Loading the library into any host but the command-line tool starts the service by itself: the entry
/// routine calls Initialize, which runs the supervisor thread for the rest of the process. The loading
/// thread is put into the multithreaded COM apartment; load from a thread meant for it.
///
/// Narrow texts are UTF-8 unless said otherwise. Nothing here throws: lack of memory is the failure that the
/// function documents, or an empty text.
///
/// Threads: where nothing else is said, a function belongs to start-up and is called by one thread before
/// Initialize or between two flashes of FirmwareFlash_CmdLine. common/toolkitexport.h tells what a host needs
/// besides this header.
class CORVEL_TOOLKIT_API ToolKit {
 public:
  /// The singleton, made on first use; null only when memory is exhausted. Owned by the library. Call it
  /// from one thread before anything else runs.
  static ToolKit* GetInstance();

  /// Starts service mode: loads the configuration, sets the debug log, starts the supervisor thread.
  /// A second call does nothing and returns true, even after a failed first one: look at IsConfigLoaded.
  /// @return false when the configuration cannot be loaded or the thread cannot be started.
  static bool Initialize();

  /// Prepares command-line mode: the handshake key is HKLM\SOFTWARE\WOW6432Node\Quenta\FlashService. Loads
  /// no configuration and starts no thread. @return always true.
  static bool Initialize_CmdLine();

  /// Loads "CorvelConfig.ini" from the folder of the host's executable, once, and turns logging on.
  /// @param path accepted and not used.
  /// @return true when the configuration is loaded, now or before; false when the file is missing, cannot be
  /// opened or cannot be read to its end. None of its settings is used then, and the next call tries again.
  static bool LoadConfig(const wchar_t* path);
  /// True once a load has succeeded.
  static bool IsConfigLoaded();
  /// Releases the configuration and leaves the COM apartment that it entered. Call it on the thread that
  /// loaded the configuration (on another one the apartment stays entered), and never while the service or a
  /// flash runs: their threads read the settings without a lock. In service mode it is not needed.
  static void CloseConfig();

  /// These switch the debug log. Any thread, at any time.
  static void TurnLoggingOn();
  static void TurnLoggingOff();

  /// Names the debug log file and makes its folder (one level). The last name set wins, and loading the
  /// configuration sets one, so call LoadConfig first. Takes no lock: call it on one thread while no other
  /// thread writes a record, so not while the service or a flash runs.
  /// @param name full path in the system's ANSI code page; copied. Null or empty: no log file.
  void SetDebugLoggerFileName(const char* name);

  /// Writes one record to the debug log. Any thread.
  /// @param level    1 error, 2 warning, 3 trace; a word in the record, not a threshold.
  /// @param module   short tag of the writing component.
  /// @param function qualified name of the calling function.
  /// @param file     source file; its folder is left out of the record.
  /// @param format   printf format, positional parameters allowed; any length.
  static void OutputDebug(int level, const char* module, const char* function, const char* file, int line,
                          const char* format, ...) CORVEL_PRINTF(6, 7);

  /// Folder of the host's executable with its trailing separator; empty when it cannot be had. Any thread.
  static CTString GetInstallationDir();
  /// These set `folder` to the installation folder. The first two return false although they do: callers
  /// must not take that for a failure. The last returns true, and false only for lack of memory. Any thread.
  static bool GetLocalAppDataDir(CTString& folder);
  static bool GetProgramDataDir(CTString& folder);
  static bool GetLocalDataToolkitDir(CTString& folder);

  /// Creates every missing folder of a path whose parts are separated by "\".
  /// @param path ANSI. @return false at the first part that cannot be made; the ones before it stay. Any
  /// thread, but its log record uses GetWin32ErrorStr.
  static bool MakeDirectory(const char* path);

  /// The system's message for a Win32 error as "Error code N: message".
  /// @return one process-wide buffer of 128 characters that each call overwrites; not for two threads at
  /// once.
  static const char* GetWin32ErrorStr(unsigned long error);

  /// The next token of a text; an empty one at the end, and for lack of memory. Any thread.
  /// @param delimiters a set of characters.
  /// @param position   where to begin; moved behind the token and the delimiters after it, -1 at the end.
  static std::string Tokenize(const char* text, const char* delimiters, int& position);

  /// True when the path ends in the extension (given with its dot), whatever the case of either. Any thread.
  static bool IsFileOfType(CTString path, CTString extension);

  static int GetEraseMode();
  static HKEY__* GetHKEYRegistryMainKey();
  static const wchar_t* GetRegistryMainKey();
  static const wchar_t* GetRegistryStrKey();
  /// The images that FetchModemNVMFls chose; empty without one. Not while the service or a flash runs.
  static CTString GetModemFlsFile();
  static CTString GetNVMFlsFile();
  /// How many logs of the flashing library are kept at most.
  static int GetMaxModemDownloadLogNum();

  // The registry handshake with the controlling program. Callers pass hMainKey and mStrKey.

  /// Takes the handshake key from the configuration.
  static void GetLabelsLocation();
  /// Reads one 32-bit value; -255 when it cannot be read. Closes `root`, which does nothing to a predefined
  /// one, and leaves the sub-key open.
  static int ReadRegistry(HKEY__* root, const wchar_t* subKey, const wchar_t* valueName, int type);
  /// Writes one 32-bit value, making the key if need be. @return false when it could not be written.
  static bool WriteRegistry(HKEY__* root, const wchar_t* subKey, const wchar_t* valueName, int data);
  static int GetFlashReadyFlag(HKEY__* root, const wchar_t* subKey);
  /// "Retry_Times", or 3 when it cannot be read.
  static int GetFlashRetryTimes(HKEY__* root, const wchar_t* subKey);
  static void SetFlashReadyFlag(HKEY__* root, const wchar_t* subKey, int value);
  static void SetFlashTimeOut(HKEY__* root, const wchar_t* subKey, int milliseconds);
  static void SetFlashProcess(HKEY__* root, const wchar_t* subKey, int percent);
  static void SetFlashOnGoingFlag(HKEY__* root, const wchar_t* subKey, int value);
  static void SetFlashResult(HKEY__* root, const wchar_t* subKey, int code);
  /// Blocks until "Fls_Ready" is 1, without using processor time; then returns true. What cannot be watched
  /// or read is tried again every five seconds.
  static bool MonitorFlashReadyFlag();

  // Firmware images.

  /// Chooses the modem image (10 MiB or more) and the NVM image among the "*.fls" files of a folder.
  /// @return false when the folder is missing, holds no such file or cannot be listed to its end.
  static bool FetchModemNVMFls(CTString folder);
  /// Deletes the chosen images.
  static void DeleteFLSFiles();
  /// Deletes the first-listed files that match `pattern` until `count` remain.
  static void KeepLogFileNum(CTString pattern, unsigned int count);

  // The flash job.

  /// The supervisor thread; never returns.
  static bool MainThreadImplementation(void* unused);
  /// Worker thread: one download attempt. @return always true; the outcome is mFlashResult.
  static bool DownloadFirmwareImplementation(void* unused);
  /// Worker thread: looks for the modem once a second while m_MBIM_Modem_monitor is set.
  /// @return always true; the outcome is m_MBIM_Modem_presence.
  static bool WaitForMBIMRearrivedImplementation(void* unused);
  /// Decides the modem branch once. @return always 1.
  static int GetModemBranch();
  /// Reads a text value (ANSI) into `buffer` of 1024 bytes. @return 1 when it holds "4850", else 0.
  static int CheckModemBranch(HKEY__* root, const char* subKey, const char* valueName, char* buffer);

  /// Runs one flash job on the calling thread, for a host that called Initialize_CmdLine. Waits for
  /// "Fls_Ready" as the service does.
  /// @param traceLevel below 1 turns logging off.
  /// @param ipcType    "PCIE" or "USB"; copied.
  /// @return always false; the outcome is "Flash_Result" in the registry.
  static bool FirmwareFlash_CmdLine(int traceLevel, char* ipcType, int unused, char* unused2, char* unused3);

  // The state of the service, process-wide and without a lock. A host sets a value, if at all, before
  // Initialize or FirmwareFlash_CmdLine. While one of them runs, the library's threads use the numbers and
  // flags through std::atomic_ref; a host that looks at them meanwhile does the same. Texts are not to be
  // touched then.

  /// The handshake key: root, and its location as prefix, sub-key and whole text. Set by Initialize or
  /// Initialize_CmdLine and only read afterwards.
  static HKEY__* hMainKey;
  static wchar_t mMainKey[512];
  static wchar_t mStrKey[512];
  static wchar_t mRegitstryLocation[512];
  /// How many retries a job may make. Written at the start of each pass, read by supervisor and download.
  static unsigned long mRetry_times;
  /// What the download has spent on recovery. Set to 0 by each pass, counted by the download.
  static unsigned long g_retry_times;
  /// Outcome of the last download attempt. Written by the download worker, read behind it by the job.
  static UpdateFirmwareResult mFlashResult;
  /// Whether the modem came back. Cleared by the job, set by the watcher.
  static bool m_MBIM_Modem_presence;
  /// Whether the watcher goes on looking. Written by the job, read by the watcher.
  static bool m_MBIM_Modem_monitor;
  /// Full paths of the images of the present or last job. Written by the job, copied by its worker.
  static CTString m_ModemFlsFile;
  static CTString m_NVMFlsFile;
  /// Whether the baseband reset may be used. Written once, by GetModemBranch.
  static bool g_bIsFiveBranch;
  /// What GetEraseMode hands out; nothing in the library changes or uses it.
  static int m_EraseMode;

 protected:
  static void ReleaseInstance();
  static bool GetDataDir(CTString& folder, bool unused);

 private:
  friend class FlashJob;

  static bool IsMBIMModemPresence();

  static ToolKit* m_Instance;
};

#undef CORVEL_PRINTF

#if defined(_MSC_VER)
#pragma warning(pop)
#endif
