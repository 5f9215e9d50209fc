#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace hosts {

/// Letters of a UTF-8 text.
std::size_t LettersOf(std::string_view text);
/// So many letters of a UTF-8 text's front, in bytes.
std::size_t BytesOfLetters(std::string_view text, std::size_t letters);

/// A text in lines of at most so many columns, with blanks in front: `first` in the first line, `next` in the
/// others. A word that is too long is broken.
std::string Wrapped(const std::string& text, std::size_t columns, const std::string& first,
                    const std::string& next);

}  // namespace hosts
