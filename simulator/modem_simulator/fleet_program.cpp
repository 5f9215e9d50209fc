#include "simulator/modem_simulator/fleet_program.h"

#include <windows.h>

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "hosts/common/interruption.h"
#include "hosts/common/text.h"
#include "simulator/program/fleet/fleet.h"
#include "simulator/program/fleet/fleet_report.h"
#include "simulator/program/report.h"

namespace simulator {

namespace {

using namespace std::chrono_literals;
using RealClock = std::chrono::steady_clock;

// Not faster: waking a thread takes its time, and what that is in virtual time must not be seen in a
// duration.
constexpr double kSpeed = 100;
/// Most of the time a PC waits, also for the system to start its process.
constexpr unsigned kProcessesPerProcessor = 2;
constexpr auto kPlainPeriod = 5s;
constexpr auto kLivePeriod = 500ms;

std::chrono::milliseconds Since(RealClock::time_point begin) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(RealClock::now() - begin);
}

/// Shows a fleet as it comes along: a table in place on a terminal, now and then a line elsewhere.
class FleetDisplay {
 public:
  FleetDisplay(const Command& command, const FleetTally& tally)
      : m_Style(command.json       ? Style::None
                : command.terminal ? Style::Table
                                   : Style::Lines),
        m_Tally(tally) {}

  void Show(std::chrono::milliseconds elapsed) {
    const auto period = m_Style == Style::Table ? std::chrono::milliseconds(kLivePeriod) : kPlainPeriod;
    if (m_Style == Style::None || RealClock::now() - m_Last < period) return;
    m_Last = RealClock::now();
    if (m_Style == Style::Table) {
      GoBack();
      const std::string table = m_Tally.Table(elapsed);
      m_Lines = std::ranges::count(table, '\n');
      std::cout << table << std::flush;
    } else {
      std::cout << m_Tally.Done() << " of " << m_Tally.Size() << " PCs, " << m_Tally.AtFirstAttempt()
                << " flashed at the first attempt, " << m_Tally.Lost() << " lost" << std::endl;
    }
  }
  /// To the place where the table began.
  void GoBack() {
    if (m_Lines > 0) std::cout << "\x1b[" << m_Lines << "A\x1b[J" << std::flush;
    m_Lines = 0;
  }

 private:
  enum class Style { None, Lines, Table };

  const Style m_Style;
  const FleetTally& m_Tally;
  RealClock::time_point m_Last;
  std::ptrdiff_t m_Lines = 0;
};

int Conclude(const Command& command, const FleetTally& tally, std::chrono::milliseconds elapsed,
             const FleetOrder& order) {
  if (!command.histogram.empty() && !tally.DrawHistogram(command.histogram))
    throw std::runtime_error("the histogram cannot be written");
  if (command.json) {
    PrintJson(tally.Json(elapsed, order.processes, order.speed));
  } else {
    std::cout << tally.Report(elapsed, order.processes) << std::flush;
  }
  return static_cast<int>(tally.IsGood() ? ExitStatus::Good : ExitStatus::NotGood);
}

/// Nobody has to run for hours in vain: what became of the PCs so far is told.
int ConcludeInterrupted(const Command& command, const FleetTally& tally, std::chrono::milliseconds elapsed,
                        const FleetOrder& order) {
  if (command.json) {
    PrintJson(JsonOfError("interrupted"));
  } else {
    std::cout << tally.Report(elapsed, order.processes) << std::flush;
    std::cerr << "modem_simulator: interrupted" << std::endl;
  }
  return static_cast<int>(ExitStatus::Interrupted);
}

}  // namespace

int RunFleet(const Command& command) {
  FleetOrder order;
  order.seed = command.seed;
  order.first = command.pc.value_or(0);
  order.count = command.pc ? 1 : command.fleet;
  order.processes = command.processes != 0
                        ? command.processes
                        : std::max(1u, std::thread::hardware_concurrency()) * kProcessesPerProcessor;
  order.speed = command.speed.value_or(kSpeed);
  order.keep = command.keep;

  const hosts::Interruption interruption;
  const auto begin = RealClock::now();
  FleetTally tally(order.seed, order.count);
  FleetDisplay display(command, tally);
  std::string story;
  const bool isWhole = Fleet(order, interruption.Event()).Run([&](const PcStory& told) {
    tally.Add(told);
    if (command.pc) story = StoryOf(told);
    display.Show(Since(begin));
  });
  display.GoBack();
  if (!isWhole) return ConcludeInterrupted(command, tally, Since(begin), order);
  if (!command.json) std::cout << story;
  return Conclude(command, tally, Since(begin), order);
}

void RunLifeOf(const Command& command) {
  LifeOrder order;
  order.seed = command.seed;
  order.pc = command.pc.value_or(0);
  order.interruptions = command.interruptions;
  order.repaired = command.repaired;
  order.requests = command.requests;
  order.speed = command.speed.value_or(kSpeed);
  order.key = hosts::ToWide(command.inPlace);
  RunLife(order);
}

}  // namespace simulator
