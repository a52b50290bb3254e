// Framing, splitting, the read slice and back-pressure. A tail source on an empty file serves
// where only the framing matters: it reads what is written and waits at the end of the file.
#include "sources/file_log_event_source.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include "sources/stream_log_event_source.h"
#include "sources/tail_log_event_source.h"
#include "tests/sources/source_test_helpers.h"

namespace {

using ::testing::Each;
using ::testing::ElementsAre;

class FileLineFraming : public SourceFixture {
 protected:
  std::unique_ptr<TailLogEventSource> makeSource(std::string prepend = "") {
    writeFile(path, "");
    auto source = std::make_unique<TailLogEventSource>(log, path, "token");
    source->setPrepend(std::move(prepend));
    configure(*source);
    return source;
  }

  const std::string path = dir.file("app.log");
};

TEST_F(FileLineFraming, LinesGoOutIn256EventBatchesAndAPartialLineWaits) {
  auto source = makeSource();
  appendFile(path, "a\nb\n\nhal");
  source->consume();
  appendFile(path, "f\n");
  source->consume();
  EXPECT_THAT(sunk.events, ElementsAre("a\n", "b\n", "\n", "half\n"));
  // Ten events in one read are too few to report a speed.
  EXPECT_EQ(out.str(), "");

  std::string lines;
  for (int i = 0; i < 600; ++i) lines += std::to_string(i) + "\n";
  appendFile(path, lines);
  source->consume();
  EXPECT_THAT(sunk.batchSizes, ElementsAre(3, 1, 256, 256, 88));
  EXPECT_EQ(sunk.events.back(), "599\n");
  EXPECT_EQ(sunk.times[4], sunk.times[259]);
  EXPECT_TRUE(std::regex_match(
      out.str(),
      std::regex(R"(\{"level":"INFO", "message": "Event coding speed: \d+ events per s"\}\n)")));
}

TEST_F(FileLineFraming, ReadSliceEndsTheCallAfter1048416Bytes) {
  auto source = makeSource();
  // 134 divides the 65526-byte buffer: every read is full and leaves no partial line.
  std::string content;
  for (int i = 0; i < 8000; ++i) content += std::string(133, 'x') + "\n";
  appendFile(path, content);

  source->consume();
  EXPECT_EQ(sunk.events.size() * 134, 1048416u);
  EXPECT_THAT(logLines(), ElementsAre(logLine("ERROR", "Read slice expired.")));
  source->consume();
  EXPECT_EQ(sunk.events.size(), 8000u);
  EXPECT_EQ(logLines().size(), 1u);
}

class FileForcedSplit : public FileLineFraming,
                        public ::testing::WithParamInterface<std::string> {};

TEST_P(FileForcedSplit, AnOverlongLineIsCutAtTheBufferSize) {
  const std::string prepend = GetParam();
  auto source = makeSource(prepend);
  appendFile(path, std::string(70000, 'x') + "\n");
  source->consume();
  // The buffer holds 65526 bytes less the prepend; the split puts a newline behind them.
  const size_t first = 65526 - prepend.size();
  EXPECT_THAT(sunk.events, ElementsAre(prepend + std::string(first, 'x') + "\n",
                                       prepend + std::string(70000 - first, 'x') + "\n"));
  EXPECT_THAT(logLines(), ElementsAre(logLine(
                              "ERROR", "Overly long line in " + path + ". Splitting forcibly!")));
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutPrepend, FileForcedSplit, ::testing::Values("", "P:"));

// With a prepend or an extractor each event is a sink call of its own; a refusal after k of them
// keeps the rest and sends nothing twice. The extractor never sees the prepended date.
class FilePerEventDelivery : public FileLineFraming, public ::testing::WithParamInterface<bool> {};

TEST_P(FilePerEventDelivery, ARefusalAfterSomeEventsSendsNothingTwice) {
  const bool withExtractor = GetParam();
  const std::string prepend = withExtractor ? "2000-01-01 00:00:00 " : "P ";
  auto source = makeSource(prepend);
  if (withExtractor) source->setTimestampExtractor(std::make_unique<FirstIsoExtractor>(7));
  sunk.accept = [&](uint32_t) { return sunk.events.size() < 2; };
  appendFile(path, "2024-05-06 07:08:01 a\n2024-05-06 07:08:02 b\nc\n2024-05-06 07:08:04 d\n");
  source->consume();
  EXPECT_EQ(sunk.events.size(), 2u);

  sunk.accept = [](uint32_t) { return true; };
  source->consume();
  EXPECT_THAT(sunk.events,
              ElementsAre(prepend + "2024-05-06 07:08:01 a\n", prepend + "2024-05-06 07:08:02 b\n",
                          prepend + "c\n", prepend + "2024-05-06 07:08:04 d\n"));
  EXPECT_THAT(sunk.batchSizes, Each(1u));
  if (withExtractor) {
    const uint64_t s = 1000000000ull, at0 = 1714979280ull * s;
    EXPECT_THAT(sunk.times, ElementsAre(at0 + s, at0 + 2 * s, at0 + 2 * s, at0 + 4 * s));
  }
}

INSTANTIATE_TEST_SUITE_P(PrependOrExtractor, FilePerEventDelivery, ::testing::Bool());

// On a FIFO whose bytes are all read, only the one-second retry can wake the source.
TEST_F(FileLineFraming, ARefusedBatchIsRetriedAfterOneSecond) {
  const std::string fifo = dir.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  StreamLogEventSource source(log, fifo, "token");
  configure(source);
  source.registerAt(loop);
  const int writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);

  bool refusing = true;
  sunk.accept = [&](uint32_t) { return !refusing; };
  ASSERT_EQ(write(writer, "a\nb\nc\n", 6), 6);
  // The batch of three, then the first line alone, which arms the retry.
  ASSERT_TRUE(runUntil(loop, [&] { return sunk.refusals == 2; }));
  const auto refused = std::chrono::steady_clock::now();
  refusing = false;
  ASSERT_TRUE(runUntil(
      loop, [&] { return sunk.events.size() == 3; }, std::chrono::seconds(3)));
  EXPECT_GE(std::chrono::steady_clock::now() - refused, std::chrono::milliseconds(900));
  EXPECT_THAT(sunk.events, ElementsAre("a\n", "b\n", "c\n"));
  EXPECT_EQ(sunk.refusals, 2u);
  EXPECT_EQ(out.str(), "");  // the empty pipe's EAGAIN is no error
  close(writer);
}

}  // namespace
