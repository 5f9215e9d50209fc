#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>

#include "common/tstring.h"
#include "common/updatefirmwareresult.h"
#include "download/attempt.h"
#include "download/downloadlist.h"
#include "download/firmwareboot.h"

/// The download engine: brings the modem into flash mode, writes the images, resets it.
///
/// One engine serves one attempt, on one worker thread and the threads that this starts. An attempt that
/// overran its time is abandoned, not stopped: its worker still holds the engine, the library and all they
/// use, while a new attempt has a new engine. Whoever works for an abandoned engine takes no further step
/// that anybody outside can see.
class CFirmwareDownloader {
 public:
  /// The engine of the present attempt, made with the flashing library bound on first use. Null when the
  /// library refused the callback; the engine is there all the same for the next call.
  static std::shared_ptr<CFirmwareDownloader> GetInstance();
  /// The engine of the present attempt, if one was made; null otherwise.
  static std::shared_ptr<CFirmwareDownloader> Present();
  /// Ends the present attempt: unbinds the library and gives the engine up.
  static void Unload();

  /// Flashes the images (either may be empty) and resets the modem.
  UpdateFirmwareResult Download(CTString firmwareFile, CTString custFile);

  /// Overall percentage, 0 to 100, from the present item's percentage as the library's callback reports it.
  int GetAbsoluteProgress(const char* statusText);

  /// True once a newer attempt may be running.
  bool IsAbandoned() const { return m_Attempt->IsAbandoned(); }
  /// Does `step` unless the attempt is abandoned, and keeps it from being abandoned meanwhile.
  template <typename Step>
  void UnlessAbandoned(Step step) {
    m_Attempt->UnlessAbandoned(step);
  }

  static bool IsMBIMModemPresence();
  static bool IsFlashPortPresence();
  /// Asks Plug and Play to look at the whole device tree again. @return true when it was asked.
  static bool ScanForHardwareChanges();
  /// The same, with half a second before and after, for use after a baseband reset.
  static void ScanForHardwareChangesAndSettle();

  // Bringing the modem into flash mode.
  int BootDeviceInFirmwareMode();
  int MonitorFlashPort();
  int InjectBootTarget();
  /// Asks the running modem through the Mobile Broadband API to reboot into flash mode.
  /// @return S_OK when the modem took the command.
  HRESULT RebootModemByMbimCmd();
  int RebootModem();
  int RebootModemByXlog4();
  bool ControlBBrst();
  static bool CheckFlashPortImplementation(CFirmwareDownloader* engine, corvel::FlashPortSearch& search);
  int InjectBootTargetThread();

  // What the library says of the session's images.
  bool GetFlashTechnology(std::uint32_t& technology);
  bool GetFlashTechnologyOfCust(std::uint32_t& technology);
  bool GetMemoryClass(std::uint32_t& memoryClass, std::uint32_t index);
  bool GetMemoryClassOfCust(std::uint32_t& memoryClass, std::uint32_t index);

 private:
  CFirmwareDownloader();

  bool IsFirmwareFileValid();
  bool IsCustFileValid();
  bool InitializeParametersForDownload();
  bool SetUpDownloadLog();
  bool SetParameter(std::uint8_t id, std::uint32_t value);
  bool SubmitParameter(const char* function, std::uint8_t id, std::uintptr_t value);
  static bool IsPCIEdevice();
  bool MarkFirmwareFileForDownload();
  bool BringIntoFlashMode();
  UpdateFirmwareResult WriteAndReset();
  int DownloadFirmwareIntoDevice();
  int WriteItem(const CDownloadFile& item);
  int WriteCustItem(const CDownloadFile& item);
  void CleanupAfterDownload();

  std::shared_ptr<corvel::Attempt> m_Attempt;
  corvel::DownloadList m_List;
  std::shared_ptr<corvel::FirmwareBoot> m_Boot;
  CTString m_FirmwareFile;
  CTString m_CustFile;
  CTString m_DownloadLogFile;
};
