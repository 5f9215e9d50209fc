#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace benchmarks {

/// The spread of a value over all rounds.
struct Spread {
  double lowerQuartile = 0;
  double median = 0;
  double upperQuartile = 0;
};

/// How long one execution takes, in nanoseconds.
struct Duration {
  Spread spread;
  /// Of single executions; only for what takes less than a millisecond.
  std::optional<double> p99;
};

/// What the comparison of two ways to do the same work gave.
struct Row {
  std::string name;
  std::string floorName;
  /// Subject over floor, round by round: what a busy machine does to one it does to the other.
  Spread ratio;
  Duration subject;
  Duration floor;
  /// What the ratio should stay below; none for a row that is only shown.
  std::optional<double> target;
  /// How much work an execution is, for rows that grow; 0 for others.
  double size = 0;
};

struct Options {
  int rounds = 41;
  /// Few rounds of little work: whether all rows run, rather than what they give.
  bool quick = false;
  /// Only rows whose name holds this text.
  std::string filter;
  /// Where the rows go as JSON; nowhere when empty.
  std::string json;
};
Options& TheOptions();

/// One side of a comparison. Called once per execution.
using Work = std::function<void()>;

struct Comparison {
  std::string name;
  /// What stands on the other side.
  std::string floorName;
  std::optional<double> target{};
  double size = 0;
};

/// Whether a row is asked for; what it needs has to be made only then.
bool IsWanted(const std::string& name);

/// Runs both sides in turns, as often in a row as it takes to measure them, and keeps the row.
void Compare(const Comparison& comparison, const Work& subject, const Work& floor);

/// Keeps what was measured elsewhere: pairs of durations in nanoseconds, taken in turns.
void Keep(const Comparison& comparison, const std::vector<double>& subject, const std::vector<double>& floor);

/// All rows so far: a table on the standard output, and the JSON file when one is asked for.
/// @return false when that file cannot be written.
bool Report();

/// Keeps the compiler from leaving out what makes a value.
void Use(const void* value);

}  // namespace benchmarks
