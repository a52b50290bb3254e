// Hostile log lines for `timestamps first-iso`: the scanner that finds the first date and time in
// a line and the parser behind it, over arbitrary bytes.
//
// Input: the lines of one source, cut at '\n'. Each line goes through one extractor (its memory
// of the last good time carries from line to line) and, whole, through the parser.
#include <cstdint>
#include <cstring>
#include <vector>

#include "sources/timestamp_extractor.h"

namespace {

constexpr uint64_t START = 1700000000000000000ull;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FirstIsoExtractor extractor(START);
  const uint8_t* const end = data + size;
  const uint8_t* line = data;
  while (true) {
    const uint8_t* newline = static_cast<const uint8_t*>(memchr(line, '\n', end - line));
    const uint8_t* lineEnd = newline ? newline : end;
    // A copy of exactly the line's bytes, so that a read past its end is a report.
    std::vector<uint8_t> bytes(line, lineEnd);
    const uint8_t* begin = bytes.data();
    extractor.timeOf(EphemeralLogEvent{begin, begin + bytes.size()});
    parseIsoTime(begin, begin + bytes.size());
    if (!newline) break;
    line = newline + 1;
  }
  return 0;
}
