#pragma once

#include <windows.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "common/handles.h"

namespace simulator {

/// Memory that all who know its name have in common, in whichever process of the session, and a mutex of
/// theirs. It goes with the last of them.
class SharedMemory {
 public:
  /// Gives std::runtime_error when the system refuses. The first one finds the memory filled with 0.
  SharedMemory(const std::wstring& name, std::size_t size);
  ~SharedMemory();
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;

  void* Address() const { return m_Address; }
  /// Takes the mutex, from a holder that has died as well.
  void Lock() const;
  void Unlock() const;

 private:
  corvel::UniqueHandle m_Mapping;
  corvel::UniqueHandle m_Mutex;
  void* m_Address = nullptr;
};

/// Plain data in such memory. Whoever takes it has it alone until he puts it back. One that dies meanwhile
/// has changed nothing, and one that dies while he puts it back has changed nothing or all.
template <typename Data>
class SharedData {
  static_assert(std::is_trivially_copyable_v<Data>);

 public:
  /// @param initial what the first one puts there.
  SharedData(const std::wstring& name, const Data& initial)
      : m_Memory(name, sizeof(Copies)), m_Copies(static_cast<Copies*>(m_Memory.Address())) {
    m_Memory.Lock();
    if (m_Copies->isFilled == 0) {
      Write(initial);
      m_Copies->isFilled = 1;
    }
    m_Memory.Unlock();
  }

  Data Take() const {
    m_Memory.Lock();
    Data data;
    std::memcpy(&data, m_Copies->bytes[m_Copies->valid].data(), sizeof data);
    return data;
  }
  void PutBack(const Data& data) {
    Write(data);
    m_Memory.Unlock();
  }

 private:
  /// The one that is valid is never written to.
  struct Copies {
    std::atomic<std::uint32_t> isFilled;
    std::atomic<std::uint32_t> valid;
    std::array<std::array<std::byte, sizeof(Data)>, 2> bytes;
  };

  void Write(const Data& data) {
    const std::uint32_t other = 1 - m_Copies->valid;
    std::memcpy(m_Copies->bytes[other].data(), &data, sizeof data);
    m_Copies->valid = other;
  }

  SharedMemory m_Memory;
  Copies* m_Copies;
};

}  // namespace simulator
