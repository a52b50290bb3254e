// The program entry, run as the real binary: which stream gets what, statuses, exact texts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "tests/support/test_helpers.h"

namespace {

const std::string USAGE =
    "Usage: drover <subcommand> [help | ...]\n"
    "\n"
    "where subcommand can be any of:\n"
    "help    - show help\n"
    "version - show version\n"
    "forward - forward logs to target endpoint\n"
    "\n"
    "example:\n"
    "  drover forward tail /var/log/syslog <write_token_1> \\\n"
    "                    tail /var/log/daemon.log <write_token_2> \\\n"
    "                    to ingest.example.net:9000\n"
    "\n"
    "  drover forward stream some-test-logs.txt <write_token_1> \\\n"
    "                    timestamps first-iso \\\n"
    "                    prepend 'file:some-test-logs.txt ' \\\n"
    "                    to ingest.example.net:9000\n";

const std::string NOTE = "\nNote: To get help for a subcommand, use ./drover <subcommand> help\n";

ProcessResult drover(std::vector<std::string> words) {
  words.insert(words.begin(), DROVER_BINARY);
  return runProcess(words);
}

std::string version() { return drover({"version"}).out.substr(0, 27); }

TEST(ProgramEntry, NoArgumentPrintsUsageOnStandardErrorOnly) {
  const ProcessResult r = drover({});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, USAGE);
}

TEST(ProgramEntry, HelpPrintsUsageOnStandardOutput) {
  const ProcessResult r = drover({"help"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.out, USAGE);
  EXPECT_EQ(r.err, "");
}

TEST(ProgramEntry, HelpWithAnySecondWordAddsTheNoteNotTheSubcommandsUsage) {
  for (const std::string word : {"forward", "anything", ""}) {
    SCOPED_TRACE(word);
    const ProcessResult r = drover({"help", word});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.out, USAGE + NOTE);
    EXPECT_EQ(r.err, "");
  }
}

TEST(ProgramEntry, VersionIsTheBareBuildIdentifier) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{"version"},
                                               std::vector<std::string>{"version", "extra"}}) {
    const ProcessResult r = drover(words);
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(std::regex_match(r.out, std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2}-[0-9a-f]{7}-[0-9a-f]{8}\n")))
        << r.out;
  }
}

TEST(ProgramEntry, InvalidSubcommandLogsThenPrintsUsage) {
  for (const std::string word : {"HELP", "Help", "versions", "forwar", ""}) {
    SCOPED_TRACE(word);
    const ProcessResult r = drover({word});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.out, "{\"level\":\"ERROR\", \"version\":\"" + version() +
                         "\", \"application\":\"drover_main\", \"message\": \"Invalid subcommand: " +
                         word + "\"}\n");
    EXPECT_EQ(r.err, USAGE);
  }
}

TEST(ProgramEntry, ForwardLinesCarryTheVersionAndTheForwardApplication) {
  const ProcessResult r = drover({"forward"});
  EXPECT_EQ(r.exitCode, 1);
  const std::vector<std::string> lines = splitLines(r.out);
  ASSERT_FALSE(lines.empty());
  for (const std::string& line : lines) {
    EXPECT_THAT(line, ::testing::HasSubstr("\"application\":\"forward\", \"version\":\"" + version() + "\""));
    EXPECT_THAT(line, ::testing::Not(::testing::HasSubstr("drover_main")));
  }
}

TEST(ProgramEntry, LogLinesParseAsJsonObjects) {
  // An independent reader of the line format: Python's json module, when the machine has it.
  if (access("/usr/bin/python3", X_OK) != 0) GTEST_SKIP() << "python3 not installed";
  const ProcessResult bad = drover({"bad\"word\\with\x01" "controls\xff"});
  const ProcessResult check = runProcess(
      {"/usr/bin/python3", "-c",
       "import json,sys\n"
       "for line in sys.stdin.buffer.read().splitlines():\n"
       "    o = json.loads(line.decode('utf-8', 'surrogateescape'))\n"
       "    assert list(o)[-1] == 'message', o\n"
       "    print(o['level'], o['application'], repr(o['message']))\n"},
      std::chrono::seconds(30), "", bad.out);
  EXPECT_EQ(check.exitCode, 0) << check.err;
  EXPECT_EQ(check.out, "ERROR drover_main 'Invalid subcommand: bad\"word\\\\with\\x01controls\\udcff'\n");
}

}  // namespace
