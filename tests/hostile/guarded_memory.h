#pragma once

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <new>
#include <string_view>

namespace hostile {

/// A buffer that ends where memory ends: one byte behind it, and the process is stopped.
class GuardedMemory {
 public:
  explicit GuardedMemory(std::size_t bytes) : m_Size((bytes + kPage - 1) / kPage * kPage) {
    m_Memory = static_cast<std::byte*>(
        ::VirtualAlloc(nullptr, m_Size + kPage, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    DWORD before = 0;
    if (m_Memory == nullptr || !::VirtualProtect(m_Memory + m_Size, kPage, PAGE_NOACCESS, &before))
      throw std::bad_alloc();
  }
  ~GuardedMemory() { ::VirtualFree(m_Memory, 0, MEM_RELEASE); }
  GuardedMemory(const GuardedMemory&) = delete;
  GuardedMemory& operator=(const GuardedMemory&) = delete;

  /// Room for so many elements, filled with a byte that is no end of a text.
  template <typename Element>
  Element* Room(std::size_t count) {
    const std::size_t bytes = count * sizeof(Element);
    if (bytes > m_Size) throw std::bad_alloc();
    std::byte* const begin = m_Memory + m_Size - bytes;
    std::fill(begin, m_Memory + m_Size, std::byte{0x5A});
    return reinterpret_cast<Element*>(begin);
  }
  /// A copy of a text with the zero at its end.
  const char* Text(std::string_view text) { return TextOf(text); }
  const wchar_t* Text(std::wstring_view text) { return TextOf(text); }

 private:
  static constexpr std::size_t kPage = 4096;

  template <typename Letter>
  const Letter* TextOf(std::basic_string_view<Letter> text) {
    Letter* const copy = Room<Letter>(text.size() + 1);
    text.copy(copy, text.size());
    copy[text.size()] = Letter{};
    return copy;
  }

  std::size_t m_Size;
  std::byte* m_Memory;
};

}  // namespace hostile
