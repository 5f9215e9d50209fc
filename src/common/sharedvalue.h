#pragma once

#include <atomic>

namespace corvel {

/// One of the exported process-wide values that several threads use at once. It keeps its plain type for the
/// hosts; the library reaches it through this alone.
template <typename Value>
std::atomic_ref<Value> Shared(Value& value) noexcept {
  return std::atomic_ref<Value>(value);
}

}  // namespace corvel
