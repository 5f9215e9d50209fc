#pragma once

namespace corvel {

/// What the engine needs of the service that it works for. The numbers and flags are the service's own; every
/// thread reaches them through std::atomic_ref.
struct FlashService {
  /// What the job's attempts have spent on recovery, and how much they may.
  unsigned long* retriesSpent = nullptr;
  unsigned long* retryLimit = nullptr;
  /// Whether the baseband reset may be used.
  bool* resetAllowed = nullptr;
  /// Tells the controlling program the overall percentage. Any thread.
  void (*reportProgress)(int percent) = nullptr;
};

/// Called once, while the module is loaded: before any thread asks for it.
void RegisterFlashService(const FlashService& service);
const FlashService& Service();

}  // namespace corvel
