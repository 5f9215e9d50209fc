#pragma once

#include <cstddef>
#include <iterator>
#include <span>

/// The texts of a multi-string in their order, each zero-terminated and open to change in place. An empty
/// text ends the list, and so does the end of the buffer: a text that the buffer cuts off is left out.
class MultiStringView {
 public:
  explicit MultiStringView(std::span<wchar_t> units) : m_units(units) {}

  class Iterator {
   public:
    using value_type = wchar_t*;
    using difference_type = std::ptrdiff_t;

    explicit Iterator(std::span<wchar_t> rest) : m_rest(rest), m_length(LengthOfFirst(rest)) {}
    wchar_t* operator*() const { return m_rest.data(); }
    Iterator& operator++() {
      m_rest = m_rest.subspan(m_length + 1);
      m_length = LengthOfFirst(m_rest);
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(std::default_sentinel_t) const { return m_length == 0; }

   private:
    static std::size_t LengthOfFirst(std::span<wchar_t> units) {
      for (std::size_t length = 0; length < units.size(); ++length) {
        if (units[length] == L'\0') return length;
      }
      return 0;
    }

    std::span<wchar_t> m_rest;
    std::size_t m_length;
  };

  Iterator begin() const { return Iterator(m_units); }
  std::default_sentinel_t end() const { return {}; }

 private:
  std::span<wchar_t> m_units;
};
