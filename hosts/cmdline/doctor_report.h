#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "hosts/cmdline/doctor_contents.h"

namespace hosts {

/// What an archive for support holds.
struct DoctorReport {
  std::string archive;  ///< path
  /// Names with sizes in bytes.
  std::vector<std::pair<std::string, std::uint64_t>> files;
  /// Names of what is missing, and why it is.
  std::vector<std::pair<std::string, std::string>> leftOut;
};

/// Collects what the items stand for, each by itself: one that fails is left out. Ends early when the
/// collection takes no more.
void Collect(std::span<const DoctorItem> items, DoctorCollection& collection);

/// What goes in: names, and what each stands for.
using DoctorList = std::vector<std::pair<std::string, std::string>>;

/// For lines of so many columns.
std::string DoctorListText(const DoctorList& list, std::size_t columns);
std::string DoctorText(const DoctorReport& report, std::size_t columns);
nlohmann::ordered_json AsJson(const DoctorReport& report);

}  // namespace hosts
