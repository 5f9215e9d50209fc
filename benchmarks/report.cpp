#include "benchmarks/report.h"

#include <cstdio>
#include <fstream>
#include <string>

#include <nlohmann/json.hpp>

namespace benchmarks {

namespace {

/// Of the document: grows when a field goes or changes its meaning; new fields may come without.
constexpr int kReportVersion = 1;
constexpr double kMicrosecond = 1e3;
constexpr double kMillisecond = 1e6;
constexpr double kSecond = 1e9;
constexpr double kKilobyte = 1024;
constexpr double kMegabyte = kKilobyte * kKilobyte;

std::string Printed(const char* format, double value) {
  char text[32];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

/// With three figures and its unit.
std::string ReadableTime(double nanoseconds) {
  if (nanoseconds < kMicrosecond) return Printed("%.3g ns", nanoseconds);
  if (nanoseconds < kMillisecond) return Printed("%.3g us", nanoseconds / kMicrosecond);
  if (nanoseconds < kSecond) return Printed("%.3g ms", nanoseconds / kMillisecond);
  return Printed("%.3g s", nanoseconds / kSecond);
}

std::string Readable(double value, Unit unit) {
  if (value < 0) return "-" + Readable(-value, unit);
  switch (unit) {
    case Unit::Nanoseconds:
      return ReadableTime(value);
    case Unit::Bytes:
      return value < kMegabyte ? Printed("%.3g KB", value / kKilobyte)
                               : Printed("%.3g MB", value / kMegabyte);
    case Unit::Count:
      break;
  }
  return Printed("%.0f", value);
}

std::string Readable(const std::optional<double>& value, Unit unit) {
  return value ? Readable(*value, unit) : "";
}

std::string TargetOf(const Comparison& compared) {
  if (compared.mayAdd) return "+" + Readable(*compared.mayAdd, compared.unit);
  return compared.target ? Printed("%.2f", *compared.target) : "";
}

const char* Verdict(const Row& row) {
  const Comparison& compared = row.compared;
  if (compared.mayAdd) return row.added.median <= *compared.mayAdd ? "within" : "ABOVE";
  if (!compared.target || !row.ratio) return "shown";
  return row.ratio->median <= *compared.target ? "within" : "ABOVE";
}

const char* NameOf(Unit unit) {
  switch (unit) {
    case Unit::Nanoseconds:
      return "ns";
    case Unit::Bytes:
      return "bytes";
    case Unit::Count:
      break;
  }
  return "count";
}

nlohmann::json JsonOf(const Spread& spread) {
  return {{"lower_quartile", spread.lowerQuartile},
          {"median", spread.median},
          {"upper_quartile", spread.upperQuartile}};
}

nlohmann::json JsonOf(const Measure& measure) {
  nlohmann::json json = JsonOf(measure.spread);
  if (measure.p99) json["p99"] = *measure.p99;
  return json;
}

nlohmann::json JsonOf(const Row& row) {
  const Comparison& compared = row.compared;
  nlohmann::json json{{"name", compared.name},         {"floor_name", compared.floorName},
                      {"unit", NameOf(compared.unit)}, {"verdict", Verdict(row)},
                      {"added", JsonOf(row.added)},    {"subject", JsonOf(row.subject)},
                      {"floor", JsonOf(row.floor)}};
  if (row.ratio) json["ratio"] = JsonOf(*row.ratio);
  if (compared.target) json["target"] = *compared.target;
  if (compared.mayAdd) json["may_add"] = *compared.mayAdd;
  if (compared.size > 0) json["size"] = compared.size;
  return json;
}

/// The ratio and where half of them lie; for a floor of 0 what is added to it.
std::string SpreadText(const Row& row) {
  char text[64];
  if (row.ratio) {
    std::snprintf(text, sizeof text, "%6.3f   %5.3f - %5.3f", row.ratio->median, row.ratio->lowerQuartile,
                  row.ratio->upperQuartile);
  } else {
    std::snprintf(text, sizeof text, "%6s   %13s", "", "");
  }
  return text;
}

}  // namespace

void ShowRow(const Row& row) {
  static bool first = true;
  if (first) {
    std::printf("%-46s %6s %15s %8s %-6s %9s %9s %9s %9s\n", "row", "ratio", "half lie within", "target", "",
                "ours", "floor", "ours p99", "floor p99");
  }
  first = false;
  const Unit unit = row.compared.unit;
  std::printf("%-46s %s %8s %-6s %9s %9s %9s %9s\n", row.compared.name.c_str(), SpreadText(row).c_str(),
              TargetOf(row.compared).c_str(), Verdict(row), Readable(row.subject.spread.median, unit).c_str(),
              Readable(row.floor.spread.median, unit).c_str(), Readable(row.subject.p99, unit).c_str(),
              Readable(row.floor.p99, unit).c_str());
  std::fflush(stdout);
}

bool WriteJson(const std::vector<Row>& rows, const Options& options) {
  nlohmann::json list = nlohmann::json::array();
  for (const Row& row : rows) list.push_back(JsonOf(row));
  std::ofstream file(options.json);
  file << nlohmann::json{{"version", kReportVersion},
                         {"rounds", options.rounds},
                         {"quick", options.quick},
                         {"rows", list}}
              .dump(2)
       << '\n';
  return file.good();
}

}  // namespace benchmarks
