#pragma once

#include <windows.h>

#include <oleauto.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

namespace corvel {

/// Frees an Automation text. A null BSTR is the empty text.
struct BstrFreer {
  void operator()(OLECHAR* text) const noexcept { ::SysFreeString(text); }
};
using UniqueBstr = std::unique_ptr<OLECHAR, BstrFreer>;

/// All characters of an Automation text; it may hold NULs, and may be null.
inline std::wstring_view TextOf(BSTR text) {
  return {text, ::SysStringLen(text)};
}

/// Gives up a reference on a COM object. Unlike ComPtr, whose move assignment takes references in mingw-w64,
/// its owner calls the object at its own end only, so that it can be filled under a lock.
struct ComReleaser {
  void operator()(IUnknown* object) const noexcept { object->Release(); }
};
using UniqueUnknown = std::unique_ptr<IUnknown, ComReleaser>;

/// Destroys an Automation array with its elements.
struct SafeArrayDestroyer {
  void operator()(SAFEARRAY* array) const noexcept { ::SafeArrayDestroy(array); }
};
using UniqueSafeArray = std::unique_ptr<SAFEARRAY, SafeArrayDestroyer>;

/// The first and last index of an array's only dimension; an empty array ends before it begins. One that
/// begins at the lowest index of all then ends at the highest.
struct ArrayBounds {
  static constexpr std::int64_t kMostElements = 0xFFFFFFFF;

  LONG lower = 0;
  LONG upper = -1;

  std::size_t Count() const {
    const std::int64_t count = std::int64_t{upper} - lower + 1;
    return count > 0 && count <= kMostElements ? static_cast<std::size_t>(count) : 0;
  }
};

/// The elements of an array, locked for a scope. Empty for an array with more dimensions or elements of
/// another size: whoever fills an array decides how it is declared, so only its shape is relied on.
template <typename Element>
class ArrayElements {
 public:
  explicit ArrayElements(SAFEARRAY* array) noexcept {
    ArrayBounds bounds;
    if (array == nullptr || ::SafeArrayGetDim(array) != 1) return;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): an element may be a pointer
    if (::SafeArrayGetElemsize(array) != sizeof(Element)) return;
    if (FAILED(::SafeArrayGetLBound(array, 1, &bounds.lower))) return;
    if (FAILED(::SafeArrayGetUBound(array, 1, &bounds.upper))) return;
    void* data = nullptr;
    if (FAILED(::SafeArrayAccessData(array, &data))) return;
    m_Locked = array;
    m_Elements = {static_cast<Element*>(data), bounds.Count()};
  }
  ~ArrayElements() {
    if (m_Locked != nullptr) ::SafeArrayUnaccessData(m_Locked);
  }
  ArrayElements(const ArrayElements&) = delete;
  ArrayElements& operator=(const ArrayElements&) = delete;

  auto begin() const { return m_Elements.begin(); }
  auto end() const { return m_Elements.end(); }

 private:
  SAFEARRAY* m_Locked = nullptr;
  std::span<Element> m_Elements;
};

}  // namespace corvel
