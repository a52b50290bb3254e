// The forward grammar, run as the real binary: status, which stream got what, exact lines.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/support/test_helpers.h"

namespace {

using ::testing::HasSubstr;

const std::string FORWARD_USAGE =
    "Usage: drover forward [<source spec> ...] [to <connection>]\n"
    "\n"
    "where <source spec> can be:\n"
    "  tail <filename> <write_token>   - tail this filename for new lines (normal logs)\n"
    "  stream <filename> <write_token> - stream lines from this file (old logs, pipes, fifos)\n"
    "\n"
    "... and can be further configured via:\n"
    "  timestamps <time-source> - configure when events from this source appear to happen\n"
    "  prepend <string>         - prepend a fixed string to every event from this source\n"
    "\n"
    "and <time-source> can be:\n"
    "  system    - the default: a log line is recorded when it is read from the log source\n"
    "  first-iso - the first YYYY-MM-DD HH:MM:SS per line is used as the event time\n"
    "              a literal T between date and time and fractional seconds are supported\n"
    "\n"
    "and <connection> can be:\n"
    "  <hostname>:<port>\n";

class ForwardCommandLine : public ::testing::Test {
 protected:
  void SetUp() override {
    existing = dir.file("a.log");
    writeFile(existing, "old line\n");
    versionText = runProcess({DROVER_BINARY, "version"}).out.substr(0, 27);
  }

  ProcessResult forward(std::vector<std::string> words) {
    words.insert(words.begin(), {DROVER_BINARY, "forward"});
    return runProcess(words, std::chrono::seconds(20));
  }

  std::string line(const std::string& message) const {
    return "{\"level\":\"ERROR\", \"application\":\"forward\", \"version\":\"" + versionText +
           "\", \"message\": \"" + message + "\"}\n";
  }

  TempDir dir;
  std::string existing;
  std::string versionText;
};

struct Refusal {
  std::vector<std::string> words;
  std::vector<std::string> messages;  // the ERROR lines, in order
  bool usage;                         // the forward usage on standard error
};

TEST_F(ForwardCommandLine, EachRefusalIsItsLinesAndStatusOne) {
  const std::string token255(255, 't');
  const std::string token256(256, 't');
  const std::vector<Refusal> table = {
      {{}, {"At least one log target must be specified via 'to' argument."}, false},
      {{"to", "h:1"}, {"At least one log source must be specified."}, false},
      {{"tail"}, {"Expected filename after 'tail' argument."}, false},
      {{"stream"}, {"Expected filename after 'stream' argument."}, false},
      {{"tail", "a"}, {"Expected write token after filename."}, false},
      {{"tail", existing, token256, "to", "h:1"}, {"Write token is impossibly long."}, false},
      {{"tail", existing, token255}, {"At least one log target must be specified via 'to' argument."}, false},
      {{"timestamps"}, {"Expected timestamp source specification after 'timestamps' argument."}, false},
      // The value is judged before the missing source, the reverse of prepend.
      {{"timestamps", "nonsense", "tail", existing, "t", "to", "h:1"},
       {"Invalid timestamps argument: Unknown timestamp source"}, false},
      {{"timestamps", "first-iso", "tail", existing, "t", "to", "h:1"},
       {"'timestamps' argument needs a 'source' before it to apply to."}, false},
      {{"stream", existing, "t", "timestamps", "System"},
       {"Invalid timestamps argument: Unknown timestamp source"}, false},
      {{"prepend"}, {"Expected string to prepend after 'prepend' argument."}, false},
      {{"prepend", "x"}, {"'prepend' argument needs a 'source' before it to apply to."}, false},
      {{"tail", existing, "t", "prepend", std::string(65015, 'p'), "to", "h:1"},
       {"Prepend text is impossibly long."}, false},
      {{"tail", existing, "t", "prepend", std::string(65014, 'p')},
       {"At least one log target must be specified via 'to' argument."}, false},
      {{"to"}, {"Expected connection string after 'to' argument."}, false},
      {{"to", "h:0"}, {"Port number was outside bounds: 0", "Invalid connection string: h:0"}, false},
      {{"to", "h:65536"},
       {"Port number was outside bounds: 65536", "Invalid connection string: h:65536"}, false},
      {{"to", "h:-1"}, {"Port number was outside bounds: -1", "Invalid connection string: h:-1"}, false},
      {{"to", "h:80x"}, {"Port number was not numeric: 80x", "Invalid connection string: h:80x"}, false},
      {{"to", "hostonly"},
       {"Connection string has no : character: hostonly", "Invalid connection string: hostonly"}, false},
      {{"to", ""}, {"Connection string has no : character: ", "Invalid connection string: "}, false},
      {{"timesource"}, {"Unknown argument: timesource, did you mean 'timestamps'?"}, false},
      {{"time-source", "system"}, {"Unknown argument: time-source, did you mean 'timestamps'?"}, false},
      {{"nonsense"}, {"Unknown argument: nonsense"}, true},
      {{"listen", "9000"}, {"Unknown argument: listen"}, true},
      {{"TAIL", existing, "t"}, {"Unknown argument: TAIL"}, true},
      {{"help"}, {}, true},
      {{"tail", existing, "t", "help", "to", "h:1"}, {}, true},
      {{"stream", dir.file("missing.log"), "t", "to", "h:1"},
       {"Could not open " + dir.file("missing.log") + ": No such file or directory",
        "Refusing startup: At least one log source is unavailable, i.e. likely misconfigured."},
       false},
      {{"tail", existing, "t", "tail", dir.file("missing.log"), "t", "to", "h:1"},
       {"Could not open " + dir.file("missing.log") + ": No such file or directory",
        "Refusing startup: At least one log source is unavailable, i.e. likely misconfigured."},
       false},
  };
  for (const Refusal& c : table) {
    std::string trace;
    for (const std::string& w : c.words) trace += "[" + w.substr(0, 40) + "] ";
    SCOPED_TRACE(trace);
    const ProcessResult r = forward(c.words);
    EXPECT_EQ(r.exitCode, 1);
    std::string expected;
    for (const std::string& message : c.messages) expected += line(message);
    EXPECT_EQ(r.out, expected);
    EXPECT_EQ(r.err, c.usage ? FORWARD_USAGE : "");
  }
}

TEST_F(ForwardCommandLine, KeywordsAtAValuesPlaceAreValues) {
  // The file of `tail to t` is named "to"; the token of `stream f to` is "to".
  const ProcessResult r = forward({"tail", "to", "t", "to", "h:1"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.out, line("Could not open to: No such file or directory") +
                       line("Refusing startup: At least one log source is unavailable, i.e. likely "
                            "misconfigured."));
}

TEST_F(ForwardCommandLine, PortWithoutLeadingNumberEndsThroughTerminate) {
  for (const std::string target : {"h:abc", "h:", "h:99999999999"}) {
    SCOPED_TRACE(target);
    const ProcessResult r = forward({"to", target});
    EXPECT_EQ(r.exitCode, -1);
    EXPECT_EQ(r.signal, SIGABRT);
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(r.err, HasSubstr("terminate called after throwing an instance of 'std::"));
  }
}

TEST_F(ForwardCommandLine, TailOfADirectoryStopsAtItsFailedSeek) {
  // A directory opens, but its end (2^63-1 on ext4, an error elsewhere) reads as -1 once narrowed
  // to 32 bits: the start-up seek of a tail fails, which is fatal.
  const ProcessResult r = forward({"tail", dir.path(), "t", "to", "h:1"});
  EXPECT_EQ(r.signal, SIGABRT);
  EXPECT_THAT(r.out, ::testing::StartsWith("{\"level\":\"ERROR\", \"application\":\"forward\", \"version\":\"" +
                                           versionText + "\", \"message\": \"Could not seek to end of file: "));
  EXPECT_THAT(r.err, HasSubstr("TailLogEventSource::TailLogEventSource"));
}

TEST_F(ForwardCommandLine, UnresolvableTargetRefusesTheStart) {
  // A blank makes the name invalid: the lookup fails locally, without asking a name server.
  const ProcessResult r = forward({"stream", existing, "t", "to", "no such host:9000"});
  EXPECT_EQ(r.exitCode, 1);
  const std::vector<std::string> lines = splitLines(r.out);
  ASSERT_EQ(lines.size(), 2u) << r.out;
  EXPECT_THAT(lines[0], HasSubstr("\"message\": \"Could not resolve: no such host:9000: Name or service not known\"}"));
  EXPECT_THAT(lines[1], HasSubstr("\"message\": \"Could not resolve no such host:9000: Name or service not known\"}"));
}

}  // namespace
