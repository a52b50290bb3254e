#include "sink/json_string.h"

#include <bit>
#include <cstdint>
#include <cstring>

namespace {

constexpr uint64_t ONES = 0x0101010101010101ull;
constexpr uint64_t HIGHS = 0x8080808080808080ull;

// Marks the high bit of each of the eight bytes in `word` that is anything but printable ASCII
// other than '"' and '\': the classic tests for a byte below a bound and for a zero byte. A mark
// can be false only above a true one, so the lowest mark is always right.
uint64_t careMarks(uint64_t word) {
  const uint64_t control = (word - ONES * 0x20) & ~word;
  const uint64_t quote = word ^ (ONES * '"');
  const uint64_t backslash = word ^ (ONES * '\\');
  return (control | ((quote - ONES) & ~quote) | ((backslash - ONES) & ~backslash) | word) & HIGHS;
}

// The length of the well-formed UTF-8 sequence that starts at `p`, or 0: no overlong forms, no
// surrogates, nothing above U+10FFFF (RFC 3629).
size_t sequenceLength(const unsigned char* p, const unsigned char* end) {
  const unsigned lead = p[0];
  size_t length = 0;
  unsigned low = 0x80, high = 0xBF;  // the bounds of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (static_cast<size_t>(end - p) < length || p[1] < low || p[1] > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (p[i] < 0x80 || p[i] > 0xBF) return 0;
  }
  return length;
}

// \u00XX for a control byte, \uDCXX for a byte outside valid UTF-8.
char* writeEscape(char* out, const char* prefix, unsigned byte) {
  static constexpr char HEX[] = "0123456789ABCDEF";
  out[0] = '\\';
  out[1] = 'u';
  out[2] = prefix[0];
  out[3] = prefix[1];
  out[4] = HEX[byte >> 4];
  out[5] = HEX[byte & 0xF];
  return out + 6;
}

}  // namespace

char* writeJsonString(char* out, const char* data, size_t size) {
  const auto* p = reinterpret_cast<const unsigned char*>(data);
  const auto* const end = p + size;
  while (p < end) {
    // Log lines are mostly plain ASCII: take it eight bytes at a time, up to the next byte that
    // needs care.
    if (end - p >= 8) {
      uint64_t word;
      memcpy(&word, p, 8);
      const uint64_t marks = careMarks(word);
      const size_t plain = marks == 0 ? 8 : static_cast<size_t>(std::countr_zero(marks)) / 8;
      memcpy(out, p, 8);  // whole: the bytes past `plain` are overwritten next
      out += plain;
      p += plain;
      if (plain == 8) continue;
    }
    const unsigned byte = *p;
    if (byte >= 0x20 && byte < 0x80) {
      if (byte == '"' || byte == '\\') *out++ = '\\';
      *out++ = static_cast<char>(byte);
      ++p;
    } else if (byte < 0x20) {
      out = writeEscape(out, "00", byte);
      ++p;
    } else if (const size_t length = sequenceLength(p, end)) {
      memcpy(out, p, length);
      out += length;
      p += length;
    } else {
      out = writeEscape(out, "DC", byte);
      ++p;
    }
  }
  return out;
}
