// The forward grammar, run as the real binary: status, which stream got what, exact lines.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/support/test_helpers.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

const std::string FORWARD_USAGE =
    "Usage: drover forward [<source spec> ...] [to <connection>]\n\n"
    "where <source spec> can be:\n"
    "  tail <filename> <write_token>   - tail this filename for new lines (normal logs)\n"
    "  stream <filename> <write_token> - stream lines from this file (old logs, pipes, fifos)\n\n"
    "... and can be further configured via:\n"
    "  timestamps <time-source> - configure when events from this source appear to happen\n"
    "  prepend <string>         - prepend a fixed string to every event from this source\n\n"
    "and <time-source> can be:\n"
    "  system    - the default: a log line is recorded when it is read from the log source\n"
    "  first-iso - the first YYYY-MM-DD HH:MM:SS per line is used as the event time\n"
    "              a literal T between date and time and fractional seconds are supported\n\n"
    "and <connection> can be:\n  <hostname>:<port>\n";

struct Refusal {
  std::vector<std::string> words;
  std::vector<std::string> messages;  // the ERROR lines, in order
  std::string err{};                  // standard error; for an abort, a part of it
  bool aborts = false;                // ends through a signal; the last line may be cut short
};

TEST(ForwardCommandLine, EachRefusalIsItsLinesAndStatus) {
  const TempDir dir;
  const std::string a = dir.file("a.log"), missing = dir.file("missing.log");
  writeFile(a, "old line\n");
  const std::string version = runProcess({DROVER_BINARY, "version"}).out.substr(0, 27);
  const std::string noTarget = "At least one log target must be specified via 'to' argument.";
  const std::string refusing =
      "Refusing startup: At least one log source is unavailable, i.e. likely misconfigured.";
  const std::string noFile = ": No such file or directory";
  const std::string badTime = "Invalid timestamps argument: Unknown timestamp source";
  const std::string terminate = "terminate called after throwing an instance of 'std::";
  const auto badPort = [](const std::string& why, const std::string& target) {
    return std::vector<std::string>{why, "Invalid connection string: " + target};
  };
  // A blank makes a host name invalid: the lookup fails locally, without a name server.
  const std::vector<std::string> unresolved = {
      "Could not resolve: no such host:9000: Name or service not known",
      "Could not resolve no such host:9000: Name or service not known"};
  const std::vector<Refusal> table = {
      {{}, {noTarget}},
      {{"to", "h:1"}, {"At least one log source must be specified."}},
      {{"tail"}, {"Expected filename after 'tail' argument."}},
      {{"stream"}, {"Expected filename after 'stream' argument."}},
      {{"tail", "a"}, {"Expected write token after filename."}},
      {{"tail", a, std::string(256, 't'), "to", "h:1"}, {"Write token is impossibly long."}},
      {{"tail", a, std::string(255, 't')}, {noTarget}},
      {{"timestamps"}, {"Expected timestamp source specification after 'timestamps' argument."}},
      // The value is judged before the missing source, the reverse of prepend.
      {{"timestamps", "nonsense", "tail", a, "t", "to", "h:1"}, {badTime}},
      {{"timestamps", "first-iso", "tail", a, "t", "to", "h:1"},
       {"'timestamps' argument needs a 'source' before it to apply to."}},
      {{"stream", a, "t", "timestamps", "System"}, {badTime}},
      {{"prepend"}, {"Expected string to prepend after 'prepend' argument."}},
      {{"prepend", "x"}, {"'prepend' argument needs a 'source' before it to apply to."}},
      {{"tail", a, "t", "prepend", std::string(65015, 'p'), "to", "h:1"},
       {"Prepend text is impossibly long."}},
      {{"tail", a, "t", "prepend", std::string(65014, 'p')}, {noTarget}},
      {{"to"}, {"Expected connection string after 'to' argument."}},
      {{"to", "h:0"}, badPort("Port number was outside bounds: 0", "h:0")},
      {{"to", "h:65536"}, badPort("Port number was outside bounds: 65536", "h:65536")},
      {{"to", "h:-1"}, badPort("Port number was outside bounds: -1", "h:-1")},
      {{"to", "h:80x"}, badPort("Port number was not numeric: 80x", "h:80x")},
      {{"to", "hostonly"}, badPort("Connection string has no : character: hostonly", "hostonly")},
      {{"to", ""}, badPort("Connection string has no : character: ", "")},
      {{"timesource"}, {"Unknown argument: timesource, did you mean 'timestamps'?"}},
      {{"time-source", "system"}, {"Unknown argument: time-source, did you mean 'timestamps'?"}},
      {{"nonsense"}, {"Unknown argument: nonsense"}, FORWARD_USAGE},
      {{"listen", "9000"}, {"Unknown argument: listen"}, FORWARD_USAGE},
      {{"TAIL", a, "t"}, {"Unknown argument: TAIL"}, FORWARD_USAGE},
      {{"help"}, {}, FORWARD_USAGE},
      {{"tail", a, "t", "help", "to", "h:1"}, {}, FORWARD_USAGE},
      {{"stream", missing, "t", "to", "h:1"}, {"Could not open " + missing + noFile, refusing}},
      {{"tail", a, "t", "tail", missing, "t", "to", "h:1"},
       {"Could not open " + missing + noFile, refusing}},
      // The file of `tail to t` is named "to".
      {{"tail", "to", "t", "to", "h:1"}, {"Could not open to" + noFile, refusing}},
      {{"stream", a, "t", "to", "no such host:9000"}, unresolved},
      // The connection made for the first target goes again without harm.
      {{"stream", a, "t", "to", "127.0.0.1:9", "to", "no such host:9000"}, unresolved},
      // Only trailing garbage in a port is reported; no leading number throws, uncaught.
      {{"to", "h:abc"}, {}, terminate, true},
      {{"to", "h:"}, {}, terminate, true},
      {{"to", "h:99999999999"}, {}, terminate, true},
      // A directory's end reads as -1 once narrowed to 32 bits: the tail's start-up seek fails.
      {{"tail", dir.path(), "t", "to", "h:1"},
       {"Could not seek to end of file: "},
       "TailLogEventSource::TailLogEventSource",
       true},
  };
  for (const Refusal& row : table) {
    std::string trace;
    for (const std::string& word : row.words) trace += word.substr(0, 40) + " ";
    SCOPED_TRACE(trace);
    std::vector<std::string> argv = {DROVER_BINARY, "forward"};
    argv.insert(argv.end(), row.words.begin(), row.words.end());
    const ProcessResult r = runProcess(argv, std::chrono::seconds(20));
    std::string expected;
    for (const std::string& message : row.messages) {
      expected += "{\"level\":\"ERROR\", \"application\":\"forward\", \"version\":\"" + version +
                  "\", \"message\": \"" + message + "\"}\n";
    }
    if (row.aborts) {
      EXPECT_EQ(r.signal, SIGABRT);
      EXPECT_THAT(r.out, StartsWith(expected.substr(0, expected.size() - 3)));
      EXPECT_EQ(r.out.empty(), expected.empty());
      EXPECT_THAT(r.err, HasSubstr(row.err));
    } else {
      EXPECT_EQ(r.exitCode, 1);
      EXPECT_EQ(r.out, expected);
      EXPECT_EQ(r.err, row.err);
    }
  }
}

}  // namespace
