#pragma once

#include <windows.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "benchmarks/service/stopwatch.h"
#include "hosts/common/owners.h"

namespace benchmarks {

/// What lies at least between the raised flag and the first attempt: a notification of a change, the values
/// read and written, the folder searched, the flashing library loaded and bound, a thread started. On a
/// thread of its own, as long as the object lives.
class BareReaction {
 public:
  /// @param key below HKEY_CURRENT_USER, of its own.
  BareReaction(std::wstring key, std::filesystem::path images, std::filesystem::path library);
  ~BareReaction();
  BareReaction(const BareReaction&) = delete;
  BareReaction& operator=(const BareReaction&) = delete;

  /// Raises the flag. @return the time from then until the attempt's thread is about to be started.
  double React();

 private:
  void Run();
  void Answer();
  void SearchFolder() const;
  void BindLibrary();

  const std::wstring m_Key;
  const std::filesystem::path m_Images;
  const std::filesystem::path m_Library;
  const hosts::OwnedHandle m_Change{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
  const hosts::OwnedHandle m_Waits{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
  std::atomic<bool> m_Ends{false};
  Ticks m_Began{};
  std::jthread m_Thread;
};

}  // namespace benchmarks
