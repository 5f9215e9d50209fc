#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace simulator {

/// One process in the life of a fleet's PC: from the start of its service to its end, wanted or not.
struct LifeOrder {
  std::uint64_t seed = 0;
  unsigned pc = 0;
  /// How many interruptions came before.
  unsigned interruptions = 0;
  /// Nothing is wrong any more; the modem is as it was left.
  bool repaired = false;
  int requests = 1;  ///< that it may make, a standing one included
  double speed = 1.0;
  std::wstring key;  ///< below HKEY_CURRENT_USER; it is there already
};

/// What such a process ends with.
enum class LifeEnd : unsigned {
  Done = 0,
  NoEnd = 71,       ///< a job did not end, or the service did not begin
  Interrupted = 72  ///< as it was planned
};

/// What a request came to.
struct RequestEnd {
  bool isRepaired = false;
  bool wasStanding = false;  ///< an earlier process was asked
  int result = -1;           ///< "Flash_Result"; -1 for none
  int attempts = 0;
  std::chrono::milliseconds duration{0};  ///< virtual, from the request, or from the start of its service
  bool isMemoryEqual = false;
  bool isModemNormal = false;
  std::string why = {};  ///< the error behind a failure, as the log tells it

  bool Succeeded() const;
  /// Success is told, and it is none.
  bool IsFalse() const;
};

/// Runs one such process in the program's own folder, which keeps the modem and what was asked for between
/// processes. Ends the process.
[[noreturn]] void RunLife(const LifeOrder& order);
/// What the processes of a PC have noted in its folder.
std::vector<RequestEnd> ReadRequests(const std::filesystem::path& folder);

}  // namespace simulator
