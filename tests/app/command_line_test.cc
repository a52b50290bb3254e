// The command lines of drover and of its forward subcommand, run as the real binary: status,
// what goes to which stream, exact lines.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/support/test_helpers.h"

namespace {

// The usage texts as help prints them; their first lines and lengths are checked below.
const std::string USAGE = runProcess({DROVER_BINARY, "help"}).out;
const std::string FORWARD_USAGE = runProcess({DROVER_BINARY, "forward", "help"}).err;
const std::string VERSION = runProcess({DROVER_BINARY, "version"}).out;

TEST(ProgramEntry, EachFirstWordGivesItsStatusAndStreams) {
  EXPECT_THAT(USAGE, ::testing::StartsWith("Usage: drover <subcommand> [help | ...]\n\n"));
  EXPECT_EQ(std::count(USAGE.begin(), USAGE.end(), '\n'), 16);
  EXPECT_THAT(VERSION, ::testing::MatchesRegex("[0-9]{4}(-[0-9]{2}){2}-[0-9a-f]{7}-[0-9a-f]{8}\n"));
  const std::string note = "\nNote: To get help for a subcommand, use ./drover <subcommand> help\n";
  using Run = std::tuple<std::vector<std::string>, int, std::string, std::string>;
  // Help with any second word adds the note only; further words of version are ignored.
  std::vector<Run> runs = {{{}, 1, "", USAGE},
                           {{"help"}, 0, USAGE, ""},
                           {{"help", "forward"}, 0, USAGE + note, ""},
                           {{"help", ""}, 0, USAGE + note, ""},
                           {{"version", "extra"}, 0, VERSION, ""}};
  // Words are compared whole and case-sensitively.
  const std::string invalid =
      "{\"level\":\"ERROR\", \"version\":\"" + VERSION.substr(0, 27) +
      "\", \"application\":\"drover_main\", \"message\": \"Invalid subcommand: ";
  for (const std::string word : {"HELP", "versions", "forwar", ""})
    runs.push_back({{word}, 1, invalid + word + "\"}\n", USAGE});
  for (auto [words, status, out, err] : runs) {
    SCOPED_TRACE(words.empty() ? "-" : words[0]);
    words.insert(words.begin(), DROVER_BINARY);
    const ProcessResult r = runProcess(words);
    EXPECT_EQ(std::tie(r.exitCode, r.out, r.err), std::tie(status, out, err));
  }
}

struct Refusal {
  std::vector<std::string> words;     // behind "forward"
  std::vector<std::string> messages;  // the ERROR lines, in order
  std::string err{};                  // standard error
  bool aborts = false;                // ends through SIGABRT
};

void expectRefusals(const std::vector<Refusal>& table) {
  const std::string line = "{\"level\":\"ERROR\", \"application\":\"forward\", \"version\":\"" +
                           VERSION.substr(0, 27) + "\", \"message\": \"";
  for (const Refusal& row : table) {
    std::string trace, out;
    for (const std::string& word : row.words) trace += word.substr(0, 40) + " ";
    SCOPED_TRACE(trace);
    std::vector<std::string> argv = {DROVER_BINARY, "forward"};
    argv.insert(argv.end(), row.words.begin(), row.words.end());
    const ProcessResult r = runProcess(argv);
    for (const std::string& message : row.messages) out += line + message + "\"}\n";
    // An abort cuts the last line short, and only a part of standard error is fixed.
    if (row.aborts) out.resize(out.empty() ? 0 : out.size() - 3);
    EXPECT_EQ(row.aborts ? r.signal : r.exitCode, row.aborts ? SIGABRT : 1);
    EXPECT_EQ(r.out.substr(0, row.aborts ? out.size() : std::string::npos), out);
    EXPECT_TRUE(row.aborts ? r.err.find(row.err) != std::string::npos : r.err == row.err) << r.err;
  }
}

TEST(ForwardCommandLine, EachRefusalIsItsLinesAndStatus) {
  EXPECT_THAT(FORWARD_USAGE, ::testing::StartsWith(
                                 "Usage: drover forward [<source spec> ...] [to <connection>]\n"));
  EXPECT_EQ(std::count(FORWARD_USAGE.begin(), FORWARD_USAGE.end(), '\n'), 17);
  const std::string a = "/dev/null", missing = "/nonexistent.log";
  const std::string noTarget = "At least one log target must be specified via 'to' argument.";
  const std::string refusing =
      "Refusing startup: At least one log source is unavailable, i.e. likely misconfigured.";
  const std::string noFile = ": No such file or directory";
  const std::string badTime = "Invalid timestamps argument: Unknown timestamp source";
  const std::string terminate = "terminate called after throwing an instance of 'std::";
  const auto badPort = [](const std::string& why, const std::string& target) {
    return std::vector<std::string>{why, "Invalid connection string: " + target};
  };
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
      // Only trailing garbage in a port is reported; no leading number throws, uncaught.
      {{"to", "h:abc"}, {}, terminate, true},
      {{"to", "h:"}, {}, terminate, true},
      {{"to", "h:99999999999"}, {}, terminate, true},
      // A directory's end reads as -1 once narrowed to 32 bits: the tail's start-up seek fails.
      {{"tail", "/tmp", "t", "to", "h:1"},
       {"Could not seek to end of file: "},
       "TailLogEventSource::TailLogEventSource",
       true},
  };
  expectRefusals(table);
}

TEST(ForwardCommandLine, UnresolvableTargetRefusesTheStart) {
  // Apart from the table: the thread sanitizer can't follow the resolver's helper thread. A blank
  // makes a host name invalid, so the lookup fails locally, without a name server; the connection
  // made for a first target goes again without harm.
  const std::vector<std::string> unresolved = {
      "Could not resolve: no such host:9000: Name or service not known",
      "Could not resolve no such host:9000: Name or service not known"};
  expectRefusals(
      {{{"stream", "/dev/null", "t", "to", "no such host:9000"}, unresolved},
       {{"stream", "/dev/null", "t", "to", "127.0.0.1:9", "to", "no such host:9000"}, unresolved}});
}

}  // namespace
