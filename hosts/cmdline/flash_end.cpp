#include "hosts/cmdline/flash_end.h"

#include "hosts/common/text_layout.h"

namespace hosts {

std::string FlashEndText(const FlashEnd& end, std::size_t columns, Colours colours) {
  const std::string first = Wrapped(end.verdict + " " + end.result, columns, "", "");
  std::string text = WithVerdict(first, end.verdict, end.flashed ? Verdict::Ok : Verdict::Error, colours);
  if (!end.why.empty()) text += Wrapped(end.why, columns, "", "");
  text += Wrapped(end.whatToDo, columns, "", "");
  if (!end.log.empty()) text += Wrapped("Debug log: " + end.log, columns, "", "  ");
  if (!end.toShowLog.empty()) text += Wrapped("To see it:  " + end.toShowLog, columns, "", "  ");
  return text;
}

}  // namespace hosts
