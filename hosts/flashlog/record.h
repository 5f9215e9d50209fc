#pragma once

#include <cstdint>
#include <string_view>

namespace hosts::flashlog {

/// Local time of the PC that wrote the log, in milliseconds; only differences and its own text mean anything.
using Milliseconds = std::int64_t;

enum class Level { Error, Warning, Trace, Other };

/// What is wrong with the form of a piece of a log.
enum class Flaw {
  None,
  Foreign,    ///< lines that no record begins in
  Malformed,  ///< begins as a record does, and lacks fields
  Truncated,  ///< ends before its end mark: the next record or the end of the log comes first
  Cut,        ///< longer than what is kept of a record; the rest was passed over
};

/// One record of a debug log, or a piece of it that is none. The texts live as long as the call that hands
/// the record out.
struct Record {
  std::uint64_t offset = 0;  ///< of its first byte in the log
  std::uint64_t before = 0;  ///< bytes that the log had before it began anew, each time that it did
  std::uint64_t size = 0;    ///< in bytes, with its end mark and line end
  Milliseconds time = 0;     ///< a foreign line has the time of the record before it
  std::uint32_t process = 0;
  std::uint32_t thread = 0;
  Level level = Level::Other;
  std::uint32_t line = 0;
  std::string_view source{};
  std::string_view function{};
  /// Without blanks and line ends around it. Of a foreign line the whole text.
  std::string_view message{};
  Flaw flaw = Flaw::None;
};

/// "error", "warning", "trace" or "other".
const char* NameOf(Level level);
/// "foreign", "malformed", "truncated", "cut"; empty for none.
const char* NameOf(Flaw flaw);

}  // namespace hosts::flashlog
