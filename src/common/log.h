#pragma once

#include <cstdarg>
#include <cstddef>
#include <string_view>

#if defined(__GNUC__) && !defined(__clang__)
#define CORVEL_LOG_FORMAT __attribute__((format(ms_printf, 6, 7)))
#elif defined(__GNUC__)
#define CORVEL_LOG_FORMAT __attribute__((format(printf, 6, 7)))
#else
#define CORVEL_LOG_FORMAT
#endif

namespace corvel {

/// The tag that every record of this library carries.
inline constexpr const char* kLogComponent = "FlashSvc";

/// A function's qualified name, cut at compile time from what the compiler spells out: the whole signature
/// (GCC, clang) or the name alone (MSVC). Unnamed namespaces are left out, and so is the library's own in
/// front; a lambda goes by the name of the function that it stands in. So the log reads the same whichever
/// compiler built it.
template <std::size_t Size>
class QualifiedFunctionName {
 public:
  consteval explicit QualifiedFunctionName(const char (&signature)[Size]) {
    Cut(std::string_view(signature, Size - 1));
  }
  constexpr const char* Text() const { return m_Name; }

 private:
  static constexpr std::string_view kUnnamedNamespaces[] = {
      "{anonymous}::", "(anonymous namespace)::", "`anonymous-namespace'::", "`anonymous namespace'::"};
  static constexpr std::string_view kOwnNamespace = "corvel::";
  static constexpr std::string_view kOperator = "operator";
  static constexpr std::string_view kCallOperators[] = {"operator()", "operator ()"};
  static constexpr std::string_view kLambda = "::<lambda";

  /// Walks up to the parameters; a blank, a star or an ampersand outside of template arguments means that
  /// what came before was the return type.
  consteval void Cut(std::string_view rest) {
    std::size_t depth = 0;
    while (!rest.empty()) {
      if (SkipUnnamedNamespace(rest) || SkipOwnNamespace(rest)) continue;
      if (depth == 0) {
        if (rest.starts_with('(') || rest.starts_with(kLambda)) return;
        if (rest.starts_with(kOperator) && AtStartOfName()) return TakeOperator(rest);
        if (rest.front() == ' ' || rest.front() == '*' || rest.front() == '&') {
          Restart();
          rest.remove_prefix(1);
          continue;
        }
      }
      if (rest.front() == '<') ++depth;
      if (rest.front() == '>') --depth;
      Take(rest, 1);
    }
  }

  static consteval bool SkipUnnamedNamespace(std::string_view& rest) {
    for (const std::string_view unnamed : kUnnamedNamespaces) {
      if (!rest.starts_with(unnamed)) continue;
      rest.remove_prefix(unnamed.size());
      return true;
    }
    return false;
  }

  consteval bool SkipOwnNamespace(std::string_view& rest) const {
    if (m_Length != 0 || !rest.starts_with(kOwnNamespace)) return false;
    rest.remove_prefix(kOwnNamespace.size());
    return true;
  }

  consteval void TakeOperator(std::string_view rest) {
    for (const std::string_view call : kCallOperators) {
      if (rest.starts_with(call)) return Take(rest, call.size());
    }
    Take(rest, rest.substr(0, rest.find('(')).size());
  }

  consteval bool AtStartOfName() const { return m_Length == 0 || m_Name[m_Length - 1] == ':'; }

  consteval void Take(std::string_view& rest, std::size_t count) {
    for (const char letter : rest.substr(0, count)) m_Name[m_Length++] = letter;
    rest.remove_prefix(count);
  }

  consteval void Restart() {
    while (m_Length > 0) m_Name[--m_Length] = '\0';
  }

  char m_Name[Size]{};
  std::size_t m_Length = 0;
};

/// Writes one record to the debug log, as ToolKit::OutputDebug documents it. Any thread. Never throws: a
/// record that there is no memory for is lost, as any that cannot be written.
void WriteLogRecord(int level, const char* component, const char* function, const char* file, int line,
                    const char* format, ...) noexcept CORVEL_LOG_FORMAT;
/// The same for arguments that the caller was given.
void WriteLogRecordOf(int level, const char* component, const char* function, const char* file, int line,
                      const char* format, std::va_list arguments) noexcept;

}  // namespace corvel

#if defined(_MSC_VER) && !defined(__clang__)
#define QUALIFIED_FUNCTION (::corvel::QualifiedFunctionName(__FUNCTION__).Text())
#else
#define QUALIFIED_FUNCTION (::corvel::QualifiedFunctionName(__PRETTY_FUNCTION__).Text())
#endif

/// One record of the debug log. Narrow texts are UTF-8; the last error survives.
///
/// Readers search the log by its function field. The plain macros fill it with the function that they stand
/// in. Helpers of a named procedure take the macros that end in _AS and give that procedure's qualified name,
/// so that its records stay together however its code is split.
#define LOG_AT_AS(level, function, ...) \
  ::corvel::WriteLogRecord(level, ::corvel::kLogComponent, function, __FILE__, __LINE__, __VA_ARGS__)
#define LOG_AT(level, ...) LOG_AT_AS(level, QUALIFIED_FUNCTION, __VA_ARGS__)
#define LOG_ERROR_AS(function, ...) LOG_AT_AS(1, function, __VA_ARGS__)
#define LOG_WARNING_AS(function, ...) LOG_AT_AS(2, function, __VA_ARGS__)
#define LOG_TRACE_AS(function, ...) LOG_AT_AS(3, function, __VA_ARGS__)
#define LOG_ERROR(...) LOG_ERROR_AS(QUALIFIED_FUNCTION, __VA_ARGS__)
#define LOG_WARNING(...) LOG_WARNING_AS(QUALIFIED_FUNCTION, __VA_ARGS__)
#define LOG_TRACE(...) LOG_TRACE_AS(QUALIFIED_FUNCTION, __VA_ARGS__)
