#pragma once

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "simulator/host/kept_key.h"
#include "tests/hosts/child_process.h"
#include "tests/hosts/host_workspace.h"

namespace hosts {

/// A key that may only be read and deleted while this lives, and is gone afterwards. By default the one below
/// which the key of the command line would lie, so that it cannot be made.
class UnwritableKey {
 public:
  explicit UnwritableKey(HKEY root = HKEY_LOCAL_MACHINE, std::wstring path = L"SOFTWARE\\WOW6432Node\\Quenta")
      : m_Root(root), m_Path(std::move(path)) {
    ::RegDeleteKeyW(m_Root, m_Path.c_str());
    HKEY opened = nullptr;
    DWORD found = REG_OPENED_EXISTING_KEY;
    ::RegCreateKeyExW(m_Root, m_Path.c_str(), 0, nullptr, 0, WRITE_DAC, nullptr, &opened, &found);
    m_Key.reset(opened);
    if (found != REG_CREATED_NEW_KEY) throw std::runtime_error("the key is in use");
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ::ConvertStringSecurityDescriptorToSecurityDescriptorW(kForEverybodyReadAndDelete, SDDL_REVISION_1,
                                                           &descriptor, nullptr);
    const LSTATUS status = ::RegSetKeySecurity(opened, DACL_SECURITY_INFORMATION, descriptor);
    ::LocalFree(descriptor);
    if (status != ERROR_SUCCESS) throw std::runtime_error("the key cannot be protected");
  }
  ~UnwritableKey() {
    m_Key.reset();
    ::RegDeleteKeyW(m_Root, m_Path.c_str());
  }
  UnwritableKey(const UnwritableKey&) = delete;
  UnwritableKey& operator=(const UnwritableKey&) = delete;

 private:
  static constexpr wchar_t kForEverybodyReadAndDelete[] = L"D:P(A;;KRSD;;;WD)";
  HKEY m_Root;
  std::wstring m_Path;
  OwnedKey m_Key;
};

/// The command-line host in a folder of the test's own. The key that it uses is empty at first.
class CommandLineTest : public testing::Test {
 protected:
  using Arguments = std::vector<std::wstring>;

  RunResult RunHost(const Arguments& arguments) const {
    return RunToEnd(workspace.CommandLineHost(), arguments);
  }

  /// The one document that a run printed; null when its output is anything else.
  static nlohmann::json Document(const std::string& output) {
    return nlohmann::json::parse(output, nullptr, false);
  }
  /// "error.code" of a document; empty when there is none.
  static std::string ErrorCode(const std::string& output) {
    const nlohmann::json document = Document(output);
    if (!document.is_object() || !document.contains("error")) return {};
    return document["error"].value("code", "");
  }

  HostWorkspace workspace;
  simulator::KeptKey key{simulator::KeyOfCommandLine()};
};

}  // namespace hosts
