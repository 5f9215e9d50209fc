// Faults in flashes by the program corvel_cmdline.exe, each in a process of its own, and behind it one in
// which nothing fails.
//
// usage: program_campaign [--route mbim|at|bbrst|flash-port] [--seed N] [--step N] [--from N]
//                         [--only "FUNCTION N"] [--list]
//
// Of each function that the library calls, at each place and in each stage, the first, the second and the
// last call. The program's exit status has to tell what became of modem and images; it is the program that
// ships, with a virtual PC inside. --step takes every N-th case, beginning with the one that --seed chooses;
// --from goes on at a case, by its number. One line per finding; exit status 1 when there is any that the
// list of what is not held does not name.
//
// The key of the command line is the machine's: of several campaigns one at a time lets its program run.

#include <windows.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "fault/campaign_service.h"
#include "fault/fault_cases.h"
#include "fault/job_judgement.h"
#include "hosts/cmdline/exit_code.h"
#include "hosts/common/owners.h"
#include "hosts/common/text.h"
#include "simulator/host/kept_key.h"
#include "simulator/host/virtual_pc_file.h"
#include "simulator/program/configuration.h"
#include "simulator/program/work_folder.h"

using namespace simulator;
using namespace campaign;

namespace {

using namespace std::chrono_literals;
using RealClock = std::chrono::steady_clock;

constexpr auto kRunLimit = 150s;
/// So often is a case played that is not reached.
constexpr int kTries = 4;
/// Threads run side by side, so a few may be missed all the same; one in so many, and one.
constexpr unsigned kOneInMissed = 50;
constexpr wchar_t kHost[] = L"corvel_cmdline.exe";
constexpr wchar_t kTurn[] = L"Corvel campaigns of the command line";

struct Options {
  Route route = Route::Mbim;
  std::size_t seed = 0;
  std::size_t step = 1;
  std::size_t from = 0;
  std::string only;
  bool list = false;
};
Options g_options;

/// The time in which no other campaign lets its program run.
class Turn {
 public:
  Turn() : m_Mutex(::CreateMutexW(nullptr, FALSE, kTurn)) { ::WaitForSingleObject(m_Mutex.get(), INFINITE); }
  ~Turn() { ::ReleaseMutex(m_Mutex.get()); }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  hosts::OwnedHandle m_Mutex;
};

/// A folder with the program, beside what the library needs, and what it leaves.
class Installation {
 public:
  Installation() {
    const std::filesystem::path programs = hosts::ProgramFolder();
    for (const auto& file : {programs / L"simulated" / kHost, programs / L"virtual_pc_host.dll"}) {
      std::filesystem::copy_file(file, Path() / file.filename());
    }
    Setup setup;
    setup.route = g_options.route;
    m_Configuration.emplace(Path(), setup, L"HKLM\\SOFTWARE\\Corvel\\NotUsed", Firmware());
  }

  /// One flash. @param lines what the PC is like, beside its route.
  ProgramEnd Flash(const std::string& lines) {
    LayImage();
    std::error_code ignored;
    std::filesystem::remove(Path() / kVirtualPcEndFile, ignored);
    std::ofstream(Path() / kVirtualPcFile)
        << "scenario=route-" << NameOf(g_options.route) << "\nspeed=" << kSpeed << "\n"
        << lines;
    const KeptKey key(KeyOfCommandLine());
    const ChildResult child =
        RunChild(Path() / kHost, {L"flash", L"--json"}, kRunLimit, Path() / L"said.txt");
    return Look(child, key.Read());
  }

  /// The calls that the last flash has told of.
  std::vector<MadeCall> Calls() const { return ReadToldCalls(Path()); }

 private:
  const std::filesystem::path& Path() const { return m_Folder.Path(); }
  std::filesystem::path Firmware() const { return Path() / L"firmware"; }
  std::filesystem::path ImageFile() const { return Firmware() / L"nvm.fls"; }

  void LayImage() {
    m_Image = BuildImage(SmallImagePlan(++m_Images));
    std::filesystem::create_directories(Firmware());
    if (!SaveImageFile(m_Image, ImageFile())) throw std::runtime_error("the image cannot be laid");
  }

  ProgramEnd Look(const ChildResult& child, const hosts::Handshake& values) const {
    ProgramEnd end;
    if (child.ended) end.exitCode = child.exitCode;
    end.values = values;
    if (const auto pc = ReadVirtualPcEnd(Path())) {
      end.modem = pc->modem;
      end.hits = pc->hits;
      end.wasModemTouched = pc->resets + pc->mbimReboots + pc->atCommands > 0 || pc->bytesWritten > 0;
    }
    const VirtualClock clock(1.0);
    VirtualModem modem(clock, Path() / L"modem_flash.bin", {}, {}, ModemState::Normal,
                       [](JournalEvent, const std::string&) {});
    end.isMemoryEqual = modem.CompareWith(nullptr, &m_Image).equal;
    end.isImageLeft = std::filesystem::exists(ImageFile());
    return end;
  }

  const WorkFolder m_Folder;
  std::optional<ConfigurationFile> m_Configuration;
  FlashImage m_Image;
  std::uint32_t m_Images = 0;
};

class Campaign {
 public:
  int Run() {
    const auto begin = RealClock::now();
    if (!RecordCases()) return 1;
    if (g_options.list) return List();
    for (std::size_t i = 0; i < m_Cases.size(); ++i) {
      if (IsChosen(i)) RunCase(m_Cases[i]);
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(RealClock::now() - begin).count();
    std::printf(
        "%s, program: %u of %zu cases, %u of them reached, %u flashed, %u findings, %u not held as known, "
        "seed "
        "%zu, %lld s\n",
        NameOf(g_options.route), m_Run, m_Cases.size(), m_Reached, m_Flashed, m_Findings, m_Excused,
        g_options.seed, static_cast<long long>(seconds));
    const bool wereReached = (m_Run - m_Reached) * kOneInMissed <= m_Run + kOneInMissed;
    return m_Run > 0 && m_Reached > 0 && wereReached && m_Findings == 0 ? 0 : 1;
  }

 private:
  bool RecordCases() {
    const Turn turn;
    const ProgramEnd end = m_Installation.Flash(std::string(kTellCalls) + "=1\n");
    const std::string finding = WhatIsWrongWithSound(end);
    if (!finding.empty()) std::printf("a flash without faults: %s\n", finding.c_str());
    m_Cases = RepresentativeCases(m_Installation.Calls());
    return finding.empty();
  }

  int List() const {
    for (std::size_t i = 0; i < m_Cases.size(); ++i) std::printf("%zu %s\n", i, m_Cases[i].Name().c_str());
    return 0;
  }

  bool IsChosen(std::size_t number) const {
    if (number < g_options.from) return false;
    if (!g_options.only.empty()) return m_Cases[number].Name() == g_options.only;
    return number % g_options.step == g_options.seed % g_options.step;
  }

  void RunCase(const FaultCase& fault) {
    const Turn turn;
    ++m_Run;
    ProgramEnd end;
    // Threads run side by side: the call may have been another thread's this time. A flash that nothing hit
    // has to be right all the same.
    for (int tries = 0; tries < kTries && end.hits == 0; ++tries) {
      end = m_Installation.Flash(LineOf(fault));
      if (end.hits == 0 && !WhatIsWrongWithSound(end).empty()) break;
    }
    if (end.hits > 0) ++m_Reached;
    if (end.hits == 0) TellNotReached(fault);
    if (end.exitCode == static_cast<unsigned long>(hosts::ExitCode::Success)) ++m_Flashed;
    if (const std::string finding = WhatIsWrongWith(end); !finding.empty()) Report(fault, finding);
    // A program that was broken off may leave it so.
    const ModemState left = end.modem.value_or(ModemState::FlashPort);
    const std::string state = std::string("state=") + NameOf(left) + "\n";
    if (const std::string next = WhatIsWrongWithSound(m_Installation.Flash(state)); !next.empty())
      Report(fault, "the next program: " + next);
  }

  static std::string LineOf(const FaultCase& fault) {
    const SingleFault& single = fault.faults.front();
    const bool isAfter = single.way == CallFault::Way::RefusedAfterEffect;
    return std::string(isAfter ? kCallFailsAfterEffect : kCallFails) + "=" + single.function + " " +
           std::to_string(single.call) + "\n";
  }

  static void TellNotReached(const FaultCase& fault) {
    std::printf("not reached %s: %s (tried %d times)\n", NameOf(g_options.route), fault.Name().c_str(),
                kTries);
  }

  void Report(const FaultCase& fault, const std::string& finding) {
    const bool isKnown = ExcuseOf(fault, g_options.route, finding) != nullptr;
    ++(isKnown ? m_Excused : m_Findings);
    std::printf("%s %s, program: %s: %s%s\n", isKnown ? "not held" : "FINDING", NameOf(g_options.route),
                fault.Name().c_str(), finding.c_str(), isKnown ? " (known)" : "");
    std::fflush(stdout);
  }

  Installation m_Installation;
  std::vector<FaultCase> m_Cases;
  unsigned m_Run = 0;
  unsigned m_Reached = 0;
  unsigned m_Flashed = 0;
  unsigned m_Findings = 0;
  unsigned m_Excused = 0;
};

/// What becomes of a word of the command line that takes a value. @return false when it means nothing.
bool TakeValue(std::string_view word, std::string_view value) {
  if (word == "--from") return TakeNumber(value, g_options.from);
  if (word == "--seed") return TakeNumber(value, g_options.seed);
  if (word == "--step") return TakeNumber(value, g_options.step) && g_options.step > 0;
  if (word == "--only") return TakeText(value, g_options.only);
  const auto route = word == "--route" ? RouteOfName(value) : std::nullopt;
  if (route) g_options.route = *route;
  return route.has_value();
}

constexpr campaign::Switch kSwitches[] = {{"--list", &g_options.list}};

}  // namespace

int main(int count, char** words) try {
  const auto own = std::span(words, static_cast<std::size_t>(count)).subspan(1);
  if (!campaign::TakeWords("program_campaign", own, kSwitches, &TakeValue)) return 2;
  return Campaign().Run();
} catch (const std::exception& error) {
  std::fprintf(stderr, "program_campaign: %s\n", error.what());
  return 1;
}
