#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace hosts::flashlog {

// Columns of numbers as short texts, which the script of the page reads.

/// Small numbers as letters, five bits in each, the lowest first; the letters in front of a number's last one
/// have a sixth bit. Most take one letter or two.
class NumberText {
 public:
  void Add(std::uint64_t number) {
    constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    for (; number >= 32; number >>= 5U) m_Text += kLetters[32 + number % 32];
    m_Text += kLetters[number];
  }
  /// Also of a number below 0: the lowest bit tells.
  void AddSigned(std::int64_t number) {
    const std::uint64_t size = static_cast<std::uint64_t>(number < 0 ? -(number + 1) : number);
    Add(2 * size + (number < 0 ? 1 : 0));
  }
  /// As the difference to the number before, which takes its place.
  template <typename Number>
  void AddStep(Number number, Number& before) {
    AddSigned(static_cast<std::int64_t>(number) - static_cast<std::int64_t>(before));
    before = number;
  }
  const std::string& Text() const { return m_Text; }

 private:
  std::string m_Text;
};

/// Numbers that mostly stay: how many come before each change, and the change.
class RareChanges {
 public:
  void Add(std::uint64_t number) {
    if (number != m_Last) {
      m_Numbers.Add(m_Steady);
      m_Numbers.AddStep(number, m_Last);
      m_Steady = 0;
    }
    ++m_Steady;
  }
  const std::string& Text() const { return m_Numbers.Text(); }

 private:
  NumberText m_Numbers;
  std::uint64_t m_Last = 0;
  std::uint64_t m_Steady = 0;
};

/// Numbers of which one mostly follows the other as it did the last time: how many do so before each that
/// does not, and that one: 0 is one more than the highest so far, 1 the highest, 2 the one below it.
class RepeatedOrder {
 public:
  void Add(std::size_t number) {
    std::optional<std::size_t>& expected = m_Next[m_Last];
    const bool isExpected = expected == number;
    expected = number;
    m_Last = number;
    if (isExpected) {
      ++m_Expected;
      return;
    }
    m_Numbers.Add(m_Expected);
    m_Numbers.Add(m_Highest + 1 - number);
    m_Highest = std::max(m_Highest, number);
    m_Expected = 0;
  }
  /// With the rest that is as expected.
  std::string Text() const {
    NumberText numbers = m_Numbers;
    numbers.Add(m_Expected);
    return numbers.Text();
  }

 private:
  NumberText m_Numbers;
  std::unordered_map<std::size_t, std::optional<std::size_t>> m_Next;
  std::size_t m_Last = 0;
  std::size_t m_Highest = 0;
  std::size_t m_Expected = 0;
};

}  // namespace hosts::flashlog
