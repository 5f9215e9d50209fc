#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "simulator/faults.h"
#include "simulator/flash_image.h"
#include "simulator/process_identity.h"
#include "simulator/shared_data.h"
#include "simulator/threads/lock.h"
#include "simulator/virtual_clock.h"

namespace simulator {

enum class ModemState {
  Normal,       ///< present as Mobile Broadband modem and AT port
  Leaving,      ///< took a reboot command, still present
  Restarting,   ///< away, on the way to flash mode; as initial state: away until a baseband reset
  FlashPort,    ///< flash port present, nobody has it open
  ChannelOpen,  ///< somebody opened the flash port
  Booted,       ///< the boot file runs
  Writing,      ///< in the middle of an item
  Returning,    ///< away, on the way to normal mode
  Dead          ///< away for good
};
const char* NameOf(ModemState state);

/// How long the modem takes, in virtual time.
struct ModemTiming {
  Milliseconds leaving{3000};     ///< reboot command taken, still present
  Milliseconds restarting{4000};  ///< away until the flash port comes, also after a baseband reset
  Milliseconds openPort{300};
  Milliseconds boot{1500};
  Milliseconds returning{6000};  ///< away until it is back in normal mode
  /// After a baseband reset the boot loader waits that long for somebody to open the port; then the modem
  /// starts normally. A modem that was told to go into flash mode stays there.
  Milliseconds bootLoaderWindow{10000};
  std::uint32_t bytesPerSecond = 1'000'000;
  Milliseconds driverAnswer{100};  ///< what the driver takes to complete what it completes
};

enum class JournalEvent {
  AtCommand,
  MbimReboot,
  BasebandReset,
  FlashPortOpened,
  FlashPortRefused,
  Booted,
  BootRefused,
  ItemWritten,
  ItemRefused,
  FlashPortClosed,
  ForcedReset,
  StateChanged,
  LibraryLoaded,
  LibraryUnloaded,
  LibraryCall,
  Reenumeration
};
const char* NameOf(JournalEvent event);

/// One thing that happened, with the virtual time at which it did.
struct JournalEntry {
  Milliseconds time{0};
  JournalEvent event = JournalEvent::StateChanged;
  std::string detail;
};

/// Where the modem's memory differs from the images.
struct MemoryComparison {
  bool equal = false;
  std::uint32_t items = 0;  ///< compared
  std::uint64_t bytes = 0;  ///< compared
  std::string difference;   ///< the first one, in words; empty when equal
};

/// What of a modem changes, its memory apart. Plain data, since processes may share it.
struct ModemData {
  static constexpr Milliseconds kNoEnd = Milliseconds::max();

  struct Item {
    ImageItem announced;
    std::uint32_t written = 0;
    std::uint32_t crc = 0;
    Milliseconds begun{0};
  };

  ModemState state = ModemState::Normal;
  Milliseconds stateEnds{kNoEnd};
  bool staysInFlashMode = true;
  int flashModeStarts = 0;
  int resetsUntilReturn = 0;
  bool returnsWhenWaitExpires = false;
  std::uint32_t session = 0;
  std::uint32_t lastSession = 0;
  ProcessIdentity sessionUser;
  ProcessIdentity atPortUser;
  bool isBooted = false;
  std::optional<Item> item;
  std::uint32_t itemsWritten = 0;
  std::uint64_t bytesWritten = 0;
};

/// How several processes drive one modem.
struct ModemSharing {
  std::wstring name;  ///< by which they meet; empty for a modem of this process alone
  ProcessIdentity user = ThisProcess();
};

/// The modem: one state machine that is brought up to date by the clock whenever somebody looks. It has its
/// own flash memory in a file and refuses what a modem refuses. Any thread.
///
/// One that is shared is the same in all processes that name it, with one memory file and clocks that agree.
/// What a process has open of it is closed once that process has died, and what is typed on the AT port and
/// not yet sent goes with it.
class VirtualModem {
 public:
  static constexpr std::uint32_t kMemorySize = 16 * 1024 * 1024;
  static constexpr std::uint32_t kUsualBlockSize = 64 * 1024;
  using Journal = std::function<void(JournalEvent, std::string)>;

  VirtualModem(const VirtualClock& clock, std::filesystem::path memoryFile, ModemTiming timing,
               ModemFaults faults, ModemState initial, Journal journal, const ModemSharing& sharing = {});

  ModemState State();
  /// Puts it into a state, as if it had been brought there by something else. Whoever is connected with it is
  /// no longer.
  void Put(ModemState state);
  /// From now on a file tells in which state the modem is, so that it can outlive the process that plays it.
  void KeepStateIn(std::filesystem::path file);
  /// Where the process with that file in its hands has left the modem when it died: nobody holds the port any
  /// more, but a modem that was booted refuses everybody until it is reset. Normal without a file.
  static ModemState StateLeftIn(const std::filesystem::path& file);
  /// What becomes of it when nobody touches it any more, however long that takes.
  ModemState ComeToRest();
  bool IsPresentAsModem();
  bool IsPresentAsFlashPort();

  /// The AT port has one user. @return false when there is one.
  bool TakeAtPort();
  void GiveAtPortBack();
  /// Bytes on the AT port; a complete "at+xlog=4\r" reboots into flash mode. @return what the modem replies.
  std::string HearAtBytes(std::span<const std::uint8_t> bytes);
  /// The reboot command of the Mobile Broadband device service. @return false when it is not in normal mode.
  bool RebootByMbim();
  /// The pulse on the baseband reset line: flash mode, from every state.
  void ResetBaseband();
  /// The product gave up waiting for the modem.
  void WaitForReturnExpired();

  /// Opens the flash port for one user. @return a session, 0 when the modem refuses.
  std::uint32_t OpenPort();
  void ClosePort(std::uint32_t session);
  /// Takes the header and table of contents of a boot file. @return false when the modem refuses.
  bool Boot(std::uint32_t session, std::span<const std::uint8_t> header);
  bool BeginItem(std::uint32_t session, const ImageItem& item);
  bool WriteBlock(std::uint32_t session, std::span<const std::uint8_t> bytes);
  /// How many bytes of an item the modem takes at a time; the flashing library asks.
  std::uint32_t BlockSize();
  /// Changes that, and tells somebody of each block that has come into the memory, and how much of its item
  /// is there by then: on the thread that sends it.
  using BlockObserver = std::function<void(std::uint32_t written)>;
  void TakeInBlocks(std::uint32_t size, BlockObserver observer);
  /// Ends an item. @return false when size or checksum of what came is not what was announced.
  bool EndItem(std::uint32_t session);
  /// Restarts into normal mode. @return false when the session is over.
  bool ForceReset(std::uint32_t session);

  std::uint32_t ItemsWritten();
  std::uint64_t BytesWritten();
  std::vector<std::uint8_t> Memory();
  /// Whether nothing was ever written.
  bool IsErased();
  /// Compares the memory with what a flash of these images leaves there: all items of the modem image, or of
  /// the only image; the first item of an NVM image that goes with a modem image.
  MemoryComparison CompareWith(const FlashImage* modem, const FlashImage* nvm);

 private:
  static constexpr Milliseconds kNoEnd = ModemData::kNoEnd;

  /// One call of somebody's: under the lock, and with what the other processes have made of the modem.
  class Turn;

  // All of these are called in a turn.
  void LetGoOfTheDead();
  void Advance();
  void AdvanceTo(Milliseconds moment);
  void Enter(ModemState state, Milliseconds ends = kNoEnd);
  void KeepState();
  void EnterRestarting(Milliseconds since);
  void EnterFlashPort(Milliseconds since);
  void EndSession();
  bool LeaveForFlashMode();
  void ReturnToNormal();
  std::string Obey(const std::string& command);
  bool IsOpen(std::uint32_t session) const;
  bool Refuse(JournalEvent event, const std::string& reason);
  bool StoreBlock(std::uint32_t offset, std::span<const std::uint8_t> bytes);

  const VirtualClock& m_Clock;
  std::filesystem::path m_MemoryFile;
  ModemTiming m_Timing;
  ModemFaults m_Faults;
  Journal m_Journal;

  Lock m_Mutex;
  ModemData m_Data;
  const ProcessIdentity m_User;
  std::unique_ptr<SharedData<ModemData>> m_Shared;  ///< null for a modem of this process alone
  std::filesystem::path m_StateFile;
  std::fstream m_Memory;
  std::uint32_t m_BlockSize = kUsualBlockSize;
  BlockObserver m_BlockObserver;
  std::string m_AtInput;
};

}  // namespace simulator
