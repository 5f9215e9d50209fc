#include "benchmarks/sampler.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <utility>

#include "benchmarks/report.h"

namespace benchmarks {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kMillisecond = 1e6;
constexpr double kSecond = 1e9;
/// A sample is as many executions as last about that long: far above what the clock resolves.
constexpr double kSample = 3 * kMillisecond;
constexpr int kMostExecutions = 1'000'000;
/// Single executions of which one in a hundred is looked at.
constexpr int kSingles = 2000;
constexpr int kQuickSingles = 100;
/// What takes long is measured less often: a row may last about that long.
constexpr double kLongestRow = 20 * kSecond;
constexpr int kFewestRounds = 3;

// What nobody reads is written all the same: the compiler has to make it.
[[maybe_unused]] const void* volatile g_lastUsed = nullptr;

std::vector<Row>& Rows() {
  static std::vector<Row> rows;
  return rows;
}

double NanosecondsOf(const Work& work, int executions) {
  const auto begin = Clock::now();
  for (int i = 0; i < executions; ++i) work();
  return std::chrono::duration<double, std::nano>(Clock::now() - begin).count() / executions;
}

double Quantile(std::vector<double> values, double part) {
  const auto index = std::lround(part * static_cast<double>(values.size() - 1));
  std::ranges::nth_element(values, values.begin() + index);
  return values[static_cast<std::size_t>(index)];
}

Spread SpreadOf(const std::vector<double>& values) {
  return {Quantile(values, 0.25), Quantile(values, 0.5), Quantile(values, 0.75)};
}

struct WarmUp {
  int executions;      ///< that one sample takes
  double nanoseconds;  ///< that each of them took
};

WarmUp WarmUpWith(const Work& work, double sample) {
  for (int executions = 1;;) {
    const double each = NanosecondsOf(work, executions);
    const double total = each * executions;
    if (total >= sample || executions >= kMostExecutions) return {executions, each};
    const double factor = std::clamp(sample / std::max(total, 1.0), 1.5, 10.0);
    executions = std::min(static_cast<int>(std::ceil(executions * factor)), kMostExecutions);
  }
}

int RoundsFor(double nanosecondsPerRound) {
  const int wanted = TheOptions().rounds;
  if (nanosecondsPerRound * wanted <= kLongestRow) return wanted;
  return std::clamp(static_cast<int>(kLongestRow / nanosecondsPerRound), std::min(kFewestRounds, wanted),
                    wanted);
}

/// The slow ones among single executions, of both sides in turns.
void MeasureTails(Row& row, const Work& subject, const Work& floor) {
  if (row.subject.spread.median >= kMillisecond || row.floor.spread.median >= kMillisecond) return;
  std::vector<double> subjectTimes;
  std::vector<double> floorTimes;
  const int singles = TheOptions().quick ? kQuickSingles : kSingles;
  for (int i = 0; i < singles; ++i) {
    subjectTimes.push_back(NanosecondsOf(subject, 1));
    floorTimes.push_back(NanosecondsOf(floor, 1));
  }
  row.subject.p99 = Quantile(std::move(subjectTimes), 0.99);
  row.floor.p99 = Quantile(std::move(floorTimes), 0.99);
}

Row RowOf(const Comparison& comparison, const std::vector<double>& subject,
          const std::vector<double>& floor) {
  std::vector<double> ratios;
  std::vector<double> added;
  for (std::size_t i = 0; i < subject.size(); ++i) {
    if (floor[i] > 0) ratios.push_back(subject[i] / floor[i]);
    added.push_back(subject[i] - floor[i]);
  }
  return {.compared = comparison,
          .ratio = ratios.size() == floor.size() ? std::optional(SpreadOf(ratios)) : std::nullopt,
          .added = SpreadOf(added),
          .subject = {SpreadOf(subject), std::nullopt},
          .floor = {SpreadOf(floor), std::nullopt}};
}

}  // namespace

Options& TheOptions() {
  static Options options;
  return options;
}

bool IsWanted(const std::string& name) {
  return name.find(TheOptions().filter) != std::string::npos;
}

void Compare(const Comparison& comparison, const Work& subject, const Work& floor) {
  if (!IsWanted(comparison.name)) return;
  const double sample = TheOptions().quick ? 0 : kSample;
  const auto [subjectExecutions, subjectWarmUp] = WarmUpWith(subject, sample);
  const auto [floorExecutions, floorWarmUp] = WarmUpWith(floor, sample);

  std::vector<double> subjectTimes;
  std::vector<double> floorTimes;
  int rounds = TheOptions().rounds;
  // What takes so long is not in need of being warmed up.
  if (subjectWarmUp + floorWarmUp > kLongestRow) {
    subjectTimes.push_back(subjectWarmUp);
    floorTimes.push_back(floorWarmUp);
    rounds = std::min(rounds, kFewestRounds);
  }
  for (int round = static_cast<int>(subjectTimes.size()); round < rounds; ++round) {
    // Who goes second finds the memory warm, so they take turns at that as well.
    const bool floorFirst = round % 2 == 0;
    if (floorFirst) floorTimes.push_back(NanosecondsOf(floor, floorExecutions));
    subjectTimes.push_back(NanosecondsOf(subject, subjectExecutions));
    if (!floorFirst) floorTimes.push_back(NanosecondsOf(floor, floorExecutions));
    if (round == 0) {
      rounds = RoundsFor(subjectTimes[0] * subjectExecutions + floorTimes[0] * floorExecutions);
    }
  }
  Row row = RowOf(comparison, subjectTimes, floorTimes);
  MeasureTails(row, subject, floor);
  ShowRow(row);
  Rows().push_back(std::move(row));
}

void Keep(const Comparison& comparison, const std::vector<double>& subject,
          const std::vector<double>& floor) {
  Rows().push_back(RowOf(comparison, subject, floor));
  ShowRow(Rows().back());
}

bool Report() {
  return TheOptions().json.empty() || WriteJson(Rows(), TheOptions());
}

void Use(const void* value) {
  g_lastUsed = value;
}

}  // namespace benchmarks
