#include "hosts/common/text_layout.h"

#include <algorithm>

namespace hosts {

namespace {

bool ContinuesLetter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80;
}

}  // namespace

std::size_t LettersOf(std::string_view text) {
  return text.size() - static_cast<std::size_t>(std::ranges::count_if(text, ContinuesLetter));
}

/// So many letters of a UTF-8 text's front, in bytes.
std::size_t BytesOfLetters(std::string_view text, std::size_t letters) {
  std::size_t at = 0;
  for (; letters > 0 && at < text.size(); --letters) {
    do ++at;
    while (at < text.size() && ContinuesLetter(text[at]));
  }
  return at;
}

std::string Wrapped(const std::string& text, std::size_t columns, const std::string& first,
                    const std::string& next) {
  std::string wrapped;
  std::string_view rest = text;
  std::string indent = first;
  do {
    const std::size_t width = std::max<std::size_t>(columns, indent.size() + 1) - indent.size();
    std::size_t length = std::min(rest.find('\n'), rest.size());
    std::size_t skipped = length < rest.size() ? 1 : 0;
    if (LettersOf(rest.substr(0, length)) > width) {
      length = BytesOfLetters(rest, width);
      const std::size_t blank = rest.rfind(' ', length);
      skipped = 0;
      if (blank != std::string_view::npos && blank > 0 && rest.find_first_not_of(' ') < blank) {
        length = blank;
        skipped = 1;
      }
    }
    (wrapped += indent) += rest.substr(0, length);
    wrapped += '\n';
    rest.remove_prefix(length + skipped);
    indent = next;
  } while (!rest.empty());
  return wrapped;
}

}  // namespace hosts
