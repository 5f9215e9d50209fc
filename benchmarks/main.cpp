#define CATCH_CONFIG_RUNNER
#include <cstdio>
#include <exception>

#include "benchmarks/catch.h"
#include "benchmarks/sampler.h"

// The parser of options changed its name.
#if CATCH_VERSION_MAJOR >= 3
using Catch::Clara::Opt;
#else
using Catch::clara::Opt;
#endif

// Each test case compares pieces of the library with their floors: the same work, done bare. What it takes is
// shown and never a failure; a case fails when it cannot be run.
int main(int argc, char** argv) try {
  constexpr int kQuickRounds = 1;
  Catch::Session session;
  benchmarks::Options& options = benchmarks::TheOptions();
  session.cli(session.cli() |
              Opt(options.rounds, "count")["--rounds"]("how often each pair is measured, 41 by default") |
              Opt(options.quick)["--quick"]("only see that each row runs") |
              Opt(options.filter, "text")["--filter"]("only rows with this text in their names") |
              Opt(options.json, "file")["--json"]("also write the rows as JSON") |
              Opt(options.manyImages,
                  "folder")["--many-images"]("the images of the largest folder, made by scripts/bench"));
  if (const int refused = session.applyCommandLine(argc, argv); refused != 0) return refused;
  if (options.quick) options.rounds = kQuickRounds;
  if (options.rounds < 1) {
    std::fprintf(stderr, "--rounds must be at least 1\n");
    return 2;
  }

  const int failures = session.run();
  if (benchmarks::Report()) return failures;
  std::fprintf(stderr, "%s cannot be written\n", options.json.c_str());
  return 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "corvel_benchmarks: %s\n", error.what());
  return 1;
}
