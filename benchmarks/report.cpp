#include "benchmarks/report.h"

#include <cstdio>
#include <fstream>
#include <string>

#include <nlohmann/json.hpp>

namespace benchmarks {

namespace {

constexpr double kMicrosecond = 1e3;
constexpr double kMillisecond = 1e6;
constexpr double kSecond = 1e9;

std::string Printed(const char* format, double value) {
  char text[32];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

/// A duration with three figures and its unit.
std::string Readable(double nanoseconds) {
  if (nanoseconds < kMicrosecond) return Printed("%.3g ns", nanoseconds);
  if (nanoseconds < kMillisecond) return Printed("%.3g us", nanoseconds / kMicrosecond);
  if (nanoseconds < kSecond) return Printed("%.3g ms", nanoseconds / kMillisecond);
  return Printed("%.3g s", nanoseconds / kSecond);
}

std::string Readable(const std::optional<double>& nanoseconds) {
  return nanoseconds ? Readable(*nanoseconds) : "";
}

const char* Verdict(const Row& row) {
  if (!row.target) return "shown";
  return row.ratio.median <= *row.target ? "within" : "ABOVE";
}

nlohmann::json JsonOf(const Duration& duration) {
  nlohmann::json json{{"lower_quartile_ns", duration.spread.lowerQuartile},
                      {"median_ns", duration.spread.median},
                      {"upper_quartile_ns", duration.spread.upperQuartile}};
  if (duration.p99) json["p99_ns"] = *duration.p99;
  return json;
}

nlohmann::json JsonOf(const Row& row) {
  nlohmann::json json{{"name", row.name},
                      {"floor_name", row.floorName},
                      {"ratio",
                       {{"lower_quartile", row.ratio.lowerQuartile},
                        {"median", row.ratio.median},
                        {"upper_quartile", row.ratio.upperQuartile}}},
                      {"subject", JsonOf(row.subject)},
                      {"floor", JsonOf(row.floor)}};
  if (row.target) json["target"] = *row.target;
  if (row.size > 0) json["size"] = row.size;
  return json;
}

}  // namespace

void ShowRow(const Row& row) {
  static bool first = true;
  if (first) {
    std::printf("%-46s %6s %15s %6s %-6s %9s %9s %9s %9s\n", "row", "ratio", "half lie within", "target", "",
                "ours", "floor", "ours p99", "floor p99");
  }
  first = false;
  std::printf("%-46s %6.3f   %5.3f - %5.3f %6s %-6s %9s %9s %9s %9s\n", row.name.c_str(), row.ratio.median,
              row.ratio.lowerQuartile, row.ratio.upperQuartile,
              row.target ? Printed("%.2f", *row.target).c_str() : "", Verdict(row),
              Readable(row.subject.spread.median).c_str(), Readable(row.floor.spread.median).c_str(),
              Readable(row.subject.p99).c_str(), Readable(row.floor.p99).c_str());
  std::fflush(stdout);
}

bool WriteJson(const std::vector<Row>& rows, const Options& options) {
  nlohmann::json list = nlohmann::json::array();
  for (const Row& row : rows) list.push_back(JsonOf(row));
  std::ofstream file(options.json);
  file << nlohmann::json{{"rounds", options.rounds}, {"quick", options.quick}, {"rows", list}}.dump(2)
       << '\n';
  return file.good();
}

}  // namespace benchmarks
