#pragma once

#include <windows.h>

#include <filesystem>
#include <memory>
#include <string>

#include "simulator/program/scenario.h"

namespace simulator {

/// "CorvelConfig.ini" of one run, in the folder of the running program.
class ConfigurationFile {
 public:
  ConfigurationFile(const std::filesystem::path& folder, const Setup& setup,
                    const std::wstring& registryLocation, const std::filesystem::path& firmwareFolder);

 private:
  struct FileCloser {
    using pointer = HANDLE;
    void operator()(HANDLE file) const noexcept { ::CloseHandle(file); }
  };
  std::unique_ptr<void, FileCloser> m_Lock;
};

}  // namespace simulator
