#include "hosts/flashlog/readable_text.h"

#include <windows.h>

#include "hosts/common/text.h"

namespace hosts::flashlog {

namespace {

bool IsUtf8(std::string_view text) {
  return ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), static_cast<int>(text.size()),
                               nullptr, 0) != 0;
}

}  // namespace

std::string ReadableText(std::string_view text) {
  std::string readable = text.empty() || IsUtf8(text) ? std::string(text) : ToUtf8(FromAnsi(text));
  for (char& letter : readable) {
    if (static_cast<unsigned char>(letter) < ' ') letter = letter == '\n' ? '\n' : ' ';
  }
  return readable;
}

}  // namespace hosts::flashlog
