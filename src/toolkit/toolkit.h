#pragma once

#include <string>

#include "../common/toolkitexport.h"
#include "../common/tstring.h"
#include "../common/updatefirmwareresult.h"

#if defined(_MSC_VER)
#pragma warning(push)
#pragma warning(disable : 4251)  // CTString members; toolkitexport.h tells what a host needs for them.
#endif

// The platform's own types, named here so that hosts need none of its headers for this one.
struct HKEY__;

namespace corvel {
class FlashJob;
}  // namespace corvel

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
/// apart from this header.
class CORVEL_TOOLKIT_API ToolKit {
 public:
  /// The singleton, made on first use; null only when memory is exhausted. Owned by the library. Call it
  /// from one thread before anything else runs.
  static ToolKit* GetInstance();

  /// Starts service mode: loads the configuration, sets the debug log, starts the supervisor thread.
  /// A second call does nothing and returns true, even after a failed first one: look at IsConfigLoaded.
  /// @return false when the configuration cannot be loaded or the thread cannot be started.
  static bool Initialize();

  /// Prepares command-line mode: the handshake key is `HKLM\SOFTWARE\WOW6432Node\Quenta\FlashService`. Loads
  /// no configuration and starts no thread. After the first call, or after Initialize or GetInstance, it
  /// changes nothing. @return always true.
  static bool Initialize_CmdLine();

  /// Loads "CorvelConfig.ini" from the folder of the host's executable, once, and turns logging on.
  /// @param path accepted and not used.
  /// @return true when the configuration is loaded, now or before; false when the file is missing, cannot be
  /// opened or cannot be read to its end. None of its settings is used then, and the next call tries again.
  static bool LoadConfig(const wchar_t* path);
  /// True once a load has succeeded; false again after a start that could not start the supervisor.
  static bool IsConfigLoaded();
  /// Releases the configuration and leaves the COM apartment that it entered. Call it on the thread that
  /// loaded the configuration (on another one the apartment stays entered), and never while the service or a
  /// flash runs: their threads read the settings without a lock. In service mode it is not needed.
  static void CloseConfig();

  /// Switches the debug log on. Any thread, at any time.
  static void TurnLoggingOn();
  /// Switches the debug log off. Any thread, at any time.
  static void TurnLoggingOff();

  /// Names the debug log file and makes its folder (one level). The last name set wins, and loading the
  /// configuration sets one, so call LoadConfig first. Takes no lock: call it on one thread while no other
  /// thread writes a record, so not while the service or a flash runs.
  /// @param name full path in the system's ANSI code page; copied. Null or empty: no log file. A failure is
  /// not reported.
  void SetDebugLoggerFileName(const char* name);

  /// Writes one record to the debug log. Any thread.
  /// @param level    1 error, 2 warning, 3 trace; a word in the record, not a threshold.
  /// @param module   short tag of the writing component.
  /// @param function qualified name of the calling function.
  /// @param file     source file; its folder is left out of the record.
  /// @param line     line in that file.
  /// @param format   printf format, positional parameters allowed; any length. UTF-8, as its narrow
  /// arguments. The texts are only read during the call. A record that cannot be written is lost without a
  /// word, and the thread's last error stays.
  static void OutputDebug(int level, const char* module, const char* function, const char* file, int line,
                          const char* format, ...) CORVEL_PRINTF(6, 7);

  /// Folder of the host's executable with its trailing separator; empty when the system does not tell it. Any
  /// thread.
  static CTString GetInstallationDir();
  /// Sets `folder` to the installation folder, empty when the system does not tell it. Any thread, each with
  /// a text of its own. @return false although it does: callers must not take that for a failure.
  static bool GetLocalAppDataDir(CTString& folder);
  /// The same.
  static bool GetProgramDataDir(CTString& folder);
  /// The same. @return true; false only for lack of memory.
  static bool GetLocalDataToolkitDir(CTString& folder);

  /// Creates every missing folder of a path whose parts are separated by "\".
  /// @param path ANSI; null or empty makes nothing.
  /// @return true when all of them are there; false at the first part that cannot be made, and for lack of
  /// memory; the ones before it stay. Any thread, but its log record uses GetWin32ErrorStr.
  static bool MakeDirectory(const char* path);

  /// The system's message for a Win32 error as "Error code N: message", in the system's ANSI code page and
  /// cut to what fits. Without a message of the system it ends after the colon and blank.
  /// @return one process-wide buffer of 128 characters that each call overwrites, and each log record that
  /// cannot be written to its file does so too; not for two threads at once.
  static const char* GetWin32ErrorStr(unsigned long error);

  /// The next token of a text; an empty one at the end, and for lack of memory. Any thread.
  /// @param text       any narrow text; null has no token.
  /// @param delimiters a set of characters; null gives no token.
  /// @param position   in bytes, where to begin; moved past the token and the delimiters after it, -1
  ///                   at the end. Left alone when it is negative or a text is null.
  static std::string Tokenize(const char* text, const char* delimiters, int& position);

  /// True when the path ends in the extension (given with its dot), whatever the case of either; false for a
  /// path without a dot and for lack of memory. Any thread.
  static bool IsFileOfType(CTString path, CTString extension);

  /// The present m_EraseMode. Any thread once Initialize or Initialize_CmdLine is done.
  static int GetEraseMode();
  /// The present hMainKey. Any thread once Initialize or Initialize_CmdLine is done.
  static HKEY__* GetHKEYRegistryMainKey();
  /// The present mMainKey, the library's own text, which stays valid. Any thread once Initialize or
  /// Initialize_CmdLine is done.
  static const wchar_t* GetRegistryMainKey();
  /// The same of mStrKey.
  static const wchar_t* GetRegistryStrKey();
  /// Full path of the modem image that FetchModemNVMFls chose; empty without one, and for lack of memory. Not
  /// while the service or a flash runs.
  static CTString GetModemFlsFile();
  /// The same of the NVM image.
  static CTString GetNVMFlsFile();
  /// How many logs of the flashing library are kept at most. Any thread.
  static int GetMaxModemDownloadLogNum();

  // The registry handshake with the controlling program. Callers pass hMainKey and mStrKey: a root, open or
  // predefined, and the key below it. Writing is for any thread; reading is for one thread at a time, for its
  // records share a buffer. What a setter cannot store is logged and lost.

  /// Takes the handshake key from the configuration: hMainKey, mMainKey, mStrKey and mRegitstryLocation. A
  /// root that is not known leaves hMainKey as it is; lack of memory leaves what it has not come to. At
  /// start-up.
  static void GetLabelsLocation();
  /// Reads one value of up to four bytes; -255 when it cannot be read, which a value may also hold. Closes
  /// `root`, which does nothing to a predefined one, and leaves the sub-key open.
  /// @param type not used: any type is read.
  static int ReadRegistry(HKEY__* root, const wchar_t* subKey, const wchar_t* valueName, int type);
  /// Writes one 32-bit value, making the key if necessary. @return false when it could not be written.
  static bool WriteRegistry(HKEY__* root, const wchar_t* subKey, const wchar_t* valueName, int data);
  /// "Fls_Ready": 1 while the controlling program asks for a flash; -255 when it cannot be read.
  static int GetFlashReadyFlag(HKEY__* root, const wchar_t* subKey);
  /// "Retry_Times", or 3 when it cannot be read.
  static int GetFlashRetryTimes(HKEY__* root, const wchar_t* subKey);
  /// "Fls_Ready": 0 when the job is over.
  static void SetFlashReadyFlag(HKEY__* root, const wchar_t* subKey, int value);
  /// "Time_Out": what one attempt and the modem's return may take, in milliseconds.
  static void SetFlashTimeOut(HKEY__* root, const wchar_t* subKey, int milliseconds);
  /// "Flash_Progress": how much of the images is written, 0 to 100.
  static void SetFlashProcess(HKEY__* root, const wchar_t* subKey, int percent);
  /// "Flash_OnGoing": 1 while a job flashes or waits for the modem; a download that failed for good leaves it
  /// at 1 until the next pass.
  static void SetFlashOnGoingFlag(HKEY__* root, const wchar_t* subKey, int value);
  /// "Flash_Result": 0 idle, 1 flashing, 2 retrying, 3 failed, 4 succeeded.
  static void SetFlashResult(HKEY__* root, const wchar_t* subKey, int code);
  /// Blocks until "Fls_Ready" is 1, without using processor time; then returns true. What cannot be watched
  /// or read is tried again every five seconds.
  static bool MonitorFlashReadyFlag();

  // Firmware images.

  /// Chooses the modem image (10 MiB or more) and the NVM image among the "*.fls" files of a folder.
  /// The last listed of each kind wins. They become m_ModemFlsFile and m_NVMFlsFile, which are empty without
  /// one. Paths of 260 units and more are passed over.
  /// @return false when the folder is missing, holds no such file or cannot be listed to its end, and for
  /// lack of memory; true for a path that is a file, without any image.
  static bool FetchModemNVMFls(CTString folder);
  /// Deletes the chosen images; one that cannot be deleted is logged and stays. The paths are kept.
  static void DeleteFLSFiles();
  /// Deletes the first-listed files that match `pattern` until `count` remain. A file that cannot be deleted
  /// counts as deleted; a folder that cannot be listed to its end, and lack of memory, leave all the rest.
  /// @param pattern full path with wildcards in its last part; empty: nothing is deleted. Any thread.
  static void KeepLogFileNum(CTString pattern, unsigned int count);

  // The flash job.

  // The bodies of the library's threads. A host has no use for them; their parameter is not used.

  /// The supervisor thread; never returns.
  static bool MainThreadImplementation(void* unused);
  /// Worker thread: one download attempt. @return always true; the outcome is mFlashResult.
  static bool DownloadFirmwareImplementation(void* unused);
  /// Worker thread: looks for the modem once a second while m_MBIM_Modem_monitor is set.
  /// @return always true; the outcome is m_MBIM_Modem_presence.
  static bool WaitForMBIMRearrivedImplementation(void* unused);
  /// Looks at the modem's branch, logs it and sets g_bIsFiveBranch. @return always 1.
  static int GetModemBranch();
  /// Reads a text value (ANSI) into `buffer` of 1024 bytes, which is then terminated, and empty when there is
  /// none. Any thread. @return 1 when it holds "4850", else 0.
  static int CheckModemBranch(HKEY__* root, const char* subKey, const char* valueName, char* buffer);

  /// Runs one flash job on the calling thread, for a host that called Initialize_CmdLine. Waits for
  /// "Fls_Ready" as the service does.
  /// @param traceLevel below 1 turns logging off.
  /// @param ipcType    "PCIE" or "USB"; copied. Anything else, and null, means "USB".
  /// @return always false; the outcome is "Flash_Result" in the registry.
  static bool FirmwareFlash_CmdLine(int traceLevel, char* ipcType, int unused, char* unused2, char* unused3);

  // The state of the service, process-wide and without a lock. A host sets a value, if at all, before
  // Initialize or FirmwareFlash_CmdLine. While one of them runs, the library's threads use the numbers and
  // flags through std::atomic_ref; a host that looks at them meanwhile does the same. Texts are not to be
  // touched then.

  /// Root of the handshake key. Set by Initialize or Initialize_CmdLine and only read afterwards, as the
  /// three texts of its location, each of at most 511 units.
  static HKEY__* hMainKey;
  /// Prefix of that location: the root's name.
  static wchar_t mMainKey[512];
  /// Sub-key of that location.
  static wchar_t mStrKey[512];
  /// The whole location. Initialize_CmdLine leaves it alone.
  static wchar_t mRegitstryLocation[512];
  /// How many retries a job may make. Written at the start of each pass, read by supervisor and download.
  static unsigned long mRetry_times;
  /// How many retries the download has spent on recovery. Set to 0 by each pass, counted by the download.
  static unsigned long g_retry_times;
  /// Outcome of the last download attempt. Written by the download worker, read after it by the job.
  static UpdateFirmwareResult mFlashResult;
  /// Whether the modem came back. Cleared by the job, set by the watcher.
  static bool m_MBIM_Modem_presence;
  /// Whether the watcher goes on looking. Written by the job, read by the watcher.
  static bool m_MBIM_Modem_monitor;
  /// Full path of the modem image of the present or last job. Written by the job, copied by its worker.
  static CTString m_ModemFlsFile;
  /// The same of the NVM image.
  static CTString m_NVMFlsFile;
  /// Whether the baseband reset may be used. Written once, by GetModemBranch.
  static bool g_bIsFiveBranch;
  /// What GetEraseMode hands out; nothing in the library changes or uses it. The mode that a flash uses is
  /// the configuration's.
  static int m_EraseMode;

 protected:
  /// Destroys the instance, if there is one. For the library's entry routine alone.
  static void ReleaseInstance();
  /// Sets `folder` as the functions above do, and returns false like the first two. Any thread.
  static bool GetDataDir(CTString& folder, bool unused);

 private:
  friend class corvel::FlashJob;

  static bool IsMBIMModemPresence();

  static ToolKit* m_Instance;
};

#undef CORVEL_PRINTF

#if defined(_MSC_VER)
#pragma warning(pop)
#endif
