#include "hosts/flashlog/input_reader.h"

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <mutex>
#include <thread>

namespace hosts::flashlog {

namespace {

constexpr std::size_t kPieceSize = std::size_t{64} * 1024;
/// What may wait to be taken.
constexpr std::size_t kMostBytes = std::size_t{1024} * 1024;

}  // namespace

/// Of the reader and its thread, which may outlive it.
struct InputReader::Shared {
  /// Tells the end.
  void End(DWORD why) {
    const std::lock_guard lock(mutex);
    // Whoever writes to a pipe closes it at the end; that is told as an error.
    if (why != ERROR_BROKEN_PIPE && why != ERROR_HANDLE_EOF) error = why;
    hasEnded = true;
    changed.notify_all();
  }

  std::mutex mutex;
  std::condition_variable changed;
  std::string bytes;
  bool hasEnded = false;
  DWORD error = ERROR_SUCCESS;
};

InputReader::InputReader() : m_Shared(std::make_shared<Shared>()) {
  std::thread([input = ::GetStdHandle(STD_INPUT_HANDLE), shared = m_Shared] {
    try {
      ReadToTheEnd(input, *shared);
    } catch (const std::exception&) {
      shared->End(ERROR_NOT_ENOUGH_MEMORY);
    }
  }).detach();
}

bool InputReader::IsReady() const {
  const std::lock_guard lock(m_Shared->mutex);
  return !m_Shared->bytes.empty() || m_Shared->hasEnded;
}

DWORD InputReader::Take(std::string& bytes) {
  std::unique_lock lock(m_Shared->mutex);
  m_Shared->changed.wait(lock, [this] { return !m_Shared->bytes.empty() || m_Shared->hasEnded; });
  bytes.clear();
  bytes.swap(m_Shared->bytes);
  m_Shared->changed.notify_all();
  return bytes.empty() ? m_Shared->error : ERROR_SUCCESS;
}

void InputReader::ReadToTheEnd(HANDLE input, Shared& shared) {
  std::string piece(kPieceSize, '\0');
  for (;;) {
    DWORD length = 0;
    if (!::ReadFile(input, piece.data(), static_cast<DWORD>(piece.size()), &length, nullptr)) {
      return shared.End(::GetLastError());
    }
    if (length == 0) return shared.End(ERROR_SUCCESS);
    std::unique_lock lock(shared.mutex);
    shared.bytes.append(piece, 0, length);
    shared.changed.notify_all();
    shared.changed.wait(lock, [&] { return shared.bytes.size() < kMostBytes; });
  }
}

}  // namespace hosts::flashlog
