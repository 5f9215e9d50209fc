#pragma once

#include <windows.h>

#include <stdexcept>
#include <string_view>

#include "benchmarks/scratch_folder.h"
#include "common/handles.h"

namespace benchmarks {

/// What every record costs at least: the kernel mutex, one write, the question for the size.
class BareLog {
 public:
  explicit BareLog(const ScratchFolder& folder)
      : m_Mutex(::CreateMutexW(nullptr, FALSE, nullptr)),
        m_File(::CreateFileW((folder / L"bare.log").c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                             CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr)) {
    if (m_File.get() == INVALID_HANDLE_VALUE) throw std::runtime_error("the bare log cannot be made");
  }

  void Write(std::string_view record) const {
    ::WaitForSingleObject(m_Mutex.get(), INFINITE);
    DWORD written = 0;
    ::WriteFile(m_File.get(), record.data(), static_cast<DWORD>(record.size()), &written, nullptr);
    DWORD high = 0;
    ::GetFileSize(m_File.get(), &high);
    ::ReleaseMutex(m_Mutex.get());
  }
  void LockAndUnlock() const {
    ::WaitForSingleObject(m_Mutex.get(), INFINITE);
    ::ReleaseMutex(m_Mutex.get());
  }

 private:
  corvel::UniqueHandle m_Mutex;
  corvel::UniqueHandle m_File;
};

}  // namespace benchmarks
