#include "app/program.h"

namespace {

// A placeholder name: users put their own endpoint here.
constexpr const char* EXAMPLE_TARGET = "                    to ingest.example.net:9000";

}  // namespace

std::optional<std::string> argumentAt(int argc, char** argv, int index) {
  if (argc <= index) return std::nullopt;
  return std::string(argv[index]);
}

void printUsage(std::ostream& out) {
  out << "Usage: drover <subcommand> [help | ...]" << std::endl
      << std::endl
      << "where subcommand can be any of:" << std::endl
      << "help    - show help" << std::endl
      << "version - show version" << std::endl
      << "forward - forward logs to target endpoint" << std::endl
      << std::endl
      << "example:" << std::endl
      << "  drover forward tail /var/log/syslog <write_token_1> \\" << std::endl
      << "                    tail /var/log/daemon.log <write_token_2> \\" << std::endl
      << EXAMPLE_TARGET << std::endl
      << std::endl
      << "  drover forward stream some-test-logs.txt <write_token_1> \\" << std::endl
      << "                    timestamps first-iso \\" << std::endl
      << "                    prepend 'file:some-test-logs.txt ' \\" << std::endl
      << EXAMPLE_TARGET << std::endl;
}
