#include "hosts/flashlog/log_reader.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <optional>
#include <system_error>

namespace hosts::flashlog {

namespace {

constexpr std::string_view kEndMark = "##";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
/// How a record begins; a 0 stands for any digit.
constexpr std::string_view kBegin = "#0000-00-00\t00:00:00.000\t";
/// Enough to hold the end mark and a line end, and less than what a record begins with.
constexpr std::size_t kTailLength = kBegin.size() - 1;

bool IsDigit(char letter) {
  return letter >= '0' && letter <= '9';
}

bool IsBlank(char letter) {
  return letter == ' ' || letter == '\t' || letter == '\r' || letter == '\n';
}

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

int TwoDigits(std::string_view text, std::size_t at) {
  return (text[at] - '0') * 10 + (text[at + 1] - '0');
}

/// The time that a record begins with; nothing when no record begins like that.
std::optional<Milliseconds> TimeOf(std::string_view text) {
  if (text.size() < kBegin.size()) return std::nullopt;
  const bool fits = std::ranges::equal(text.substr(0, kBegin.size()), kBegin, [](char letter, char form) {
    return form == '0' ? IsDigit(letter) : letter == form;
  });
  if (!fits) return std::nullopt;
  const int hours = TwoDigits(text, 12);
  const int minutes = TwoDigits(text, 15);
  const int seconds = TwoDigits(text, 18);
  const int thousandths = (text[21] - '0') * 100 + TwoDigits(text, 22);
  const std::chrono::year_month_day day(std::chrono::year(TwoDigits(text, 1) * 100 + TwoDigits(text, 3)),
                                        std::chrono::month(static_cast<unsigned>(TwoDigits(text, 6))),
                                        std::chrono::day(static_cast<unsigned>(TwoDigits(text, 9))));
  if (!day.ok() || hours > 23 || minutes > 59 || seconds > 59) return std::nullopt;
  const auto days = std::chrono::sys_days(day).time_since_epoch().count();
  return (((Milliseconds{days} * 24 + hours) * 60 + minutes) * 60 + seconds) * 1000 + thousandths;
}

/// Where a record begins in a text, from a place on; npos when none does.
std::size_t BeginWithin(std::string_view text, std::size_t from) {
  std::size_t begin = text.find('#', from);
  while (begin != std::string_view::npos && !TimeOf(text.substr(begin))) begin = text.find('#', begin + 1);
  return begin;
}

bool TakeNumber(std::string_view text, std::uint32_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

/// The text up to the next tab, which is taken away with it.
std::optional<std::string_view> TakeField(std::string_view& rest) {
  const std::size_t tab = rest.find('\t');
  if (tab == std::string_view::npos) return std::nullopt;
  const std::string_view field = rest.substr(0, tab);
  rest.remove_prefix(tab + 1);
  return field;
}

Level LevelOf(std::string_view name) {
  if (name == "Error") return Level::Error;
  if (name == "Warning") return Level::Warning;
  return name == "Trace" ? Level::Trace : Level::Other;
}

/// Fills in what stands behind date and time. @return false when a field is missing or no number.
bool TakeFields(std::string_view rest, Record& record) {
  std::array<std::string_view, 6> fields;  // ids, component, level, source, line, function
  for (std::string_view& field : fields) {
    const auto taken = TakeField(rest);
    if (!taken) return false;
    field = *taken;
  }
  const std::size_t divider = fields[0].find('~');
  if (divider == std::string_view::npos || !TakeNumber(fields[0].substr(0, divider), record.process) ||
      !TakeNumber(fields[0].substr(divider + 1), record.thread) || !TakeNumber(fields[4], record.line)) {
    return false;
  }
  record.level = LevelOf(fields[2]);
  record.source = fields[3];
  record.function = fields[5];
  record.message = Trimmed(rest);
  return true;
}

}  // namespace

const char* NameOf(Level level) {
  switch (level) {
    case Level::Error:
      return "error";
    case Level::Warning:
      return "warning";
    case Level::Trace:
      return "trace";
    case Level::Other:
      break;
  }
  return "other";
}

const char* NameOf(Flaw flaw) {
  switch (flaw) {
    case Flaw::Foreign:
      return "foreign";
    case Flaw::Malformed:
      return "malformed";
    case Flaw::Truncated:
      return "truncated";
    case Flaw::Cut:
      return "cut";
    case Flaw::None:
      break;
  }
  return "";
}

void LogReader::Take(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t end = bytes.find('\n');
    const bool complete = end != std::string_view::npos;
    const std::string_view piece = complete ? bytes.substr(0, end + 1) : bytes;
    bytes.remove_prefix(piece.size());
    if (complete && m_LineSize == 0 && piece.size() <= kLongestRecord) {
      // Nearly all lines: they lie in one piece.
      TakeLine(piece, piece.size(), false, piece);
      continue;
    }
    AddToLine(piece);
    if (complete) EndLine();
  }
}

void LogReader::AddToLine(std::string_view piece) {
  const std::string_view kept = piece.substr(0, kLongestRecord - m_Line.size());
  m_Line += kept;
  m_LineSize += kept.size();
  KeepTail(kept);
  piece.remove_prefix(kept.size());
  if (!piece.empty()) PassOver(piece);
}

/// What is more than a line may have. A record in it begins a line of its own: what a power cut leaves in
/// front of it, zeros for example, has no line end.
void LogReader::PassOver(std::string_view piece) {
  const bool isFirst = m_LineSize == m_Line.size();
  const std::string before = isFirst ? m_Line : m_Tail;
  const std::string ahead = before + std::string(piece);
  const std::size_t begin = BeginWithin(ahead, isFirst ? 1 : 0);
  if (begin == std::string_view::npos) {
    m_LineSize += piece.size();
    return KeepTail(piece);
  }
  m_LineSize = m_LineSize - before.size() + begin;
  m_Line.resize(static_cast<std::size_t>(std::min<std::uint64_t>(m_Line.size(), m_LineSize)));
  m_Tail.clear();
  EndLine();
  AddToLine(std::string_view(ahead).substr(begin));
}

void LogReader::KeepTail(std::string_view piece) {
  m_Tail += piece.substr(piece.size() - std::min(piece.size(), kTailLength));
  if (m_Tail.size() > kTailLength) m_Tail.erase(0, m_Tail.size() - kTailLength);
}

void LogReader::EndLine() {
  if (m_LineSize != 0) TakeLine(m_Line, m_LineSize, m_LineSize > m_Line.size(), m_Tail);
  m_Line.clear();
  m_Tail.clear();
  m_LineSize = 0;
}

void LogReader::Finish() {
  EndLine();
  if (m_RecordOpen) HandOut(Flaw::Truncated);
  m_Before += m_Offset;
  m_Offset = 0;
}

void LogReader::TakeLine(std::string_view text, std::uint64_t size, bool isCut, std::string_view tail) {
  while (!tail.empty() && (tail.back() == '\n' || tail.back() == '\r')) tail.remove_suffix(1);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
  if (m_Offset == 0 && text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  const bool endsRecord = tail.ends_with(kEndMark);
  // A record that broke off without a line end has the next one behind it.
  for (std::size_t begin = BeginWithin(text, 1); begin != std::string_view::npos;
       begin = BeginWithin(text, 1)) {
    Sort({.text = text.substr(0, begin), .size = begin});
    m_Offset += begin;
    text.remove_prefix(begin);
    size -= begin;
  }
  Sort({.text = text, .size = size, .isCut = isCut, .endsRecord = endsRecord});
  m_Offset += size;
}

void LogReader::Sort(const Line& line) {
  if (TimeOf(line.text)) {
    if (m_RecordOpen) HandOut(Flaw::Truncated);
    Begin(line);
  } else if (m_RecordOpen) {
    Continue(line);
  } else if (!line.text.empty()) {
    HandOutForeign(line);
  }
}

void LogReader::Begin(const Line& line) {
  m_Record.assign(line.text);
  m_RecordOffset = m_Offset;
  m_RecordSize = line.size;
  m_RecordOpen = true;
  m_RecordCut = line.isCut;
  if (line.endsRecord) HandOut(m_RecordCut ? Flaw::Cut : Flaw::None);
}

void LogReader::Continue(const Line& line) {
  m_RecordSize += line.size;
  const std::size_t room = kLongestRecord - std::min(kLongestRecord, m_Record.size() + 1);
  m_RecordCut = m_RecordCut || line.isCut || line.text.size() > room;
  if (room > 0) (m_Record += '\n') += line.text.substr(0, room);
  if (line.endsRecord) HandOut(m_RecordCut ? Flaw::Cut : Flaw::None);
}

void LogReader::HandOut(Flaw flaw) {
  m_RecordOpen = false;
  std::string_view text = m_Record;
  Record record{.offset = m_RecordOffset, .before = m_Before, .size = m_RecordSize, .flaw = flaw};
  m_LastTime = record.time = TimeOf(text).value_or(m_LastTime);
  if (flaw == Flaw::None && text.ends_with(kEndMark)) text.remove_suffix(kEndMark.size());
  text.remove_prefix(kBegin.size());
  if (!TakeFields(text, record)) {
    record.message = Trimmed(text);
    record.flaw = Flaw::Malformed;
  }
  m_Taker(record);
}

void LogReader::HandOutForeign(const Line& line) {
  m_Taker({.offset = m_Offset,
           .before = m_Before,
           .size = line.size,
           .time = m_LastTime,
           .message = Trimmed(line.text),
           .flaw = Flaw::Foreign});
}

}  // namespace hosts::flashlog
