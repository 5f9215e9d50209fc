#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "child_process.h"
#include "host_workspace.h"
#include "kept_key.h"

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
  KeptKey key{KeyOfCommandLine()};
};
