// Wire helpers for the protocol tests: bytes written as hex, little-endian fields, and what a
// connection without a loop has queued. Tests only.
#pragma once

#include <string>

#include "tests/net/net_test_helpers.h"

/// Bytes from pairs of hex digits; spaces are only for the reader.
inline std::string hex(const std::string& digits) {
  std::string bytes;
  for (size_t i = 0; i < digits.size(); i += digits[i] == ' ' ? 1 : 2) {
    if (digits[i] != ' ') bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

inline std::string le64(uint64_t v) {
  return std::string(reinterpret_cast<const char*>(&v), 8);
}
inline std::string str16(const std::string& s) {
  return le16(static_cast<uint16_t>(s.size())) + s;
}

/// A read cursor over all of `bytes`.
inline NetworkConnection::IncomingPacket over(TestConnection& con, const std::string& bytes) {
  const auto* begin = reinterpret_cast<const uint8_t*>(bytes.data());
  return {&con, begin, begin + bytes.size()};
}

/// What `con` has queued, which then counts as sent.
inline std::string takeQueued(TestConnection& con) {
  const std::string bytes = con.queued();
  con.sendRead = con.sendWrite;
  return bytes;
}
