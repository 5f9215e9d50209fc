#include "ratio.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>

#include <nlohmann/json.hpp>

namespace {

std::vector<Row>& Rows() {
  static std::vector<Row> rows;
  return rows;
}

double MillisecondsOf(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::ranges::nth_element(values, middle);
  return *middle;
}

}  // namespace

Options& TheOptions() {
  static Options options;
  return options;
}

Row Compare(const std::string& name, double bound, const std::function<void()>& subject,
            const std::function<void()>& floor) {
  std::vector<double> subjectTimes;
  std::vector<double> floorTimes;
  std::vector<double> ratios;
  for (int round = 0; round < TheOptions().rounds; ++round) {
    // The second finds the memory warm, so they take turns at that as well.
    const bool floorFirst = round % 2 == 0;
    if (floorFirst) floorTimes.push_back(MillisecondsOf(floor));
    subjectTimes.push_back(MillisecondsOf(subject));
    if (!floorFirst) floorTimes.push_back(MillisecondsOf(floor));
    ratios.push_back(subjectTimes.back() / floorTimes.back());
  }
  const Row row{name, Median(ratios), *std::ranges::min_element(subjectTimes),
                *std::ranges::min_element(floorTimes), bound};
  Rows().push_back(row);
  return row;
}

bool Report() {
  nlohmann::json rows = nlohmann::json::array();
  std::printf("%-44s %8s %8s %12s %12s\n", "row", "ratio", "bound", "best ms", "floor ms");
  for (const Row& row : Rows()) {
    std::printf("%-44s %8.3f %8.2f %12.2f %12.2f\n", row.name.c_str(), row.ratio, row.bound,
                row.subjectMilliseconds, row.floorMilliseconds);
    rows.push_back({{"name", row.name},
                    {"ratio", row.ratio},
                    {"bound", row.bound},
                    {"subject_ms", row.subjectMilliseconds},
                    {"floor_ms", row.floorMilliseconds}});
  }
  if (TheOptions().json.empty()) return true;
  std::ofstream file(TheOptions().json);
  file << nlohmann::json{{"rounds", TheOptions().rounds}, {"rows", rows}}.dump(2) << '\n';
  return file.good();
}
