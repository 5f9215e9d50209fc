#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

namespace hosts {

/// What an archive for support holds.
struct DoctorReport {
  std::string archive;  ///< path
  /// Names with sizes in bytes.
  std::vector<std::pair<std::string, std::uint64_t>> files;
  /// Names of what is missing, and why it is.
  std::vector<std::pair<std::string, std::string>> leftOut;
};

/// For lines of so many columns.
std::string DoctorText(const DoctorReport& report, std::size_t columns);
nlohmann::ordered_json AsJson(const DoctorReport& report);

}  // namespace hosts
