#include "simulator/call_record.h"

#include <mutex>
#include <utility>

namespace simulator {

void CallRecord::Note(const SeenCall& call, ModemState state) noexcept {
  constexpr int kStages = 100;
  if (state == ModemState::Writing) m_HasWritten = true;
  const int stage = static_cast<int>(state) + (m_HasWritten ? kStages : 0);
  const std::lock_guard lock(m_Lock);
  m_Calls.push_back(
      {call.function, ++m_Numbers[call.function], reinterpret_cast<std::uintptr_t>(call.returnsTo), stage});
}

std::vector<MadeCall> CallRecord::Take(std::uintptr_t library) {
  const std::lock_guard lock(m_Lock);
  m_Numbers.clear();
  std::vector<MadeCall> calls = std::exchange(m_Calls, {});
  for (MadeCall& call : calls) call.place -= library;
  return calls;
}

}  // namespace simulator
