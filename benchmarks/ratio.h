#pragma once

#include <functional>
#include <string>
#include <vector>

/// What one comparison of two ways to do the same work gave.
struct Row {
  std::string name;
  /// Median of subject over floor, pair by pair: what a busy machine does to one it does to the other.
  double ratio;
  /// The best time of each, in milliseconds. They say nothing on a shared machine.
  double subjectMilliseconds;
  double floorMilliseconds;
  /// What the ratio must stay below.
  double bound;
};

struct Options {
  int rounds = 41;
  bool checkBounds = true;
  /// Where the rows go as JSON; nowhere when empty.
  std::string json;
};

Options& TheOptions();

/// Runs both in turns and keeps the row. @return the row.
Row Compare(const std::string& name, double bound, const std::function<void()>& subject,
            const std::function<void()>& floor);

/// All rows so far: a table to the standard output, and the JSON file when one is asked for.
/// @return false when the file cannot be written.
bool Report();
