#pragma once

#include <windows.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "hosts/common/handshake.h"
#include "simulator/call_hooks.h"
#include "simulator/call_record.h"
#include "simulator/flash_image.h"
#include "simulator/program/configuration.h"
#include "simulator/virtual_pc.h"

namespace campaign {

/// How fast time passes for the service. Not faster: a thread that has to wait for a processor must not miss
/// the time limits of what it does.
inline constexpr int kSpeed = 200;
/// The same where processes share a clock, which does not slow down for those that wait for a processor.
inline constexpr int kSharedSpeed = 20;

/// What came of one job.
struct JobEnd {
  bool ended = false;  ///< the service waits for the next request
  hosts::Handshake values;
  bool isMemoryEqual = false;
  simulator::ModemState modem = simulator::ModemState::Dead;
  /// When "Flash_Result" was written the last time.
  simulator::ModemState modemAtResult = simulator::ModemState::Dead;
  bool isImageLeft = false;    ///< one of them at least
  bool areImagesKept = false;  ///< each of them
  bool beganAttempt = false;
  bool hasOldAttemptWritten = false;  ///< a percentage, over a newer attempt's

  bool Succeeded() const { return values.Is(hosts::FlashResult::Succeeded); }
  bool Failed() const { return values.Is(hosts::FlashResult::Failed); }
};

/// How the modem is when the service begins.
enum class Begins {
  Anew,             ///< where the route begins
  WithModemAsLeft,  ///< as an earlier process has left it when it died
};

enum class Images {
  Small,  ///< one of 64 KB
  Large,  ///< a modem image of 12 MB with nine items, and an NVM image
};

/// Where a process ends while an item is written.
enum class InItem {
  AtBlock,    ///< in the flashing library, between two blocks
  AtNextCall  ///< at the first call of the library behind the block
};

struct ServicePlan {
  simulator::Route route = simulator::Route::Mbim;
  bool log = false;
  Images images = Images::Small;
  std::wstring key;  ///< is there already; whoever made it removes it
  Begins begins = Begins::Anew;
  unsigned hosts = 1;  ///< 2: a second one in the session, on the same key and with the same modem
  /// By which name this process shares modem and named objects with others; empty for a modem of its own.
  std::wstring sharedBy{};
  std::filesystem::path folder{};  ///< of images and the modem's memory; empty for the program's
};
/// What the virtual PC of such a service is like.
simulator::VirtualPcOptions PcOf(const ServicePlan& plan);
/// Where the modem is when a job begins on that route.
simulator::ModemState BeginOf(simulator::Route route);

/// The service of this process in its virtual PC, and the controlling program in front of it. Once per
/// process.
class Service {
 public:
  explicit Service(const ServicePlan& plan);

  simulator::VirtualPc& Pc() { return m_Pc; }
  simulator::CallHooks& Hooks() { return m_Pc.Hooks(); }

  /// Loads the library. @return null, with the last error set, when it cannot be loaded.
  HMODULE Load();
  /// Loads it. @return false when it does not come to wait for a request, with all done that was asked for
  /// before.
  bool Begin();
  /// Brings the modem to where the route begins.
  void PutModemWhereTheRouteBegins();
  /// Lays other images each time, with those bytes.
  void LayImages(std::uint32_t seed);
  /// The images that an earlier process laid.
  void ExpectImages(std::uint32_t seed);
  /// Takes back what the last job has left in the registry, as the host of the command line does.
  void ForgetLastJob();
  /// Raises the flag.
  void Request();
  /// Does that and waits until the job is done, or it is given up.
  JobEnd Run(const std::function<bool()>& giveUp = {});
  /// Goes on to wait for the end of a job that was given up.
  JobEnd GoOn();
  /// Is told of every call, too, once the service has begun; null for nobody.
  static void AlsoTell(simulator::CallHooks::Observer observer);
  /// Sends items in blocks of that size, and ends the process when so many of them are in the modem's memory.
  void EndProcessInItem(std::uint32_t blockSize, std::size_t blocks, InItem when, unsigned exitCode);
  /// Ends the process at the next call of a function; its name has to live on.
  static void EndProcessBefore(const char* function, unsigned exitCode);
  hosts::Handshake Values() const { return hosts::ReadHandshake(m_Key); }
  /// What the handshake and the modem say now.
  JobEnd Look(bool ended);
  /// Until the service waits for a request with nothing left to do. @return false when it does not.
  bool AwaitRest(unsigned formerWaits);
  /// How often it began to wait so; of two hosts both together.
  static unsigned Waits();
  /// Whether all hosts of this process wait so.
  static bool Rests();
  /// The thread that serves the requests, of the host that began first; 0 before its first wait.
  static DWORD Supervisor();
  /// Keys that were read from and are still open. Reading leaves them so, as it is meant to.
  static std::size_t KeysLeftOpenByReads();
  /// From now on each call is noted, or no longer.
  static void Record(bool calls);
  /// What was noted, which is forgotten.
  std::vector<simulator::MadeCall> TakeRecord() const;

 private:
  bool LoadSecondHost();
  bool IsAtRest(unsigned formerWaits) const;
  void LookAtImages(JobEnd& end) const;
  simulator::MemoryComparison Compare();

  const std::filesystem::path m_Folder;
  const ServicePlan m_Plan;
  const std::filesystem::path m_Images;
  const hosts::HandshakeKey m_Key;
  std::unique_ptr<simulator::ConfigurationFile> m_Configuration;
  simulator::VirtualPc m_Pc;
  simulator::FlashImage m_Modem;  ///< of large images
  simulator::FlashImage m_Nvm;
  unsigned m_WaitsBefore = 0;
};

/// Looks again and again. @return false when the condition does not come in that time.
bool BecomesWithin(std::chrono::seconds patience, const std::function<bool()>& condition);

/// A word that stands alone, and what is set by it.
struct Switch {
  std::string_view word;
  bool* chosen;
};
/// What becomes of a word and its value. @return false when they mean nothing.
using ValueTaker = std::function<bool(std::string_view word, std::string_view value)>;
/// Takes a campaign's command line. @return false, told on standard error, when a word means nothing.
bool TakeWords(const char* program, std::span<char* const> words, std::span<const Switch> switches,
               const ValueTaker& takeValue);

/// What becomes of such a value. @return false when it is none.
bool TakeNumber(std::string_view value, std::size_t& number);
bool TakeText(std::string_view value, std::string& text);

/// Ends this process with its service, which would go on otherwise.
[[noreturn]] void EndProcess(int status);

}  // namespace campaign
