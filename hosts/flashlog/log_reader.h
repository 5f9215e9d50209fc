#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "hosts/flashlog/record.h"

namespace hosts::flashlog {

/// Finds the records in the bytes of a log, in whatever pieces these come. Needs the memory of one record.
///
/// A record begins with "#", date and time at the start of a line, and ends with "##" at the end of one; in
/// between its message may hold line ends. What is not of this form is handed out as well, as flawed.
class LogReader {
 public:
  using Taker = std::function<void(const Record&)>;

  /// What is kept of a record; longer ones are cut.
  static constexpr std::size_t kLongestRecord = std::size_t{64} * 1024;

  explicit LogReader(Taker taker) : m_Taker(std::move(taker)) {}

  /// The next bytes of the log.
  void Take(std::string_view bytes);
  /// There are no more bytes: hands out what is left without an end. What follows is the log that began
  /// anew.
  void Finish();

 private:
  /// A line of the log; of a long one its beginning.
  struct Line {
    std::string_view text;   ///< without its line end
    std::uint64_t size = 0;  ///< in the log, with its line end
    bool isCut = false;
    bool endsRecord = false;
  };

  void AddToLine(std::string_view piece);
  void PassOver(std::string_view piece);
  void KeepTail(std::string_view piece);
  void EndLine();
  void TakeLine(std::string_view text, std::uint64_t size, bool isCut, std::string_view tail);
  void Sort(const Line& line);
  void Begin(const Line& line);
  void Continue(const Line& line);
  void HandOut(Flaw flaw);
  void HandOutForeign(const Line& line);

  Taker m_Taker;
  std::uint64_t m_Offset = 0;  ///< of the next line
  std::uint64_t m_Before = 0;  ///< bytes of the log before it began anew

  // The line that has no end yet.
  std::string m_Line;
  std::uint64_t m_LineSize = 0;
  /// Its last bytes, which the kept begin of a long line does not have.
  std::string m_Tail;

  // The record that has no end yet.
  std::string m_Record;
  std::uint64_t m_RecordOffset = 0;
  std::uint64_t m_RecordSize = 0;
  bool m_RecordOpen = false;
  bool m_RecordCut = false;
  Milliseconds m_LastTime = 0;
};

}  // namespace hosts::flashlog
