#pragma once

#include <windows.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "common/tstring.h"
#include "download/downloadfile.h"
#include "download/downloadtooldll.h"
#include "toolkit/toolkit.h"

class FlashPortSearch;

/// The download engine: brings the modem into flash mode, writes the images, resets it.
///
/// One engine serves one attempt. An attempt that overran its time is abandoned, not stopped: its worker
/// still holds the engine, the library and all they use, while a new attempt has a new engine. Whoever
/// works for an abandoned engine takes no further step that anybody outside can see.
class CFirmwareDownloader : public std::enable_shared_from_this<CFirmwareDownloader> {
 public:
  /// The engine of the present attempt, made with the flashing library bound on first use. Null when the
  /// library refused the callback; the engine is there all the same for the next call.
  static std::shared_ptr<CFirmwareDownloader> GetInstance();
  /// Ends the present attempt: unbinds the library and gives the engine up.
  static void Unload();
  /// The engine of the present attempt, if there is one.
  static std::shared_ptr<CFirmwareDownloader> Current();

  ~CFirmwareDownloader();

  /// Flashes the images (either may be empty) and resets the modem.
  UpdateFirmwareResult Download(CTString firmwareFile, CTString custFile);

  /// Overall percentage, 0 to 100, from one item's percentage as the library's callback reports it.
  int GetAbsoluteProgress(const char* statusText);

  /// True once a newer attempt may be running: no step may reach the modem, the registry or shared state.
  bool IsAbandoned() const { return m_abandoned; }
  /// Does `step` unless the attempt is abandoned, and keeps it from being abandoned meanwhile.
  bool UnlessAbandoned(const std::function<void()>& step);

  static bool IsMBIMModemPresence();
  static bool IsFlashPortPresence();
  /// Asks Plug and Play to look at the whole device tree again. @return true when it was asked.
  static bool ScanForHardwareChanges();
  /// The same, with half a second before and after, for use behind a baseband reset.
  static void ScanForHardwareChangesAndSettle();

  /// Asks the running modem through the Mobile Broadband API to reboot into flash mode.
  /// @return S_OK when the modem took the command.
  HRESULT RebootModemByMbimCmd();

 private:
  CFirmwareDownloader() = default;

  std::atomic<bool> m_abandoned{false};
};
