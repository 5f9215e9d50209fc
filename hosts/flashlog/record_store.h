#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "hosts/flashlog/job_tracker.h"
#include "hosts/flashlog/record.h"

namespace hosts::flashlog {

/// A record as the page shows it, or a number of records that it leaves out.
struct KeptRecord {
  /// Records that are left out at this place; 0: this is a record.
  std::uint64_t leftOut = 0;
  std::uint64_t offset = 0;
  std::uint64_t before = 0;  ///< as Record has it
  std::uint64_t size = 0;
  Milliseconds time = 0;
  std::uint32_t process = 0;
  std::uint32_t thread = 0;
  Level level = Level::Other;
  std::uint32_t line = 0;
  std::string source{};
  std::string function{};
  std::string message{};
  /// Bytes of the message that are left out.
  std::uint64_t messageCut = 0;
  Flaw flaw = Flaw::None;
  Place place;

  /// Whether it is there whatever the limits.
  bool IsImportant() const {
    return leftOut == 0 &&
           (level == Level::Error || level == Level::Warning || place.stage || place.trouble != nullptr);
  }
  /// Whether it is there because it is not in order.
  bool IsFlawed() const { return leftOut == 0 && !IsImportant() && flaw != Flaw::None; }
  bool IsOther() const { return leftOut == 0 && !IsImportant() && flaw == Flaw::None; }
  /// Whether it is there for its stage alone.
  bool IsStage() const {
    return leftOut == 0 && place.stage && flaw == Flaw::None && level != Level::Error &&
           level != Level::Warning && place.trouble == nullptr;
  }
};

/// How much of a log its page has.
struct PageLimits {
  /// Records that are kept besides errors, warnings, stages and what is not in order.
  std::size_t others = 8000;
  /// What one log may take of the page. Errors and warnings are there all the same, with shorter texts, and
  /// stages as long as there is room beside them.
  std::size_t bytes = 4'600'000;
};

/// Keeps the records of a log for its page: all errors and warnings, and stages; of what is not in order the
/// first and the last; of the others the newest, since the last flash is mostly the one that is asked for.
class RecordStore {
 public:
  /// Of pieces that are not in order, and are no errors, warnings or stages.
  static constexpr std::size_t kMostFlawed = 1000;

  explicit RecordStore(PageLimits limits);

  void Take(const Record& record, const Place& place);

  /// In the order of the log, with what is left out in between.
  /// @param taken what else of the log takes bytes of its page.
  const std::vector<KeptRecord>& Records(std::size_t taken);

 private:
  void FitInto(std::size_t bytes);
  void GiveStagesUp(std::size_t bytes);
  void ShortenTexts(std::size_t bytes);
  void LeaveOutExcess(std::size_t mostOthers);

  PageLimits m_Limits;
  std::vector<KeptRecord> m_Records;
  std::size_t m_Others = 0;
  std::size_t m_Flawed = 0;
  /// What a lasting record keeps of each of its texts; less with each time that they are too many.
  std::size_t m_LongestText;
  /// Bytes of the lasting records' texts, and at how many of them it is looked whether these are too many.
  std::size_t m_LastingBytes = 0;
  std::size_t m_LookAtBytes;
};

}  // namespace hosts::flashlog
