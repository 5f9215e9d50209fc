#pragma once

#include <filesystem>
#include <string>

#include "hosts/common/owners.h"
#include "simulator/program/scenarios/scenario.h"

namespace simulator {

/// "CorvelConfig.ini" of one run, in the folder of the running program.
class ConfigurationFile {
 public:
  ConfigurationFile(const std::filesystem::path& folder, const Setup& setup,
                    const std::wstring& registryLocation, const std::filesystem::path& firmwareFolder);

 private:
  hosts::OwnedHandle m_Lock;
};

}  // namespace simulator
