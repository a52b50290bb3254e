// Framing, splitting and per-event delivery. A tail source on an empty file serves
// where only the framing matters: it reads what is written and waits at the end of the file.
#include "sources/file_log_event_source.h"

#include "sources/tail_log_event_source.h"
#include "tests/sources/source_test_helpers.h"

namespace {

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

  const std::string x70000 = std::string(70000, 'x') + "\n";
  const std::string split =
      logLine("ERROR", "Overly long line in " + path + ". Splitting forcibly!");
};

// Ends with a line longer than the buffer, which is compacted, then cut at its size.
TEST_F(FileLineFraming, LinesGoOutIn256EventBatchesAndAPartialLineWaits) {
  auto source = makeSource();
  appendFile(path, "a\nb\n\n3\n4\n5\n6\n7\n8\n9\nhalf");
  source->consume();
  appendFile(path, "\n");  // a read of one byte counts too
  source->consume();
  EXPECT_THAT(events, ::testing::ElementsAreArray({"a\n", "b\n", "\n", "3\n", "4\n", "5\n", "6\n",
                                                   "7\n", "8\n", "9\n", "half\n"}));
  EXPECT_EQ(out.str(), "");  // ten events in one read are too few to report a speed

  std::string lines;
  for (int i = 0; i < 600; ++i) lines += std::to_string(i) + "\n";
  appendFile(path, lines + x70000);
  source->consume();
  EXPECT_THAT(batchSizes, ElementsAre(10, 1, 256, 256, 88, 1, 1));
  EXPECT_EQ(events[610], "599\n");
  EXPECT_EQ(times[11], times[266]);
  EXPECT_EQ(events[611], std::string(65526, 'x') + "\n");
  EXPECT_EQ(events[612], std::string(70000 - 65526, 'x') + "\n");
  const std::string speed =
      R"(\{"level":"INFO", "message": "Event coding speed: [0-9]+ events per s"\})";
  EXPECT_THAT(splitLines(out.str()), ElementsAre(::testing::MatchesRegex(speed), split));
}

// With a prepend or an extractor each event is a sink call of its own; a refusal after k of them
// keeps the rest and sends nothing twice. The extractor never sees the prepended date, and the
// prepend takes its room from the buffer.
class FilePerEventDelivery : public FileLineFraming, public ::testing::WithParamInterface<bool> {};

TEST_P(FilePerEventDelivery, ARefusalAfterSomeEventsSendsNothingTwice) {
  const bool withExtractor = GetParam();
  const std::string prepend = withExtractor ? "2000-01-01 00:00:00 " : "P ";
  auto source = makeSource(prepend);
  if (withExtractor) source->setTimestampExtractor(std::make_unique<FirstIsoExtractor>(7));
  accept = [&] { return events.size() < 2; };
  appendFile(path, "2024-05-06 07:08:01 a\n2024-05-06 07:08:02 b\nc\n2024-05-06 07:08:04 d\n");
  source->consume();
  EXPECT_EQ(events.size(), 2u);
  accept = [] { return true; };
  source->consume();
  const size_t first = 65526 - prepend.size();
  appendFile(path, x70000);
  source->consume();
  EXPECT_THAT(events,
              ElementsAre(prepend + "2024-05-06 07:08:01 a\n", prepend + "2024-05-06 07:08:02 b\n",
                          prepend + "c\n", prepend + "2024-05-06 07:08:04 d\n",
                          prepend + std::string(first, 'x') + "\n",
                          prepend + std::string(70000 - first, 'x') + "\n"));
  EXPECT_THAT(batchSizes, ::testing::Each(1u));
  EXPECT_THAT(logLines(), ElementsAre(split));
  const uint64_t s = 1000000000ull, at0 = 1714979280ull * s, x = at0 + 4 * s;
  if (withExtractor) {
    EXPECT_THAT(times, ElementsAre(at0 + s, at0 + 2 * s, at0 + 2 * s, x, x, x));
  }
}

INSTANTIATE_TEST_SUITE_P(PrependOrExtractor, FilePerEventDelivery, ::testing::Bool());

}  // namespace
