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

  /// Whether it is there whatever the limit.
  bool IsImportant() const {
    return level == Level::Error || level == Level::Warning || place.stage || place.trouble != nullptr;
  }
};

/// Keeps the records of a log for its page: all errors, warnings and stages, and of the others the newest,
/// since the last flash is mostly the one that is asked for.
class RecordStore {
 public:
  /// @param mostOthers how many records are kept that are no errors, warnings or stages.
  explicit RecordStore(std::size_t mostOthers) : m_MostOthers(mostOthers) {}

  void Take(const Record& record, const Place& place);

  /// In the order of the log, with what is left out in between.
  const std::vector<KeptRecord>& Records();

 private:
  void Thin();

  std::size_t m_MostOthers;
  std::size_t m_Others = 0;
  std::vector<KeptRecord> m_Records;
};

}  // namespace hosts::flashlog
