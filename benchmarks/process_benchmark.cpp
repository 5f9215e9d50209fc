// What only a process of its own can show: whole jobs, reaction, loading, idling, the programs. The library
// is the one that ships; what stands for the PC is the simulator's.

#include <windows.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "benchmarks/catch.h"
#include "benchmarks/sampler.h"
#include "benchmarks/scratch_folder.h"
#include "hosts/common/facts.h"
#include "hosts/common/text.h"
#include "simulator/program/configuration.h"
#include "simulator/program/firmware_folder.h"
#include "simulator/program/work_folder.h"

namespace benchmarks {

namespace {

using namespace std::chrono_literals;

constexpr wchar_t kService[] = L"corvel_benchmark_service.exe";
constexpr wchar_t kBareLibrary[] = L"bare_toolkit.dll";
constexpr wchar_t kCommandLine[] = L"corvel_cmdline.exe";
constexpr wchar_t kBareCommandLine[] = L"bare_cmdline.exe";

constexpr double kMillisecond = 1e6;
constexpr double kMegabyte = 1 << 20;

/// What takes as long as a process is measured less often.
constexpr int kFewRounds = 15;
constexpr int kRoundsOfSlowRoute = 7;
constexpr int kRoundsOfIdling = 3;
/// In what steps Wine tells how long a process has computed; less than one cannot be told from nothing.
constexpr double kTickOfProcessorTime = 10 * kMillisecond;

int AtMost(int rounds) {
  return std::min(TheOptions().rounds, rounds);
}

std::wstring Number(int number) {
  return std::to_wstring(number);
}

using Words = std::vector<std::wstring>;

/// A folder with a program, and what it looks for beside it.
class ProgramFolder {
 public:
  ProgramFolder() {
    for (const wchar_t* file : {kService, kBareLibrary, kCommandLine, kBareCommandLine, hosts::kLibraryName,
                                hosts::kFlashingLibraryName}) {
      Bring(file, file);
    }
  }

  /// As it ships, if the build makes a copy that is without its debug information.
  void Bring(const std::wstring& file, const std::wstring& name) const {
    const std::filesystem::path built = hosts::ProgramFolder();
    const std::filesystem::path shipped = built / L"as_shipped" / file;
    std::filesystem::copy_file(std::filesystem::exists(shipped) ? shipped : built / file, m_Folder / name);
  }
  std::filesystem::path operator/(const std::wstring& name) const { return m_Folder / name; }

  /// Runs a program to its end. @return what it printed. Throws when it fails.
  std::string Run(const std::wstring& program, const Words& words) const {
    constexpr auto kPatience = 10min;
    const std::filesystem::path output = m_Folder / (program + L".out");
    const simulator::ChildResult child = simulator::RunChild(m_Folder / program, words, kPatience, output);
    std::ostringstream printed;
    printed << std::ifstream(output).rdbuf();
    if (!child.ended || child.exitCode != 0) throw std::runtime_error(printed.str());
    return printed.str();
  }

 private:
  ScratchFolder m_Folder;
};

std::vector<double> NumbersIn(const std::string& text) {
  std::istringstream stream(text);
  std::vector<double> numbers;
  for (double number = 0; stream >> number;) numbers.push_back(number);
  return numbers;
}

/// Has the service tell pairs, of itself and of the floor beside it, and keeps them.
void KeepPairs(const ProgramFolder& folder, const Comparison& comparison, const Words& words) {
  const std::vector<double> numbers = NumbersIn(folder.Run(kService, words));
  std::vector<double> subject;
  std::vector<double> floor;
  for (std::size_t i = 0; i + 1 < numbers.size(); i += 2) {
    subject.push_back(numbers[i]);
    floor.push_back(numbers[i + 1]);
  }
  REQUIRE(!subject.empty());
  Keep(comparison, subject, floor);
}

/// Takes both sides in turns.
void KeepInTurns(const Comparison& comparison, const std::function<double()>& subject,
                 const std::function<double()>& floor) {
  std::vector<double> subjects;
  std::vector<double> floors;
  for (int round = 0; round < AtMost(kFewRounds); ++round) {
    const bool floorFirst = round % 2 == 0;
    if (floorFirst) floors.push_back(floor());
    subjects.push_back(subject());
    if (!floorFirst) floors.push_back(floor());
  }
  Keep(comparison, subjects, floors);
}

double LoadOnce(const ProgramFolder& folder, const wchar_t* library) {
  return NumbersIn(folder.Run(kService, {L"load", library})).at(0);
}

double NanosecondsOfRun(const ProgramFolder& folder, const wchar_t* program, const wchar_t* verb) {
  const auto begin = std::chrono::steady_clock::now();
  folder.Run(program, {verb});
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin).count();
}

/// A host that idles, with a library or without one: what it takes. In each round it has a name that no other
/// process has, the one of the round before included, which may take a moment to go.
class IdleHost {
 public:
  IdleHost(const ProgramFolder& folder, std::wstring name, Words library, int rounds)
      : m_Folder(folder),
        m_Name(std::move(name) + Number(static_cast<int>(::GetCurrentProcessId()))),
        m_Library(std::move(library)) {
    for (int round = 0; round < rounds; ++round) folder.Bring(kService, Program(round));
  }

  void Idle(int round, int seconds) try {
    Words words{L"idle", Number(seconds)};
    words.insert(words.end(), m_Library.begin(), m_Library.end());
    const std::vector<double> numbers = NumbersIn(m_Folder.Run(Program(round), words));
    if (numbers.size() != kNumbers) throw std::runtime_error("the idling host tells nothing");
    for (std::size_t i = 0; i < kNumbers; ++i) m_Numbers[i].push_back(numbers[i]);
  } catch (...) {
    m_Failure = std::current_exception();
  }
  /// Of each round: processor time (0), wake-ups (1) or private memory (2). Throws what went wrong.
  const std::vector<double>& Numbers(std::size_t which) const {
    if (m_Failure) std::rethrow_exception(m_Failure);
    return m_Numbers.at(which);
  }

 private:
  std::wstring Program(int round) const { return m_Name + L"_" + Number(round) + L".exe"; }

  const ProgramFolder& m_Folder;
  std::wstring m_Name;
  Words m_Library;
  static constexpr std::size_t kNumbers = 3;
  std::array<std::vector<double>, kNumbers> m_Numbers;
  std::exception_ptr m_Failure;
};

}  // namespace

TEST_CASE("Whole jobs") {
  for (const simulator::Route route : simulator::kRoutes) {
    const std::string name = simulator::NameOf(route);
    const Comparison comparison{.name = "job: route " + name,
                                .floorName = "the waits of the procedure",
                                .mayAdd = 150 * kMillisecond};
    if (!IsWanted(comparison.name)) continue;
    const int rounds = route == simulator::Route::Bbrst ? kRoundsOfSlowRoute : kFewRounds;
    KeepPairs(ProgramFolder(), comparison, {L"job", hosts::ToWide(name), Number(AtMost(rounds))});
  }
}

TEST_CASE("Reaction to a request") {
  const Comparison comparison{.name = "reaction: flag raised to first attempt",
                              .floorName = "notification, registry, folder, library bare",
                              .target = 1.5};
  if (!IsWanted(comparison.name)) return;
  KeepPairs(ProgramFolder(), comparison, {L"reaction", Number(TheOptions().rounds)});
}

TEST_CASE("Loading the library") {
  const Comparison comparison{.name = "load: LoadLibrary to supervisor waits",
                              .floorName = "an empty library, same system calls",
                              .target = 1.3};
  if (!IsWanted(comparison.name)) return;
  const ProgramFolder folder;
  KeepInTurns(
      comparison, [&] { return LoadOnce(folder, hosts::kLibraryName); },
      [&] { return LoadOnce(folder, kBareLibrary); });
}

TEST_CASE("Idling") {
  constexpr const char* kRows[] = {"idle: processor time in ", "idle: wake-ups in ", "idle: private memory",
                                   "idle: private memory of ours"};
  if (std::ranges::none_of(kRows, &IsWanted)) return;
  const int seconds = TheOptions().quick ? 5 : 60;
  const int rounds = TheOptions().quick ? 1 : kRoundsOfIdling;
  const std::string span = std::to_string(seconds) + " s";
  const std::string empty = "a host without the library";
  const ProgramFolder folder;
  // All copies are made before the first program is started: it would inherit a file that is being written.
  IdleHost subject(folder, L"idl", {hosts::kLibraryName}, rounds);
  IdleHost bare(folder, L"idb", {kBareLibrary}, rounds);
  IdleHost alone(folder, L"idh", {}, rounds);
  for (int round = 0; round < rounds; ++round) {
    std::vector<std::jthread> threads;
    for (IdleHost* const host : {&subject, &bare, &alone})
      threads.emplace_back([host, round, seconds] { host->Idle(round, seconds); });
  }
  const auto keep = [&](const Comparison& row, std::size_t number, const IdleHost& floor) {
    Keep(row, subject.Numbers(number), floor.Numbers(number));
  };
  keep({.name = kRows[0] + span, .floorName = empty, .mayAdd = kTickOfProcessorTime}, 0, alone);
  keep({.name = kRows[1] + span, .floorName = empty, .mayAdd = 0, .unit = Unit::Count}, 1, alone);
  keep({.name = kRows[2], .floorName = empty, .mayAdd = kMegabyte, .unit = Unit::Bytes}, 2, alone);
  keep({.name = kRows[3],
        .floorName = "a host with an empty library",
        .mayAdd = kMegabyte,
        .unit = Unit::Bytes},
       2, bare);
}

TEST_CASE("The command line") {
  for (const wchar_t* verb : {L"check", L"status"}) {
    const Comparison comparison{.name = "host: corvel_cmdline " + hosts::ToUtf8(verb),
                                .floorName = "a bare program, same system calls",
                                .target = 1.5};
    if (!IsWanted(comparison.name)) continue;
    const ProgramFolder folder;
    const simulator::FirmwareFolder images(folder / L"firmware", simulator::ImageSet::ModemAndNvm,
                                           simulator::ImageHolder::Nobody);
    const simulator::ConfigurationFile configuration(folder / L"", simulator::Setup{},
                                                     L"HKCU\\Software\\Corvel\\Benchmark", images.Folder());
    KeepInTurns(
        comparison, [&] { return NanosecondsOfRun(folder, kCommandLine, verb); },
        [&] { return NanosecondsOfRun(folder, kBareCommandLine, verb); });
  }
}

}  // namespace benchmarks
