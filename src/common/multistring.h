#pragma once

#include <cstddef>
#include <iterator>
#include <span>

namespace corvel {

/// The texts of a multi-string in their order, each zero-terminated and open to change in place. An empty
/// text ends the list, and so does the end of the buffer: a text that the buffer cuts off is left out.
class MultiStringView {
 public:
  explicit MultiStringView(std::span<wchar_t> units) : m_Units(units) {}

  class Iterator {
   public:
    using value_type = wchar_t*;
    using difference_type = std::ptrdiff_t;

    explicit Iterator(std::span<wchar_t> rest) : m_Rest(rest), m_Length(LengthOfFirst(rest)) {}
    wchar_t* operator*() const { return m_Rest.data(); }
    Iterator& operator++() {
      m_Rest = m_Rest.subspan(m_Length + 1);
      m_Length = LengthOfFirst(m_Rest);
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(std::default_sentinel_t) const { return m_Length == 0; }

   private:
    static std::size_t LengthOfFirst(std::span<wchar_t> units) {
      for (std::size_t length = 0; length < units.size(); ++length) {
        if (units[length] == L'\0') return length;
      }
      return 0;
    }

    std::span<wchar_t> m_Rest;
    std::size_t m_Length;
  };

  Iterator begin() const { return Iterator(m_Units); }
  std::default_sentinel_t end() const { return {}; }

 private:
  std::span<wchar_t> m_Units;
};

}  // namespace corvel
