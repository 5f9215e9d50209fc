#pragma once

#include <windows.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <system_error>

namespace benchmarks {

/// A folder of the process's own among the temporary ones, gone with the object.
class ScratchFolder {
 public:
  ScratchFolder()
      : m_Path(std::filesystem::temp_directory_path() /
               (L"corvel-benchmark-" + std::to_wstring(::GetCurrentProcessId()))) {
    std::filesystem::create_directories(m_Path);
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  std::filesystem::path operator/(const std::wstring& name) const { return m_Path / name; }

 private:
  std::filesystem::path m_Path;
};

/// By how much a file grows while something is done.
template <typename Work>
std::uintmax_t Growth(const std::filesystem::path& file, const Work& work) {
  std::error_code absent;
  const std::uintmax_t before = std::filesystem::file_size(file, absent);
  work();
  return std::filesystem::file_size(file) - (absent ? 0 : before);
}

}  // namespace benchmarks
