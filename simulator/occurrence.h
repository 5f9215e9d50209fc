#pragma once

#include <climits>

namespace simulator {

/// Which times a thing goes wrong: from the `first` time on (counted from 1), `count` times. Default: never.
struct Occurrence {
  static constexpr int kForEver = INT_MAX;

  int first = 1;
  int count = 0;

  static constexpr Occurrence Never() { return {}; }
  static constexpr Occurrence Always() { return {1, kForEver}; }
  static constexpr Occurrence Times(int times) { return {1, times}; }
  static constexpr Occurrence Only(int which) { return {which, 1}; }
  static constexpr Occurrence From(int which) { return {which, kForEver}; }

  constexpr bool Hits(int number) const { return number >= first && number - first < count; }
  constexpr bool Ever() const { return count > 0; }
};

}  // namespace simulator
