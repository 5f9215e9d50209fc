#pragma once

#include <windows.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "hosts/common/handshake.h"
#include "simulator/call_hooks.h"
#include "simulator/flash_image.h"
#include "simulator/program/configuration.h"
#include "simulator/virtual_pc.h"

namespace campaign {

/// What came of one job.
struct JobEnd {
  bool ended = false;  ///< the service waits for the next request
  hosts::Handshake values;
  bool isMemoryEqual = false;
  simulator::ModemState modem = simulator::ModemState::Dead;
  /// When "Flash_Result" was written the last time.
  simulator::ModemState modemAtResult = simulator::ModemState::Dead;
  bool isImageLeft = false;
  bool sawImage = false;  ///< it began an attempt with it

  bool Succeeded() const { return values.Is(hosts::FlashResult::Succeeded); }
  bool Failed() const { return values.Is(hosts::FlashResult::Failed); }
};

/// How the modem is when the service begins.
enum class Begins {
  Anew,             ///< where the route begins
  WithModemAsLeft,  ///< as an earlier process has left it when it died
};

/// The service of this process in its virtual PC, and the controlling program in front of it. Once per
/// process.
class Service {
 public:
  /// @param key is there already; whoever made it removes it.
  Service(simulator::Route route, bool log, const std::wstring& key, Begins begins = Begins::Anew);

  simulator::VirtualPc& Pc() { return m_Pc; }
  simulator::CallHooks& Hooks() { return m_Pc.Hooks(); }

  /// Loads the library. @return false when it does not come to wait for a request, with all done that was
  /// asked for before.
  bool Begin();
  /// Brings the modem to where the route begins.
  void PutModemWhereTheRouteBegins();
  /// Lays another image each time, a small one, with those bytes.
  void LayImage(std::uint32_t seed);
  /// The image that an earlier process laid.
  void ExpectImage(std::uint32_t seed);
  /// Raises the flag and waits until the job is done.
  JobEnd Run();
  /// Is told of every call, too, once the service has begun; null for nobody.
  static void AlsoTell(simulator::CallHooks::Observer observer);
  /// Ends the process when so many calls of the library have begun while an item was written.
  static void EndProcessWhileWriting(unsigned calls, unsigned exitCode);
  hosts::Handshake Values() const { return hosts::ReadHandshake(m_Key); }
  /// What the handshake and the modem say now.
  JobEnd Look(bool ended);
  /// Until the service waits for a request with nothing left to do. @return false when it does not.
  bool AwaitRest(unsigned formerWaits);
  /// How often it began to wait so.
  static unsigned Waits();

 private:
  bool IsImageLeft() const;

  const std::filesystem::path m_Folder;
  const simulator::Route m_Route;
  const hosts::HandshakeKey m_Key;
  std::unique_ptr<simulator::ConfigurationFile> m_Configuration;
  simulator::VirtualPc m_Pc;
  simulator::FlashImage m_Image;
};

/// What becomes of a word that stands alone, and of one with its value. @return false when it means nothing.
using SwitchTaker = std::function<bool(std::string_view word)>;
using ValueTaker = std::function<bool(std::string_view word, std::string_view value)>;
/// Takes a campaign's command line. @return false, told on standard error, when a word means nothing.
bool TakeWords(const char* program, std::span<char* const> words, const SwitchTaker& takeSwitch,
               const ValueTaker& takeValue);

/// Ends this process with its service, which would go on otherwise.
[[noreturn]] void EndProcess(int status);

}  // namespace campaign
