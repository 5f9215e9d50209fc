#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "hostile/random.h"

namespace hostile {

/// What holds for every input. An input is a run of bytes: a file's content, or decisions that Choices reads.
/// So each can be kept in a file, changed at any place and made smaller.
struct Property {
  const char* name;
  /// One of so many cases is spent on it: how slow it is. None has fewer than CasesOf tells.
  std::size_t rarity;
  /// Makes an input that looks like what is meant to come, with something wrong here and there.
  std::string (*make)(Random& random);
  /// Throws what it finds.
  void (*check)(std::string_view input);
  /// What stands around while the cases run; may be missing.
  std::shared_ptr<void> (*surround)() = nullptr;
};

/// How many cases a property has when a quick one has so many: a share by what one costs, but one in
/// sixty-four of them, or three thousand, even of those that cost most. What nobody tries, nobody finds.
inline std::size_t CasesOf(const Property& property, std::size_t cases) {
  constexpr std::size_t kLeastShare = 64;
  constexpr std::size_t kEnough = 3000;
  return std::max(cases / property.rarity, std::min(cases / kLeastShare, kEnough));
}

/// Something that holds does not.
class Violation : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Bytes as a C text, for people.
inline std::string Quoted(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text = "\"";
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    if (value >= 0x20 && value < 0x7F && byte != '"' && byte != '\\') {
      text += byte;
    } else {
      text += "\\x";
      text += kDigits[value >> 4];
      text += kDigits[value & 15];
    }
  }
  return text + '"';
}

inline std::string Shown(std::string_view text) {
  return Quoted(text);
}
inline std::string Shown(std::wstring_view text) {
  std::string shown;
  for (const wchar_t unit : text)
    shown += (shown.empty() ? "" : " ") + std::to_string(static_cast<unsigned>(unit));
  return "[" + shown + "]";
}
template <typename Number>
requires std::is_arithmetic_v<Number> std::string Shown(Number number) {
  return std::to_string(number);
}
template <typename Item>
std::string Shown(const std::vector<Item>& items) {
  std::string shown;
  for (const Item& item : items) shown += (shown.empty() ? "" : ", ") + Shown(item);
  return "{" + shown + "}";
}

inline void Expect(bool holds, const std::string& what) {
  if (!holds) throw Violation(what);
}
template <typename Got, typename Expected>
void ExpectEqual(const char* what, const Got& got, const Expected& expected) {
  if (got == expected) return;
  throw Violation(std::string(what) + " is " + Shown(got) + ", not " + Shown(expected));
}

/// Reads decisions from an input. Behind its end all are 0.
class Choices {
 public:
  explicit Choices(std::string_view input) : m_Rest(input) {}

  bool AtEnd() const { return m_Rest.empty(); }
  std::uint8_t Byte() {
    if (m_Rest.empty()) return 0;
    const auto byte = static_cast<std::uint8_t>(m_Rest.front());
    m_Rest.remove_prefix(1);
    return byte;
  }
  std::size_t Below(std::size_t limit) { return Byte() % limit; }
  bool Flag() { return (Byte() & 1) != 0; }
  std::uint32_t Number() {
    std::uint32_t number = 0;
    for (int i = 0; i < 4; ++i) number = (number << 8) | Byte();
    return number;
  }
  /// Often a small or an extreme number.
  std::int32_t Integer() {
    const std::size_t kind = Below(8);
    if (kind < 5) return static_cast<std::int32_t>(Below(40)) - 4;
    if (kind == 5) return INT32_MAX - static_cast<std::int32_t>(Below(3));
    if (kind == 6) return INT32_MIN + static_cast<std::int32_t>(Below(3));
    return static_cast<std::int32_t>(Number());
  }
  std::string_view Bytes(std::size_t length) {
    const std::string_view bytes = m_Rest.substr(0, length);
    m_Rest.remove_prefix(bytes.size());
    return bytes;
  }
  std::string_view Rest() { return Bytes(m_Rest.size()); }

 private:
  std::string_view m_Rest;
};

// Each file's share.
std::vector<Property> PlainProperties();
std::vector<Property> TextProperties();
std::vector<Property> LogProperties();
std::vector<Property> ConfigurationProperties();
std::vector<Property> DeviceProperties();
std::vector<Property> FlashingProperties();
std::vector<Property> ArrayProperties();
std::vector<Property> DocumentProperties();

}  // namespace hostile
