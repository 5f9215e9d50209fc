#include "hosts/flashlog/record_store.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <set>
#include <string_view>
#include <tuple>
#include <unordered_set>
#include <utility>

#include "hosts/flashlog/readable_text.h"

namespace hosts::flashlog {

namespace {

/// Longer texts are cut; the file has them. The first step holds as long as the page has room.
constexpr std::array<std::size_t, 6> kLongestTexts{2000, 1000, 500, 250, 120, 60};
constexpr std::size_t kLongestMessage = kLongestTexts.front();
/// Names of functions and files.
constexpr std::size_t kLongestName = 200;
/// A piece that is not in order is mostly known by its beginning.
constexpr std::size_t kLongestFlawedText = 300;

/// What a gap, a record, and a row of a table take of the page at most, mostly less, without their texts.
constexpr std::size_t kGapBytes = 10;
constexpr std::size_t kRecordBytes = 10;
constexpr std::size_t kTextBytes = 10;
constexpr std::size_t kSiteBytes = 48;
constexpr std::size_t kThreadBytes = 8;

/// The beginning of a text, of which no UTF-8 letter is cut in two.
std::string_view Beginning(std::string_view text, std::size_t longest) {
  if (text.size() <= longest) return text;
  std::size_t length = longest;
  const auto continues = [&] { return (static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80U; };
  while (length > 0 && longest - length < 3 && continues()) --length;
  return text.substr(0, continues() ? longest : length);
}

/// What a text takes in the page's data.
std::size_t PageBytes(std::string_view text) {
  constexpr std::size_t kQuotesAndComma = 3;
  std::size_t bytes = kQuotesAndComma;
  for (const char letter : ReadableText(text)) {
    // As JSON in a script.
    if (letter == '<') {
      bytes += std::string_view("\\u003c").size();
    } else {
      bytes += letter == '"' || letter == '\\' || letter == '\n' ? 2 : 1;
    }
  }
  return bytes;
}

/// What records take of the page, which tells texts, places in the library and threads once each.
class PageCost {
 public:
  /// @param longest what is kept of each text.
  void Add(const KeptRecord& record, std::size_t longest) {
    m_Bytes += kRecordBytes;
    const std::string_view message = Beginning(record.message, longest);
    if (m_Messages.insert(message).second) m_Bytes += kTextBytes + PageBytes(message);
    const std::string_view source = Beginning(record.source, longest);
    const std::string_view function = Beginning(record.function, longest);
    if (m_Sites.emplace(source, function, record.line).second) {
      m_Bytes += kSiteBytes + PageBytes(source) + PageBytes(function);
    }
    if (m_Threads.emplace(record.process, record.thread).second) m_Bytes += kThreadBytes;
  }
  void AddGap() { m_Bytes += kGapBytes; }

  std::size_t Bytes() const { return m_Bytes; }

 private:
  std::unordered_set<std::string_view> m_Messages;
  std::set<std::tuple<std::string_view, std::string_view, std::uint32_t>> m_Sites;
  std::set<std::pair<std::uint32_t, std::uint32_t>> m_Threads;
  std::size_t m_Bytes = 0;
};

bool Lasts(const KeptRecord& record) {
  return record.IsImportant() || record.IsFlawed();
}

/// What the records that stay take when all others are left out.
template <typename Predicate>
std::size_t BytesOf(const std::vector<KeptRecord>& records, std::size_t longest, Predicate isToStay) {
  PageCost cost;
  bool inGap = false;
  for (const KeptRecord& record : records) {
    const bool stays = isToStay(record);
    if (stays) cost.Add(record, longest);
    if (!stays && !inGap) cost.AddGap();
    inGap = !stays;
  }
  return cost.Bytes();
}

std::size_t LastingBytes(const std::vector<KeptRecord>& records, std::size_t longest) {
  return BytesOf(records, longest, Lasts);
}

/// How many of the newest records of a kind so many bytes hold.
template <typename Predicate>
std::size_t NewestThatFit(const std::vector<KeptRecord>& records, std::size_t bytes, Predicate isOfKind) {
  PageCost cost;
  std::size_t fit = 0;
  for (auto record = records.rbegin(); record != records.rend(); ++record) {
    if (!isOfKind(*record)) continue;
    cost.Add(*record, kLongestMessage);
    // Each may stand alone between others that are left out.
    if (record->IsStage()) cost.AddGap();
    if (cost.Bytes() > bytes) break;
    ++fit;
  }
  return fit;
}

std::size_t Rest(std::size_t all, std::size_t taken) {
  return all - std::min(all, taken);
}

void Shorten(KeptRecord& record, std::size_t longest) {
  const std::size_t kept = Beginning(record.message, longest).size();
  record.messageCut += record.message.size() - kept;
  record.message.resize(kept);
  record.source.resize(Beginning(record.source, longest).size());
  record.function.resize(Beginning(record.function, longest).size());
}

void LeaveOut(const KeptRecord& record, std::vector<KeptRecord>& records) {
  const std::uint64_t count = record.leftOut == 0 ? 1 : record.leftOut;
  const std::uint64_t end = record.offset + record.size;
  // A gap ends with the log that it is in.
  if (!records.empty() && records.back().leftOut != 0 && records.back().before == record.before) {
    records.back().leftOut += count;
    records.back().size = end - records.back().offset;
    return;
  }
  KeptRecord gap;
  gap.leftOut = count;
  gap.offset = record.offset;
  gap.before = record.before;
  gap.size = record.size;
  gap.time = record.time;
  gap.place.job = record.place.job;
  records.push_back(std::move(gap));
}

}  // namespace

RecordStore::RecordStore(PageLimits limits)
    : m_Limits(limits), m_LongestText(kLongestMessage), m_LookAtBytes(limits.bytes) {}

void RecordStore::Take(const Record& record, const Place& place) {
  KeptRecord kept{.offset = record.offset,
                  .before = record.before,
                  .size = record.size,
                  .time = record.time,
                  .process = record.process,
                  .thread = record.thread,
                  .level = record.level,
                  .line = record.line,
                  .source = std::string(Beginning(record.source, kLongestName)),
                  .function = std::string(Beginning(record.function, kLongestName)),
                  .flaw = record.flaw,
                  .place = place};
  std::size_t longest = kLongestMessage;
  if (kept.IsFlawed()) longest = kLongestFlawedText;
  if (!kept.IsOther()) longest = std::min(longest, m_LongestText);
  const std::string_view message = Beginning(record.message, longest);
  kept.message = message;
  kept.messageCut = record.message.size() - message.size();

  if (kept.IsOther()) ++m_Others;
  if (kept.IsFlawed()) ++m_Flawed;
  if (!kept.IsOther()) m_LastingBytes += message.size();
  m_Records.push_back(std::move(kept));
  // Not with each record: going through all of them costs.
  if (m_Others > m_Limits.others + m_Limits.others / 2 + 1000 || m_Flawed > 2 * kMostFlawed) {
    LeaveOutExcess(m_Limits.others);
  }
  if (m_LastingBytes > m_LookAtBytes) {
    ShortenTexts(m_Limits.bytes);
    m_LookAtBytes = std::max(m_Limits.bytes, 2 * m_LastingBytes);
  }
}

const std::vector<KeptRecord>& RecordStore::Records(std::size_t taken) {
  LeaveOutExcess(m_Limits.others);
  FitInto(Rest(m_Limits.bytes, taken));
  return m_Records;
}

void RecordStore::FitInto(std::size_t bytes) {
  ShortenTexts(bytes);
  if (LastingBytes(m_Records, m_LongestText) > bytes) GiveStagesUp(bytes);
  const std::size_t left = Rest(bytes, LastingBytes(m_Records, m_LongestText));
  LeaveOutExcess(NewestThatFit(m_Records, left, [](const auto& record) { return record.IsOther(); }));
}

/// The oldest ones that there is no room for become traces like others.
void RecordStore::GiveStagesUp(std::size_t bytes) {
  const auto isStage = [](const KeptRecord& record) { return record.IsStage(); };
  const std::size_t rest = BytesOf(
      m_Records, m_LongestText, [&](const KeptRecord& record) { return Lasts(record) && !isStage(record); });
  const std::size_t fit = NewestThatFit(m_Records, Rest(bytes, rest), isStage);
  std::size_t excess = Rest(static_cast<std::size_t>(std::ranges::count_if(m_Records, isStage)), fit);
  for (KeptRecord& record : m_Records) {
    if (excess == 0) return;
    if (!isStage(record)) continue;
    record.place.stage = false;
    ++m_Others;
    --excess;
  }
}

/// Until a part of the page is left for the others; not where the texts are not what takes the room.
void RecordStore::ShortenTexts(std::size_t bytes) {
  const std::size_t room = bytes / 4 * 3;
  const auto fits = [&](std::size_t longest) { return LastingBytes(m_Records, longest) <= room; };
  if (fits(m_LongestText)) return;
  const std::size_t shortest = LastingBytes(m_Records, kLongestTexts.back());
  if (shortest > LastingBytes(m_Records, m_LongestText) / 10 * 9) return;
  const std::size_t before = m_LongestText;
  while (m_LongestText != kLongestTexts.back() && !fits(m_LongestText)) {
    m_LongestText =
        *std::ranges::find_if(kLongestTexts, [&](std::size_t step) { return step < m_LongestText; });
  }
  if (m_LongestText == before) return;
  m_LastingBytes = 0;
  for (KeptRecord& record : m_Records) {
    if (record.leftOut != 0 || record.IsOther()) continue;
    Shorten(record, m_LongestText);
    m_LastingBytes += record.message.size();
  }
}

void RecordStore::LeaveOutExcess(std::size_t mostOthers) {
  if (m_Others <= mostOthers && m_Flawed <= kMostFlawed) return;
  std::size_t excess = m_Others - std::min(m_Others, mostOthers);
  const std::size_t firstOfNewest = m_Flawed - std::min(m_Flawed, kMostFlawed / 2);
  std::size_t flawed = 0;
  const auto drops = [&](const KeptRecord& record) {
    if (record.IsOther() && excess > 0) {
      --excess;
      return true;
    }
    if (!record.IsFlawed()) return false;
    ++flawed;
    return flawed > kMostFlawed / 2 && flawed <= firstOfNewest;
  };
  // In front of the first other one nothing changes, and the longer a log, the more stands there.
  const auto first =
      m_Flawed > kMostFlawed ? m_Records.begin() : std::ranges::find_if(m_Records, &KeptRecord::IsOther);
  std::vector<KeptRecord> rest(std::make_move_iterator(first), std::make_move_iterator(m_Records.end()));
  m_Records.erase(first, m_Records.end());
  for (KeptRecord& record : rest) {
    if (drops(record) || record.leftOut != 0) {
      LeaveOut(record, m_Records);
    } else {
      m_Records.push_back(std::move(record));
    }
  }
  m_Others = std::min(m_Others, mostOthers);
  m_Flawed = std::min(m_Flawed, kMostFlawed);
}

}  // namespace hosts::flashlog
