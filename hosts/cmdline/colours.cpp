#include "hosts/cmdline/colours.h"

namespace hosts {

namespace {

constexpr char kGreen[] = "\x1b[32m";
constexpr char kYellow[] = "\x1b[33m";
constexpr char kRed[] = "\x1b[31m";
constexpr char kUsual[] = "\x1b[0m";

const char* ColourOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::Ok:
      return kGreen;
    case Verdict::Warning:
      return kYellow;
    default:
      return kRed;
  }
}

}  // namespace

std::string WithVerdict(std::string text, const std::string& words, Verdict verdict, Colours colours) {
  if (colours == Colours::None || !text.starts_with(words)) return text;
  return text.replace(0, words.size(), ColourOf(verdict) + words + kUsual);
}

}  // namespace hosts
