#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

#include "hosts/common/handshake.h"
#include "simulator/faults.h"
#include "simulator/virtual_pc.h"

namespace simulator {

/// How the modem gets into flash mode.
enum class Route {
  Mbim,      ///< it is told to by the Mobile Broadband service
  At,        ///< it is told to by its AT port
  Bbrst,     ///< it is away, and its baseband is reset
  FlashPort  ///< it is there already
};
inline constexpr std::array<Route, 4> kRoutes{Route::Mbim, Route::At, Route::Bbrst, Route::FlashPort};
const char* NameOf(Route route);
std::optional<Route> RouteOfName(std::string_view name);

/// What lies in the firmware folder.
enum class ImageSet {
  ModemAndNvm,
  None,
  NoFolder,
  ModemOnly,
  NvmOnly,
  TwoSmall,   ///< two NVM images; the one that is listed last counts
  EmptyOnly,  ///< one image of zero length
  ModemAndEmptyNvm,
};

/// Who else has an image open from the start to the end.
enum class ImageHolder {
  Nobody,
  OwnerOfModem,  ///< denies the modem image to everybody
  OwnerOfNvm,
  ReaderOfNvm,  ///< reads the NVM image and lets others read it too
};

/// What "CorvelConfig.ini" is like.
enum class Configuration { Sound, Missing, Locked, Empty, OneLine, OddLines };

enum class Memory {
  Untouched,   ///< nothing was written
  Incomplete,  ///< something was, but it is not what the images hold
  Equal,
};
const char* NameOf(Memory memory);
/// What the modem's memory is, once it was compared with the images.
Memory MemoryAfter(VirtualModem& modem, const MemoryComparison& comparison);

/// The virtual PC and what the controlling program gives it.
struct Setup {
  Route route = Route::Mbim;
  std::optional<std::uint32_t> retryTimes = std::nullopt;
  ImageSet images = ImageSet::ModemAndNvm;
  ImageHolder holder = ImageHolder::Nobody;
  Configuration configuration = Configuration::Sound;
  /// Whether a sound configuration has the library write its log.
  bool logs = true;
  /// What is wrong with the PC and the modem; null: nothing.
  void (*faults)(VirtualPcOptions& pc) = nullptr;
};

/// The virtual PC of a setup, with the modem's memory in the folder.
VirtualPcOptions PcOptions(const Setup& setup, double speed, const std::filesystem::path& folder);

/// A text that a record of the debug log holds, and the level of that record: a trace, unless it is made by
/// one of the functions below. A number at its end is the whole number.
class LogText {
 public:
  LogText(const char* text) : LogText(text, Level::Trace) {}

  const char* Text() const { return m_Text; }
  const char* LevelWord() const;
  /// Another text of the same level.
  LogText With(const char* text) const { return LogText(text, m_Level); }

  friend LogText Error(const char* text) { return LogText(text, Level::Error); }
  friend LogText Warning(const char* text) { return LogText(text, Level::Warning); }

 private:
  enum class Level { Trace, Warning, Error };
  LogText(const char* text, Level level) : m_Text(text), m_Level(level) {}

  const char* m_Text;
  Level m_Level;
};
LogText Error(const char* text);
LogText Warning(const char* text);

/// The outcome that it must have.
struct Expectation {
  /// At the end, when the library waits for the next request. "Fls_Ready" and "Retry_Times" included.
  hosts::Handshake values = {};
  /// Download attempts that were started.
  int attempts = 0;
  /// Pulses on the baseband reset line.
  int resets = 0;
  ModemState modem = ModemState::Normal;
  Memory memory = Memory::Equal;
  /// Images that are left in the firmware folder.
  int imagesLeft = 0;
  /// Texts of the debug log in the order in which they must follow each other; others may stand between.
  std::vector<LogText> log = {};
  /// Texts that exactly one record holds.
  std::vector<LogText> once = {};
  /// Texts that no record may hold, whatever its level.
  std::vector<const char*> forbidden = {};
  /// False when the library must not begin its service at all.
  bool serviceStarts = true;
  /// Download workers that come back, abandoned ones included; nothing: as many as attempts.
  std::optional<int> workersBack = std::nullopt;
};

/// One thing that can happen to a flash. A row of the table; nothing else knows about it.
struct Scenario {
  const char* name;
  const char* group;
  const char* description;
  Setup setup = {};
  Expectation expected = {};
};

}  // namespace simulator
