#pragma once

#include <windows.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "simulator/program/configuration.h"
#include "simulator/program/scenarios/scenario.h"
#include "simulator/program/session_key.h"
#include "simulator/virtual_pc.h"

namespace benchmarks {

/// The library as a service, unmodified and in real time, in a virtual PC whose modem takes no time for
/// anything. Once per process.
class InstantService {
 public:
  /// @param folder the one that program and libraries lie in.
  /// @param logs   whether the library writes its log.
  InstantService(const std::filesystem::path& folder, simulator::Route route, bool logs);

  /// Nanoseconds from the raised flag on: to the start of the attempt's thread, and to the result.
  struct Times {
    double untilAttempt;
    double untilResult;
  };
  /// One whole flash. Throws when it fails.
  Times Flash();

  /// The waits of the procedure itself on the way of a modem that is there at once.
  static void WaitAsTheProcedure(simulator::Route route);

 private:
  std::int64_t RaiseFlagAndAwaitResult();
  int Rounds() const;

  const std::filesystem::path m_Folder;
  const simulator::Route m_Route;
  simulator::SessionKey m_Key;
  simulator::ConfigurationFile m_Configuration;
  simulator::VirtualPc m_Pc;
};

/// A key below HKEY_CURRENT_USER for this process alone.
std::wstring OwnKey(const wchar_t* suffix = L"");

}  // namespace benchmarks
