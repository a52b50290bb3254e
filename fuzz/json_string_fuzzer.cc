// drover-sink's JSON string form over arbitrary bytes: what it writes must be the inside of a
// valid JSON string (UTF-8, no raw control byte, no bare quote), and undoing the escapes, with
// \uDCXX read back as the byte XX, must give the input exactly.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "sink/json_string.h"

namespace {

void check(bool condition) {
  if (!condition) abort();
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The code point of the UTF-8 sequence at `text[at]`, decoded without shortcuts, and its length;
// a malformed, overlong or surrogate sequence fails the input.
uint32_t decodeUtf8(const std::string& text, size_t at, size_t& length) {
  const auto lead = static_cast<unsigned char>(text[at]);
  uint32_t point;
  if (lead < 0x80) {
    length = 1;
    return lead;
  } else if ((lead & 0xE0) == 0xC0) {
    length = 2;
    point = lead & 0x1F;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3;
    point = lead & 0x0F;
  } else {
    check((lead & 0xF8) == 0xF0);
    length = 4;
    point = lead & 0x07;
  }
  check(at + length <= text.size());
  for (size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[at + i]);
    check((next & 0xC0) == 0x80);
    point = point << 6 | (next & 0x3F);
  }
  static constexpr uint32_t SMALLEST[] = {0, 0, 0x80, 0x800, 0x10000};
  check(point >= SMALLEST[length] && point <= 0x10FFFF && (point < 0xD800 || point > 0xDFFF));
  return point;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<char> out(JSON_STRING_EXPANSION * size + 1);
  char* end = writeJsonString(out.data(), reinterpret_cast<const char*>(data), size);
  const std::string text(out.data(), static_cast<size_t>(end - out.data()));

  std::string decoded;
  for (size_t at = 0; at < text.size();) {
    const char c = text[at];
    check(c != '"' && static_cast<unsigned char>(c) >= 0x20);
    if (c != '\\') {
      size_t length;
      decodeUtf8(text, at, length);
      decoded.append(text, at, length);
      at += length;
      continue;
    }
    check(at + 1 < text.size());
    if (text[at + 1] == '"' || text[at + 1] == '\\') {
      decoded += text[at + 1];
      at += 2;
      continue;
    }
    check(text[at + 1] == 'u' && at + 6 <= text.size());
    int point = 0;
    for (size_t i = at + 2; i < at + 6; ++i) {
      check(hexValue(text[i]) >= 0);
      point = point * 16 + hexValue(text[i]);
    }
    // Only two kinds: a control byte, or a byte outside valid UTF-8 as a lone low surrogate.
    check(point < 0x20 || (point >= 0xDC80 && point <= 0xDCFF));
    decoded += static_cast<char>(point & 0xFF);
    at += 6;
  }
  check(decoded == std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
