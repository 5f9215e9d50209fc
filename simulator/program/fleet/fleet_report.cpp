#include "simulator/program/fleet/fleet_report.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

namespace simulator {

namespace {

constexpr char kFirstAttempt[] = "at the first attempt";
constexpr char kInterrupted[] = "behind a kill or a power cut";
constexpr char kSecondRequest[] = "by the second request";
constexpr char kRepaired[] = "once nothing was wrong any more";
/// In the order of the table.
constexpr const char* kWays[] = {kFirstAttempt, "after 2 attempts", "after 3 attempts", "after 4 attempts",
                                 kInterrupted,  kSecondRequest,     kRepaired};

template <typename... Values>
std::string Print(const char* format, Values... values) {
  std::array<char, 256> text{};
  std::snprintf(text.data(), text.size(), format, values...);
  return text.data();
}

double Seconds(std::int64_t milliseconds) {
  return static_cast<double>(milliseconds) / 1000;
}
double Seconds(std::chrono::milliseconds duration) {
  return Seconds(duration.count());
}
double Share(unsigned part, unsigned whole) {
  return whole == 0 ? 0 : 100.0 * part / whole;
}

std::string WayOf(const PcStory& story) {
  if (story.requests.back().isRepaired) return kRepaired;
  if (story.requests.size() > 1) return kSecondRequest;
  if (story.kills + story.powerCuts > 0) return kInterrupted;
  const int attempts = story.requests.back().attempts;
  return attempts == 1 ? kFirstAttempt : Print("after %d attempts", attempts);
}

/// The value below which a share of all lies; they are sorted.
std::int64_t Quantile(const std::vector<std::int64_t>& sorted, double share) {
  if (sorted.empty()) return 0;
  const auto at = static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1));
  return sorted[at];
}

std::vector<std::int64_t> Sorted(std::vector<std::int64_t> values) {
  std::ranges::sort(values);
  return values;
}

/// How many values lie in each stretch of ten seconds; the last one takes all that are longer.
class Histogram {
 public:
  static constexpr std::int64_t kWidthMs = 10'000;
  static constexpr std::size_t kStretches = 60;

  explicit Histogram(const std::vector<std::int64_t>& values) {
    for (const std::int64_t value : values) {
      const auto at = static_cast<std::size_t>(std::max<std::int64_t>(value, 0) / kWidthMs);
      ++m_Counts[std::min(at, kStretches - 1)];
    }
  }
  unsigned operator[](std::size_t stretch) const { return m_Counts.at(stretch); }
  unsigned Most() const { return *std::ranges::max_element(m_Counts); }

 private:
  std::array<unsigned, kStretches> m_Counts{};
};

/// Two rows of bars, side by side, on a logarithmic scale.
class Picture {
 public:
  Picture(const Histogram& flashed, const Histogram& failed, std::string title)
      : m_Flashed(flashed), m_Failed(failed), m_Title(std::move(title)) {
    for (const unsigned most = std::max(flashed.Most(), failed.Most()); m_Top < most;) m_Top *= 10;
  }

  std::string Text() const {
    std::string svg = Print(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" font-family=\"sans-serif\" "
        "font-size=\"12\">\n<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n",
        kLeft + kWide + 20, kTop + kHigh + 60);
    svg += Print("<text x=\"%d\" y=\"20\" font-size=\"14\">", kLeft) + m_Title + "</text>\n";
    for (unsigned count = 1; count <= m_Top; count *= 10) svg += GridLine(count);
    for (std::size_t i = 0; i < Histogram::kStretches; ++i) {
      const int x = kLeft + static_cast<int>(i) * kStep;
      svg += Bar(x + 1, m_Flashed[i], kFlashedColour) + Bar(x + 1 + kBar, m_Failed[i], kFailedColour);
      if (i % 6 == 0) svg += Label(x, static_cast<int>(i) * 10);
    }
    svg += Print("<text x=\"%d\" y=\"%d\">seconds of virtual time from the request to its end</text>\n",
                 kLeft, kTop + kHigh + 36);
    return svg + Legend(0, "flashed", kFlashedColour) + Legend(90, "failed", kFailedColour) + "</svg>\n";
  }

 private:
  static constexpr int kLeft = 60;
  static constexpr int kTop = 40;
  static constexpr int kHigh = 260;
  static constexpr int kStep = 12;
  static constexpr int kBar = 5;
  static constexpr int kWide = kStep * static_cast<int>(Histogram::kStretches);
  static constexpr char kFlashedColour[] = "#3a7d44";
  static constexpr char kFailedColour[] = "#b23a48";

  /// One is a bar that can be seen.
  int Height(unsigned count) const {
    if (count == 0) return 0;
    const double share = (std::log10(count) + 0.3) / (std::log10(m_Top) + 0.3);
    return static_cast<int>(share * kHigh);
  }
  std::string Bar(int x, unsigned count, const char* colour) const {
    const int height = Height(count);
    if (height == 0) return {};
    return Print("<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" fill=\"%s\"><title>%u</title></rect>\n",
                 x, kTop + kHigh - height, kBar, height, colour, count);
  }
  std::string GridLine(unsigned count) const {
    const int y = kTop + kHigh - Height(count);
    return Print("<line x1=\"%d\" y1=\"%d\" x2=\"%d\" y2=\"%d\" stroke=\"#ccc\"/>", kLeft, y, kLeft + kWide,
                 y) +
           Print("<text x=\"%d\" y=\"%d\" text-anchor=\"end\">%u</text>\n", kLeft - 6, y + 4, count);
  }
  static std::string Label(int x, int seconds) {
    return Print("<text x=\"%d\" y=\"%d\" text-anchor=\"middle\">%d</text>\n", x, kTop + kHigh + 16, seconds);
  }
  static std::string Legend(int offset, const char* word, const char* colour) {
    const int x = kLeft + kWide - 200 + offset;
    const int y = kTop + kHigh + 28;
    return Print("<rect x=\"%d\" y=\"%d\" width=\"10\" height=\"10\" fill=\"%s\"/>", x, y, colour) +
           Print("<text x=\"%d\" y=\"%d\">%s</text>\n", x + 16, y + 9, word);
  }

  const Histogram& m_Flashed;
  const Histogram& m_Failed;
  const std::string m_Title;
  unsigned m_Top = 1;
};

}  // namespace

void FleetTally::Add(const PcStory& story) {
  ++m_Done;
  m_RealMs += story.realDuration.count();
  m_Kills += story.kills;
  m_PowerCuts += story.powerCuts;
  const bool isFlashed = story.IsFlashed();
  for (const std::string& name : story.plan.drawn) {
    ++m_Faults[name].drawn;
    if (isFlashed && story.requests.size() == 1) ++m_Faults[name].flashedByFirstRequest;
  }
  for (const RequestEnd& request : story.requests) {
    (request.Succeeded() ? m_Flashed : m_Failed).push_back(request.duration.count());
    if (request.wasStanding) ++m_Standing;
    if (!request.Succeeded()) ++m_Failures[request.why];
  }
  if (isFlashed) {
    ++m_Ways[WayOf(story)];
  } else {
    m_Lost.push_back(
        {story.pc, story.requests.empty() ? "no request came to an end" : story.requests.back().why});
  }
  if (!story.trouble.empty()) m_Troubles.push_back({story.pc, story.trouble});
}

unsigned FleetTally::AtFirstAttempt() const {
  const auto found = m_Ways.find(kFirstAttempt);
  return found == m_Ways.end() ? 0 : found->second;
}

double FleetTally::RealSecondsOfOne() const {
  return m_Done == 0 ? 0 : Seconds(m_RealMs) / m_Done;
}

std::string FleetTally::Command(unsigned pc) const {
  return "modem_simulator --seed " + std::to_string(m_Seed) + " --pc " + std::to_string(pc);
}

std::string FleetTally::Table(std::chrono::milliseconds elapsed) const {
  const double seconds = std::max(Seconds(elapsed), 0.001);
  std::string text = Print("%u of %u PCs, seed %llu, %.0f s, %.1f PCs a second\n", m_Done, m_Size,
                           static_cast<unsigned long long>(m_Seed), seconds, m_Done / seconds);
  for (const char* const way : kWays) {
    const auto found = m_Ways.find(way);
    const unsigned count = found == m_Ways.end() ? 0 : found->second;
    text += Print("  flashed %-32s %6u  %5.1f %%\n", way, count, Share(count, m_Done));
  }
  text += Print("  %-40s %6u\n", "lost", Lost());
  text += Print("  %-40s %6zu\n", "in trouble", m_Troubles.size());
  return text + Print("  %-40s %6u and %u\n", "kills and power cuts", m_Kills, m_PowerCuts);
}

std::string FleetTally::Report(std::chrono::milliseconds elapsed, unsigned processes) const {
  std::string text = Table(elapsed);
  const auto flashed = Sorted(m_Flashed);
  text += Print("  requests: %zu, %zu of them failed, %u done by a process that was started anew\n",
                m_Flashed.size() + m_Failed.size(), m_Failed.size(), m_Standing);
  text += Print(
      "  a request that flashed took (virtual) %.0f s in the middle, %.0f s at nine in ten, %.0f s at most\n",
      Seconds(Quantile(flashed, 0.5)), Seconds(Quantile(flashed, 0.9)), Seconds(Quantile(flashed, 1)));
  text += Print("  %.2f s of real time per PC, %u of them at a time\n", RealSecondsOfOne(), processes);
  std::vector<std::pair<unsigned, std::string>> failures;
  for (const auto& [why, count] : m_Failures) failures.emplace_back(count, why);
  std::ranges::sort(failures, std::greater());
  if (!failures.empty()) text += "why requests failed:\n";
  for (const auto& [count, why] : failures) text += Print("  %6u  ", count) + why + "\n";
  for (const Case& each : m_Lost) text += "LOST: " + Command(each.pc) + ": " + each.what + "\n";
  for (const Case& each : m_Troubles) text += "TROUBLE: " + Command(each.pc) + ": " + each.what + "\n";
  return text + Print("%u PCs, %u flashed at the first attempt, %u lost, %zu in trouble, %.0f s\n", m_Done,
                      AtFirstAttempt(), Lost(), m_Troubles.size(), Seconds(elapsed));
}

nlohmann::ordered_json FleetTally::Json(std::chrono::milliseconds elapsed, unsigned processes,
                                        double speed) const {
  using Json = nlohmann::ordered_json;
  const auto cases = [this](const std::vector<Case>& all) {
    Json rows = Json::array();
    for (const Case& each : all) {
      rows.push_back({{"seed", m_Seed}, {"pc", each.pc}, {"what", each.what}, {"again", Command(each.pc)}});
    }
    return rows;
  };
  Json faults = Json::array();
  for (const FaultRate& rate : FaultRates()) {
    const auto found = m_Faults.find(rate.name);
    const FaultCount count = found == m_Faults.end() ? FaultCount{} : found->second;
    faults.push_back({{"name", rate.name},
                      {"per_ten_thousand", rate.perTenThousand},
                      {"drawn", count.drawn},
                      {"flashed_by_first_request", count.flashedByFirstRequest}});
  }
  const Histogram flashedCounts(m_Flashed);
  const Histogram failedCounts(m_Failed);
  Json histogram = Json::array();
  for (std::size_t i = 0; i < Histogram::kStretches; ++i) {
    if (flashedCounts[i] + failedCounts[i] == 0) continue;
    histogram.push_back({{"from_s", i * 10}, {"flashed", flashedCounts[i]}, {"failed", failedCounts[i]}});
  }
  const auto flashed = Sorted(m_Flashed);
  return {{"good", IsGood()},
          {"seed", m_Seed},
          {"pcs", m_Done},
          {"processes", processes},
          {"speed", speed},
          {"real_duration_s", Seconds(elapsed)},
          {"real_duration_of_one_s", RealSecondsOfOne()},
          {"flashed", m_Ways},
          {"lost", cases(m_Lost)},
          {"troubles", cases(m_Troubles)},
          {"kills", m_Kills},
          {"power_cuts", m_PowerCuts},
          {"requests", m_Flashed.size() + m_Failed.size()},
          {"requests_failed", m_Failed.size()},
          {"why_failed", m_Failures},
          {"duration_s",
           {{"median", Seconds(Quantile(flashed, 0.5))},
            {"nine_in_ten", Seconds(Quantile(flashed, 0.9))},
            {"most", Seconds(Quantile(flashed, 1))}}},
          {"durations", histogram},
          {"faults", faults}};
}

bool FleetTally::DrawHistogram(const std::filesystem::path& file) const {
  const Histogram flashed(m_Flashed);
  const Histogram failed(m_Failed);
  const std::string title = Print("%zu requests of %u PCs, seed %llu", m_Flashed.size() + m_Failed.size(),
                                  m_Done, static_cast<unsigned long long>(m_Seed));
  std::ofstream stream(file, std::ios::binary);
  stream << Picture(flashed, failed, title).Text();
  stream.close();
  return stream.good();
}

std::string StoryOf(const PcStory& story) {
  std::string text = Print("PC %u, route %s\n", story.pc, NameOf(story.plan.route));
  for (const std::string& name : story.plan.drawn) text += "  wrong: " + name + "\n";
  text += Print("  %u kills, %u power cuts\n", story.kills, story.powerCuts);
  for (const RequestEnd& each : story.requests) {
    text += Print("  request%s%s: result %d, attempts %d, %.0f s, memory %s, modem %s",
                  each.isRepaired ? " once repaired" : "", each.wasStanding ? " that stood" : "", each.result,
                  each.attempts, Seconds(each.duration), each.isMemoryEqual ? "equal" : "not equal",
                  each.isModemNormal ? "normal" : "not normal");
    text += (each.why.empty() ? "" : ": " + each.why) + "\n";
  }
  if (!story.trouble.empty()) text += "  TROUBLE: " + story.trouble + "\n";
  return text + (story.IsFlashed() ? "  flashed\n" : "  LOST\n");
}

}  // namespace simulator
