#pragma once

#include <cstddef>

#include "toolkit/toolkit.h"

/// The tag that every record of this library carries.
inline constexpr const char* kLogComponent = "FlashSvc";

/// A function's qualified name, cut at compile time from the signature that the compiler spells out.
template <std::size_t Size>
class QualifiedFunctionName {
 public:
  consteval explicit QualifiedFunctionName(const char (&signature)[Size]) {
    std::size_t end = 0;
    while (end + 1 < Size && signature[end] != '(') ++end;
    std::size_t begin = end;
    while (begin > 0 && signature[begin - 1] != ' ' && signature[begin - 1] != '*' &&
           signature[begin - 1] != '&') {
      --begin;
    }
    for (std::size_t i = begin; i < end; ++i) m_name[i - begin] = signature[i];
  }
  constexpr const char* Text() const { return m_name; }

 private:
  char m_name[Size]{};
};

#if defined(_MSC_VER) && !defined(__clang__)
#define QUALIFIED_FUNCTION __FUNCTION__
#else
#define QUALIFIED_FUNCTION (QualifiedFunctionName(__PRETTY_FUNCTION__).Text())
#endif

/// One record of the debug log. Narrow texts are UTF-8; the last error survives.
#define LOG_AT(level, ...) \
  ::ToolKit::OutputDebug(level, kLogComponent, QUALIFIED_FUNCTION, __FILE__, __LINE__, __VA_ARGS__)
#define LOG_ERROR(...) LOG_AT(1, __VA_ARGS__)
#define LOG_WARNING(...) LOG_AT(2, __VA_ARGS__)
#define LOG_TRACE(...) LOG_AT(3, __VA_ARGS__)
