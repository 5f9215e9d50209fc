#pragma once

#include <span>
#include <string_view>

namespace hosts {

/// What a record of the debug log means to somebody who looks for the reason of a failed flash.
enum class TroubleKind {
  Cause,        ///< tells what went wrong
  Consequence,  ///< follows from records before it
  Harmless,     ///< sounds like trouble, or has its level, and is none
};
/// "cause", "consequence" or "harmless".
const char* NameOf(TroubleKind kind);

/// One row of the table: a message of the library, what it means and what to do.
struct Trouble {
  /// How the record's function begins; empty when the message alone tells.
  const char* function;
  /// The message's printf format, without the blanks and line ends around it.
  const char* format;
  TroubleKind kind;
  const char* meaning;
  const char* whatToDo;
};

/// All rows: each message that the library writes with the level Error, and those of other levels that tell
/// why something failed.
std::span<const Trouble> AllTroubles();

/// The row of a record. @return nullptr when the table has none.
const Trouble* FindTrouble(std::string_view function, std::string_view message);

/// What a value that tells an end means.
struct ResultAdvice {
  int value;
  const char* meaning;
  const char* whatToDo;
};

/// The values of Flash_Result.
std::span<const ResultAdvice> FlashResultAdvice();
/// The results of one download attempt, as its last record names them.
std::span<const ResultAdvice> AttemptResultAdvice();
/// The row of a value. @return nullptr when it is none that the library knows.
const ResultAdvice* FindResultAdvice(std::span<const ResultAdvice> results, int value);

/// Whether a text is what a printf format makes of some arguments. Blanks and line ends around the text do
/// not count. It knows the conversions that the log uses: numbers and texts, with or without a width.
bool MatchesFormat(std::string_view format, std::string_view text);

}  // namespace hosts
