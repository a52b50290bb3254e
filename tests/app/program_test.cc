// The program entry, run as the real binary: which stream gets what, statuses, exact texts.
#include <gtest/gtest.h>

#include <regex>

#include "tests/support/test_helpers.h"

namespace {

const std::string USAGE =
    "Usage: drover <subcommand> [help | ...]\n\nwhere subcommand can be any of:\n"
    "help    - show help\nversion - show version\nforward - forward logs to target endpoint\n\n"
    "example:\n  drover forward tail /var/log/syslog <write_token_1> \\\n"
    "                    tail /var/log/daemon.log <write_token_2> \\\n"
    "                    to ingest.example.net:9000\n\n"
    "  drover forward stream some-test-logs.txt <write_token_1> \\\n"
    "                    timestamps first-iso \\\n"
    "                    prepend 'file:some-test-logs.txt ' \\\n"
    "                    to ingest.example.net:9000\n";

TEST(ProgramEntry, EachFirstWordGivesItsStatusAndStreams) {
  const std::string version = runProcess({DROVER_BINARY, "version"}).out;
  ASSERT_TRUE(
      std::regex_match(version, std::regex("\\d{4}-\\d\\d-\\d\\d-[0-9a-f]{7}-[0-9a-f]{8}\n")))
      << version;
  const std::string note = "\nNote: To get help for a subcommand, use ./drover <subcommand> help\n";
  const auto invalid = [&](const std::string& word) {
    return "{\"level\":\"ERROR\", \"version\":\"" + version.substr(0, 27) +
           "\", \"application\":\"drover_main\", \"message\": \"Invalid subcommand: " + word +
           "\"}\n";
  };
  struct Row {
    std::vector<std::string> words;
    int status;
    std::string out, err;
  };
  // Words are compared whole and case-sensitively; help with any second word adds the note only.
  const std::vector<Row> table = {
      {{}, 1, "", USAGE},
      {{"help"}, 0, USAGE, ""},
      {{"help", "forward"}, 0, USAGE + note, ""},
      {{"help", "anything"}, 0, USAGE + note, ""},
      {{"help", ""}, 0, USAGE + note, ""},
      {{"version", "extra"}, 0, version, ""},
      {{"HELP"}, 1, invalid("HELP"), USAGE},
      {{"Help"}, 1, invalid("Help"), USAGE},
      {{"versions"}, 1, invalid("versions"), USAGE},
      {{"forwar"}, 1, invalid("forwar"), USAGE},
      {{""}, 1, invalid(""), USAGE},
  };
  for (Row row : table) {
    SCOPED_TRACE(row.words.empty() ? "(none)" : row.words[0] + " " + row.words.back());
    row.words.insert(row.words.begin(), DROVER_BINARY);
    const ProcessResult r = runProcess(row.words);
    EXPECT_EQ(r.exitCode, row.status);
    EXPECT_EQ(r.out, row.out);
    EXPECT_EQ(r.err, row.err);
  }
}

}  // namespace
