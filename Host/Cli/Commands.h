#pragma once
// The commands of quillon. Each returns the exit code or throws CliError; out receives the
// command's results, err progress and log lines.
#include <ostream>

#include "Host/Cli/Options.h"

namespace QCli {

int runList(const Options& options, std::ostream& out, std::ostream& err);
int runRender(const Options& options, std::ostream& out, std::ostream& err);
int runDemo(const Options& options, std::ostream& out, std::ostream& err);
int runBench(const Options& options, std::ostream& out, std::ostream& err);

// The whole program: parses, runs, reports "quillon: error: ..." on failure.
int runMain(int argc, char** argv);

// The text of --help.
const char* helpText();

}  // namespace QCli
