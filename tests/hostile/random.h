#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace hostile {

/// Numbers that depend on nothing but their seed, whatever the compiler and its library.
class Random {
 public:
  explicit Random(std::uint64_t seed) : m_State(seed) {}

  std::uint64_t Next() {
    m_State += 0x9E3779B97F4A7C15u;
    std::uint64_t mixed = m_State;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9u;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBu;
    return mixed ^ (mixed >> 31);
  }
  /// From 0 to limit - 1; 0 for a limit of 0.
  std::size_t Below(std::size_t limit) { return limit == 0 ? 0 : static_cast<std::size_t>(Next() % limit); }
  bool OneIn(std::size_t chances) { return Below(chances) == 0; }
  /// Mostly small, sometimes up to the limit.
  std::size_t Size(std::size_t limit) { return Below(1 + (OneIn(8) ? limit : limit / 16)); }
  template <typename Value>
  Value Pick(std::initializer_list<Value> values) {
    return values.begin()[Below(values.size())];
  }
  char Of(std::string_view letters) { return letters[Below(letters.size())]; }
  std::string Text(std::string_view letters, std::size_t length) {
    std::string text;
    while (text.size() < length) text += Of(letters);
    return text;
  }
  std::string Bytes(std::size_t length) {
    std::string bytes;
    while (bytes.size() < length) bytes += static_cast<char>(Next());
    return bytes;
  }

 private:
  std::uint64_t m_State;
};

}  // namespace hostile
