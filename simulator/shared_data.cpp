#include "simulator/shared_data.h"

#include <stdexcept>

namespace simulator {

SharedMemory::SharedMemory(const std::wstring& name, std::size_t size)
    : m_Mapping(::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                     static_cast<DWORD>(size), name.c_str())),
      m_Mutex(::CreateMutexW(nullptr, FALSE, (name + L"-mutex").c_str())) {
  if (m_Mapping && m_Mutex) m_Address = ::MapViewOfFile(m_Mapping.get(), FILE_MAP_ALL_ACCESS, 0, 0, size);
  if (m_Address == nullptr) throw std::runtime_error("processes cannot share memory");
}

SharedMemory::~SharedMemory() {
  ::UnmapViewOfFile(m_Address);
}

void SharedMemory::Lock() const {
  const DWORD ended = ::WaitForSingleObject(m_Mutex.get(), INFINITE);
  if (ended != WAIT_OBJECT_0 && ended != WAIT_ABANDONED)
    throw std::runtime_error("the mutex of shared memory cannot be taken");
}

void SharedMemory::Unlock() const {
  ::ReleaseMutex(m_Mutex.get());
}

}  // namespace simulator
