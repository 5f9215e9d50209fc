#include "hosts/cmdline/doctor_report.h"

#include <exception>

#include "hosts/common/text_layout.h"

namespace hosts {

void Collect(std::span<const DoctorItem> items, DoctorCollection& collection) {
  for (const DoctorItem& item : items) {
    if (!collection.TakesMore()) return;
    try {
      item.collect(collection);
    } catch (const std::exception& error) {
      collection.LeaveOut(item.name, std::string("something unforeseen went wrong: ") + error.what());
    }
  }
}

std::string DoctorListText(const DoctorList& list, std::size_t columns) {
  std::string text;
  for (const auto& [name, what] : list) {
    std::string line = name;
    line.append(": ").append(what);
    text += Wrapped(line, columns, "", "  ");
  }
  return text;
}

std::string DoctorText(const DoctorReport& report, std::size_t columns) {
  std::string text = Wrapped("Written: " + report.archive, columns, "", "  ");
  for (const auto& [name, bytes] : report.files) {
    text += Wrapped(name + ", " + std::to_string(bytes) + " bytes", columns, "  ", "    ");
  }
  for (const auto& [name, why] : report.leftOut) {
    std::string line = "Left out: ";
    line.append(name).append(": ").append(why).append(".");
    text += Wrapped(line, columns, "", "  ");
  }
  return text +
         Wrapped("Look at it before you send it to support: paths in it may name you.", columns, "", "");
}

nlohmann::ordered_json AsJson(const DoctorReport& report) {
  auto files = nlohmann::ordered_json::array();
  for (const auto& [name, bytes] : report.files) files.push_back({{"name", name}, {"bytes", bytes}});
  auto others = nlohmann::ordered_json::array();
  for (const auto& [name, why] : report.leftOut) others.push_back({{"name", name}, {"why", why}});
  return {{"archive", report.archive}, {"files", files}, {"left_out", others}};
}

}  // namespace hosts
