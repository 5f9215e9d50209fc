#pragma once

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

/// An empty folder of the test's own, removed with all it holds.
class TemporaryFolder {
 public:
  explicit TemporaryFolder(const std::wstring& suffix = L"") {
    static int count = 0;
    m_path = std::filesystem::temp_directory_path() / (L"corvel-" + std::to_wstring(::GetCurrentProcessId()) +
                                                       L"-" + std::to_wstring(++count) + suffix);
    std::filesystem::create_directories(m_path);
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& Path() const { return m_path; }
  std::wstring File(const std::wstring& name) const { return (m_path / name).wstring(); }

  std::wstring Write(const std::wstring& name, std::string_view bytes) const {
    std::ofstream(m_path / name, std::ios::binary) << bytes;
    return File(name);
  }
  /// A file that reports `size` bytes without having them written.
  std::wstring WriteOfSize(const std::wstring& name, std::uintmax_t size) const {
    Write(name, "");
    std::filesystem::resize_file(m_path / name, size);
    return File(name);
  }
  bool Holds(const std::wstring& name) const { return std::filesystem::exists(m_path / name); }

 private:
  std::filesystem::path m_path;
};
