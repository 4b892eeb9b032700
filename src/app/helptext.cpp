#include "app/helptext.h"

#include "control/tvxroutines.h"

#include <string_view>

namespace tarvex {

namespace {

// A screen of 24 lines with 80 columns; all options stand in the manual pages and the guide.
constexpr std::string_view help_text =
    R"(Usage: tarvex [options] name   analyses what the parameter file "name.par" says

REML estimates of covariance components and BLUP in linear mixed models.

  -c               go on from the best point of an earlier run
  --blup           solutions at the covariances of the parameter file, with s.e.
  --best           report of the best point that an earlier run has stored
  --setup          stop before the search, with a forecast of memory and time
  --simulN         N simulated data files
  -v  -t  --times  progress; least output; times and a forecast
  --json           Results.json beside the reports, for other programs
  --threads N      work with N threads; no result changes
  --aireml --pxai --emai --pxem --emalg --powell   algorithms; by default chosen
  --good --bad     starting values are good, are bad
  --metis --amd --mmd   ordering of the equations; by default chosen
  --limit          limits of the program
  --version        version of the program
  --help           this text

Options may also stand in a file "RunOptions", one a line. Reports are written
to the working directory; "SumEstimates.out" has the estimates. All options,
the parameter file and the files: docs/guide.md, or man tarvex, tarvex-par and
tarvex-files. From a table with any identifiers: tvx --help.
)";

} // namespace

std::optional<std::string> told_without_run(int argc, const char* const* argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help" || arg == "--HELP") return std::string(help_text);
        if (arg == "--version" || arg == "--VERSION") return "Tarvex " + version_number() + "\n";
    }
    return {};
}

} // namespace tarvex
