#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "hosts/common/text.h"
#include "simulator/program/configuration.h"
#include "simulator/program/session_key.h"
#include "simulator/program/work_folder.h"
#include "simulator/virtual_pc.h"
#include "support/quick_modem.h"

/// The word that tells a test program that it is the child in a work folder.
inline constexpr char kInPlace[] = "--in-place";

/// Runs this program once more, in a work folder of its own: the library reads its configuration once per
/// process, and from beside the program. @return the child's exit status.
inline unsigned long RunInWorkFolder(int count, char** words, std::chrono::milliseconds limit) {
  std::vector<std::wstring> arguments{hosts::ToWide(kInPlace)};
  for (int i = 1; i < count; ++i) arguments.push_back(hosts::ToWide(words[i]));
  const simulator::WorkFolder folder;
  const simulator::ChildResult child = simulator::RunChild(folder.Program(), arguments, limit);
  if (!child.ended) std::printf("the test did not come to an end and was stopped\n");
  if (child.exitCode > 1) std::printf("the process ended with 0x%lx\n", child.exitCode);
  return child.exitCode;
}

/// The service in its virtual PC, and the controlling program's key. In the child alone.
class ServiceInVirtualPc : public testing::Test {
 protected:
  explicit ServiceInVirtualPc(const std::wstring& name)
      : m_Key(L"Software\\Corvel\\Test\\" + name + L"-" + std::to_wstring(::GetCurrentProcessId()), false) {}

  /// @return false when the library is not there, or does not begin to wait.
  bool ServiceBegins() {
    return m_Pc->LoadUnderSimulation(m_Folder / kLibrary) != nullptr &&
           Becomes([this] { return Rounds() > 0; });
  }

  /// How often the service has begun to wait for a change of the key.
  int Rounds() const {
    const auto calls = m_Pc->PlatformCalls();
    const auto found = calls.find("RegNotifyChangeKeyValue");
    return found == calls.end() ? 0 : found->second;
  }

  static bool Becomes(const std::function<bool()>& condition) {
    constexpr std::chrono::seconds kPatience{60};
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > end) return false;
      ::Sleep(2);
    }
    return true;
  }

  static constexpr wchar_t kLibrary[] = L"CorvelToolKit.dll";

  const std::filesystem::path m_Folder = hosts::ProgramFolder();
  simulator::SessionKey m_Key;
  std::optional<simulator::ConfigurationFile> m_Configuration;
  std::optional<simulator::VirtualPc> m_Pc;
};
