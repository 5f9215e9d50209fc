#define CATCH_CONFIG_RUNNER
#include "catch.h"
#include "ratio.h"

// The parser of options changed its name.
#if CATCH_VERSION_MAJOR >= 3
using Catch::Clara::Opt;
#else
using Catch::clara::Opt;
#endif

// Each test case compares one piece of the library with its floor: the same system calls made bare.
int main(int argc, char** argv) {
  Catch::Session session;
  bool noBounds = false;
  Options& options = TheOptions();
  session.cli(session.cli() | Opt(options.rounds, "count")["--rounds"]("how often each pair is measured") |
              Opt(options.json, "file")["--json"]("also write the rows as JSON") |
              Opt(noBounds)["--no-bounds"]("a ratio above its bound is no failure"));
  if (const int refused = session.applyCommandLine(argc, argv); refused != 0) return refused;
  options.checkBounds = !noBounds;

  const int failures = session.run();
  return Report() ? failures : 1;
}
