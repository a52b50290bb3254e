// The inside of a JSON string for arbitrary bytes, as the sink writes events and tokens: every
// line parses as JSON, and the bytes come back exactly. Internal to sink/ and its fuzz target.
#pragma once

#include <cstddef>

/// Output bytes per input byte, at most.
constexpr size_t JSON_STRING_EXPANSION = 6;

/// Writes the `size` bytes at `data` at `out`, which has room for JSON_STRING_EXPANSION * size
/// bytes, and returns the end of what it wrote. Valid UTF-8 passes unchanged, except '"' and
/// '\' (a backslash before them) and the bytes below 0x20 (\u00XX). Each byte that is not part of
/// valid UTF-8 becomes \uDCXX: the lone low surrogate that Python's "surrogateescape" error handler
/// turns back into that byte, json.loads(line)["event"].encode("utf-8", "surrogateescape"). Valid
/// UTF-8 never holds a surrogate, so the mapping can be undone without ambiguity.
char* writeJsonString(char* out, const char* data, size_t size);
