#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "simulator/call_hooks.h"
#include "simulator/threads/lock.h"
#include "simulator/virtual_modem.h"

namespace simulator {

/// A call of the library to a function that stands behind a hook.
struct MadeCall {
  std::string function;
  int number = 1;            ///< among those of the function, since the recording began
  std::uintptr_t place = 0;  ///< where it was made, from the library's beginning on
  int stage = 0;             ///< how far the job was
};

/// Notes the calls that an observer of the hooks is told of. Any thread.
class CallRecord {
 public:
  /// @param state of the modem, which tells how far the job is.
  void Note(const SeenCall& call, ModemState state) noexcept;
  /// What comes now belongs to a new job.
  void BeginJob() noexcept { m_HasWritten = false; }
  /// What was noted, which is forgotten.
  /// @param library where it begins.
  std::vector<MadeCall> Take(std::uintptr_t library);

 private:
  Lock m_Lock;
  std::vector<MadeCall> m_Calls;
  std::map<std::string, int> m_Numbers;
  std::atomic<bool> m_HasWritten{false};
};

}  // namespace simulator
