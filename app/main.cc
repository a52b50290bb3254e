#include <csignal>
#include <cstdlib>
#include <iostream>

#include "app/forward.h"
#include "app/program.h"
#include "app/version.h"
#include "support/log.h"

namespace {

void exitAtOnce(int) { exit(0); }

}  // namespace

int main(int argc, char** argv) {
  const Log log = Log(std::cout).with("application", "drover_main").with("version", versionText());

  const std::optional<std::string> subcommand = argumentAt(argc, argv, 1);
  if (subcommand) {
    // Both dispositions are set before the word is looked at, so help and version run with them.
    if (signal(SIGINT, exitAtOnce) == SIG_ERR) {
      error(log) << "Could not install clean exit handler." << std::endl;
      return 1;
    }
    if (signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
      error(log) << "Could not ignore SIGPIPE." << std::endl;
      return 1;
    }
    if (*subcommand == "help") {
      printUsage(std::cout);
      if (argumentAt(argc, argv, 2)) {
        std::cout << std::endl
                  << "Note: To get help for a subcommand, use ./drover <subcommand> help" << std::endl;
      }
      return 0;
    }
    if (*subcommand == "version") {
      std::cout << versionText() << std::endl;
      return 0;
    }
    if (*subcommand == "forward") {
      return forward(log, argc - 1, argv + 1);
    }
    error(log) << "Invalid subcommand: " << *subcommand << std::endl;
  }
  printUsage(std::cerr);
  return 1;
}
