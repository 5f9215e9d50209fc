#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace soak {

/// What a debug log holds, byte for byte.
struct LogCheck {
  std::size_t records = 0;
  /// What is between two records, or is none; in words, the first few.
  std::vector<std::string> findings;
  /// Messages of the writers of the host, in the order of the log.
  std::map<int, std::vector<int>> numbersOfWriter;
  /// Records of registry values that were written, by name.
  std::map<std::string, int> valuesWritten;
  /// Reads of the registry that left their key open.
  int keysLeftOpen = 0;
};

LogCheck CheckLog(std::string_view bytes);
std::string ReadLog(const std::filesystem::path& file);

}  // namespace soak
