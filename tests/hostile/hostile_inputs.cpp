// Gives the library what nobody should give it: each property holds for every input, or an input is named for
// which it does not.
//
// Inputs are made from a seed, taken from the corpus and bent. One that breaks a property is made smaller
// first. A crash, a trap or a hang ends the program, which names the input.

#include <windows.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/debuglogger.h"
#include "hostile/property.h"

using namespace hostile;

namespace {

constexpr int kHangSeconds = 60;
constexpr unsigned kCrashed = 3;
constexpr std::size_t kMostShrinkingChecks = 3000;

struct Options {
  std::vector<std::string> only;
  std::size_t cases = 1000;
  std::uint64_t seed = 1;
  std::optional<std::size_t> just;
  std::string corpus = HOSTILE_CORPUS;
  std::string keep;
};

// --- What a process says that comes to a sudden end ------------------------------------------------------

/// The case that runs. Whoever reads it is the thread that runs it, or knows that this one hangs.
struct Running {
  const Property* property = nullptr;
  std::uint64_t seed = 0;
  std::size_t number = 0;
  std::string input;
  std::atomic<std::uint64_t> begun{0};
};
Running g_running;

void Report(const Running& running, const std::string& what, const std::string& input) {
  std::printf("FINDING %s: case %zu of seed %llu: %s: %s\n",
              running.property == nullptr ? "nothing" : running.property->name, running.number,
              static_cast<unsigned long long>(running.seed), what.c_str(), Quoted(input).c_str());
  std::fflush(stdout);
}

[[noreturn]] void EndAfter(const std::string& what) {
  Report(g_running, what, g_running.input);
  ::TerminateProcess(::GetCurrentProcess(), kCrashed);
  for (;;) ::Sleep(INFINITE);
}

LONG WINAPI TellCrash(EXCEPTION_POINTERS* pointers) {
  char what[80];
  std::snprintf(what, sizeof what, "exception 0x%08lx at %p", pointers->ExceptionRecord->ExceptionCode,
                pointers->ExceptionRecord->ExceptionAddress);
  EndAfter(what);
}

void TellAbort(int) {
  EndAfter("an assertion does not hold");
}

/// Looks now and then whether the cases go on.
void WatchForHangs() {
  std::thread([] {
    for (std::uint64_t last = 0;;) {
      std::this_thread::sleep_for(std::chrono::seconds(kHangSeconds));
      const std::uint64_t now = g_running.begun;
      if (now != 0 && now == last) EndAfter("it hangs");
      last = now;
    }
  }).detach();
}

// --- Cases ------------------------------------------------------------------------------------------------

using Inputs = std::vector<std::string>;

Inputs CorpusOf(const Property& property, const std::string& folder) {
  Inputs inputs;
  const std::filesystem::path own = std::filesystem::path(folder) / property.name;
  if (!std::filesystem::is_directory(own)) return inputs;
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(own)) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  for (const auto& path : files) {
    std::ifstream file(path, std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return inputs;
}

/// Changes an input at a few places.
std::string Bent(std::string input, const Inputs& others, Random& random) {
  for (std::size_t i = random.Below(4) + 1; i > 0; --i) {
    const std::size_t at = random.Below(input.size() + 1);
    switch (random.Below(6)) {
      case 0:
        input.erase(at, random.Size(64) + 1);
        break;
      case 1:
        input.insert(at, random.Bytes(random.Size(16) + 1));
        break;
      case 2:
        if (at < input.size()) input[at] = static_cast<char>(random.Next());
        break;
      case 3:
        input.insert(at, input.substr(random.Below(input.size() + 1), random.Size(256)));
        break;
      case 4:
        if (at < input.size()) input[at] = random.Pick({'\0', '\xFF', '\r', '\n', '\x1A', '\\', '%', '<'});
        break;
      default:
        if (!others.empty()) input.insert(at, others[random.Below(others.size())]);
    }
  }
  return input;
}

/// Case numbers begin with the corpus as it is.
std::string InputOf(const Property& property, const Inputs& corpus, std::size_t number, std::uint64_t seed) {
  if (number < corpus.size()) return corpus[number];
  Random random(seed * 0x10001u + number);
  std::string input;
  if (!corpus.empty() && random.OneIn(4)) {
    input = Bent(corpus[random.Below(corpus.size())], corpus, random);
  } else {
    input = property.make(random);
    if (random.OneIn(4)) input = Bent(std::move(input), corpus, random);
  }
  return input;
}

/// @return what the property does not hold for; nothing when it holds.
std::optional<std::string> Finding(const Property& property, const std::string& input) {
  g_running.input = input;
  ++g_running.begun;
  try {
    property.check(input);
    return std::nullopt;
  } catch (const std::exception& violation) {
    return violation.what();
  }
}

/// Leaves out of an input what the finding does not need.
std::string Shrunk(const Property& property, std::string input) {
  std::size_t checks = 0;
  for (std::size_t length = input.size(); length > 0; length /= 2) {
    for (std::size_t at = 0; at < input.size() && checks < kMostShrinkingChecks;) {
      std::string smaller = input;
      smaller.erase(at, length);
      ++checks;
      if (Finding(property, smaller)) {
        input = std::move(smaller);
      } else {
        at += length;
      }
    }
  }
  return input;
}

void Keep(const Options& options, const Property& property, const std::string& input) {
  if (options.keep.empty()) return;
  const std::filesystem::path folder = std::filesystem::path(options.keep) / property.name;
  std::filesystem::create_directories(folder);
  std::ofstream(folder / ("found-" + std::to_string(options.seed)), std::ios::binary) << input;
}

struct Summary {
  std::size_t cases = 0;
  std::size_t findings = 0;
};

void RunCase(const Property& property, const Inputs& corpus, const Options& options, Summary& summary) {
  const std::string input = InputOf(property, corpus, g_running.number, options.seed);
  ++summary.cases;
  if (!Finding(property, input)) return;
  ++summary.findings;
  const std::string smallest = Shrunk(property, input);
  Report(g_running, Finding(property, smallest).value_or("only sometimes"), smallest);
  Keep(options, property, smallest);
}

/// One finding of a property is enough: the next ones are likely the same.
void RunProperty(const Property& property, const Options& options, Summary& summary) {
  g_running.property = &property;
  g_running.seed = options.seed;
  const auto surroundings = property.surround == nullptr ? nullptr : property.surround();
  const Inputs corpus = CorpusOf(property, options.corpus);
  const std::size_t findingsBefore = summary.findings;
  const std::size_t casesBefore = summary.cases;
  const auto began = std::chrono::steady_clock::now();
  const std::size_t first = options.just.value_or(0);
  const std::size_t end = options.just ? first + 1 : corpus.size() + CasesOf(property, options.cases) + 1;
  for (std::size_t number = first; number < end && summary.findings == findingsBefore; ++number) {
    g_running.number = number;
    RunCase(property, corpus, options, summary);
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  std::printf("%s: %zu cases, %.1f s\n", property.name, summary.cases - casesBefore, took.count());
  std::fflush(stdout);
}

std::vector<Property> AllProperties() {
  std::vector<Property> all;
  for (const auto& share :
       {PlainProperties(), TextProperties(), LogProperties(), ConfigurationProperties(), DeviceProperties(),
        FlashingProperties(), ArrayProperties(), DocumentProperties()})
    all.insert(all.end(), share.begin(), share.end());
  return all;
}

bool IsWanted(const Property& property, const Options& options) {
  return options.only.empty() || std::ranges::find(options.only, property.name) != options.only.end();
}

int Run(const Options& options) {
  Summary summary;
  std::size_t wanted = 0;
  for (const Property& property : AllProperties()) {
    if (!IsWanted(property, options)) continue;
    ++wanted;
    RunProperty(property, options, summary);
  }
  std::printf("%zu properties, %zu cases, seed %llu, %zu findings\n", wanted, summary.cases,
              static_cast<unsigned long long>(options.seed), summary.findings);
  return summary.findings == 0 && wanted > 0 ? 0 : 1;
}

}  // namespace

int main(int count, char** words) try {
  Options options;
  CLI::App program("Gives the library inputs that nobody should give it.");
  program.add_option("--only", options.only, "The properties with these names");
  program.add_option("--cases", options.cases,
                     "How many cases a quick property has; slow ones have fewer, but one in 64, or 3000");
  program.add_option("--seed", options.seed, "What the inputs are made from");
  program.add_option("--case", options.just, "Just this one case");
  program.add_option("--corpus", options.corpus, "Folder with a folder of inputs for each property");
  program.add_option("--keep", options.keep, "Folder to write the inputs to that broke a property");
  CLI11_PARSE(program, count, words);

  ::SetUnhandledExceptionFilter(&TellCrash);
  std::signal(SIGABRT, &TellAbort);
  WatchForHangs();
  CDebugLogger::SetLevel(0);
  return Run(options);
} catch (const std::exception& error) {
  std::printf("FINDING hostile_inputs: %s\n", error.what());
  return 1;
}
