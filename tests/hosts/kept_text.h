#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

namespace hosts {

inline std::size_t LongestLine(const std::string& text) {
  std::size_t longest = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) longest = std::max(longest, line.size());
  return longest;
}

/// Expects a text for so many columns to be what the tests' data keep of it: "cmdline/check" is
/// "cmdline/check_80.txt" for 80.
inline void ExpectAsKept(const std::string& name, const std::string& text, std::size_t columns) {
  std::ifstream file(std::string(TEST_DATA) + "/" + name + "_" + std::to_string(columns) + ".txt");
  EXPECT_EQ(text, std::string(std::istreambuf_iterator<char>(file), {}));
  EXPECT_LE(LongestLine(text), columns);
}

}  // namespace hosts
