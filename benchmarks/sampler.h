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

/// What a row measures: nearly always the time of one execution, in nanoseconds.
enum class Unit { Nanoseconds, Bytes, Count };

/// What one side takes.
struct Measure {
  Spread spread;
  /// Of single executions; only for what takes less than a millisecond.
  std::optional<double> p99;
};

struct Comparison {
  std::string name;
  /// What stands on the other side.
  std::string floorName;
  /// What the ratio should stay below; none for a row that is only shown, or that has the other kind of
  /// target.
  std::optional<double> target{};
  /// How much work an execution is, for rows that grow; 0 for others.
  double size = 0;
  /// By how much the subject may be above its floor.
  std::optional<double> mayAdd{};
  Unit unit = Unit::Nanoseconds;
};

/// What the comparison of two ways to do the same work gave.
struct Row {
  Comparison compared;
  /// Subject over floor, round by round: what a busy machine does to one it does to the other. Nothing when
  /// the floor is 0.
  std::optional<Spread> ratio;
  /// Subject less floor, in the same way.
  Spread added;
  Measure subject;
  Measure floor;
};

struct Options {
  int rounds = 41;
  /// Few rounds of little work: whether all rows run, rather than what they give.
  bool quick = false;
  /// Only rows whose name holds this text.
  std::string filter;
  /// Where the rows go as JSON; nowhere when empty.
  std::string json;
  /// The images of the largest folder; they are made when empty. Wine looks through a whole folder for each
  /// file that it makes, which takes longer than all rows together.
  std::string manyImages;
};
Options& TheOptions();

/// One side of a comparison. Called once per execution.
using Work = std::function<void()>;

/// Whether a row is asked for; what it needs has to be made only then.
bool IsWanted(const std::string& name);

/// Runs both sides in turns, as often in a row as it takes to measure them, and keeps the row.
void Compare(const Comparison& comparison, const Work& subject, const Work& floor);

/// Keeps what was measured elsewhere: pairs that were taken in turns, in the comparison's unit.
void Keep(const Comparison& comparison, const std::vector<double>& subject, const std::vector<double>& floor);

/// All rows so far: a table on the standard output, and the JSON file when one is asked for.
/// @return false when that file cannot be written.
bool Report();

/// Keeps the compiler from leaving out what makes a value.
void Use(const void* value);

}  // namespace benchmarks
