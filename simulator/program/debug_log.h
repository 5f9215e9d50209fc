#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace simulator {

/// One record of the library's debug log, as far as anybody here looks at it.
struct DebugRecord {
  std::string level;
  std::string function;
  std::string message;
};

/// The complete records of a piece of a log that begins with one.
std::vector<DebugRecord> RecordsIn(std::string_view log);
/// The complete records of a log that may still be written to; none when there is no such file.
std::vector<DebugRecord> ReadDebugLog(const std::filesystem::path& path);

}  // namespace simulator
