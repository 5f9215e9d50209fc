#pragma once

#include <windows.h>

#include <filesystem>
#include <memory>
#include <string>

#include "scenario.h"

/// "CorvelConfig.ini" of one run, in the folder of the running program.
class ConfigurationFile {
 public:
  ConfigurationFile(const std::filesystem::path& folder, const Setup& setup,
                    const std::wstring& registry_location, const std::filesystem::path& firmware_folder);

 private:
  struct FileCloser {
    using pointer = HANDLE;
    void operator()(HANDLE file) const noexcept { ::CloseHandle(file); }
  };
  std::unique_ptr<void, FileCloser> m_lock;
};
