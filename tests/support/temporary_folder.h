#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>

/// An empty folder of the test's own, removed with all it holds. The simulator's work folder is for a run of
/// a program, and has that program and its libraries copied in.
class TemporaryFolder {
 public:
  explicit TemporaryFolder(const std::wstring& suffix = L"") {
    static std::atomic<int> count{0};
    const std::wstring process = std::to_wstring(::GetCurrentProcessId());
    // A process of the same number may have left a folder behind.
    do {
      m_Path = std::filesystem::temp_directory_path() /
               (L"corvel-" + process + L"-" + std::to_wstring(++count) + suffix);
    } while (!std::filesystem::create_directory(m_Path));
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& Path() const { return m_Path; }
  std::wstring File(const std::wstring& name) const { return (m_Path / name).wstring(); }

  std::wstring Write(const std::wstring& name, std::string_view bytes) const {
    std::ofstream(m_Path / name, std::ios::binary) << bytes;
    return File(name);
  }
  /// A file that reports `size` bytes without having them written.
  std::wstring WriteOfSize(const std::wstring& name, std::uintmax_t size) const {
    Write(name, "");
    std::filesystem::resize_file(m_Path / name, size);
    return File(name);
  }
  bool Holds(const std::filesystem::path& name) const { return std::filesystem::exists(m_Path / name); }
  /// The bytes of a file, also while somebody writes it; empty when there is none.
  std::string Content(const std::filesystem::path& name) const {
    std::ifstream file(m_Path / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  // The same for functions that take names in the system's ANSI code page.
  std::string File(const std::string& name) const { return (m_Path / name).string(); }
  std::string Write(const std::string& name, std::string_view bytes) const {
    return std::filesystem::path(Write(std::filesystem::path(name).wstring(), bytes)).string();
  }

 private:
  std::filesystem::path m_Path;
};
