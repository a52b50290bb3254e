#include <chrono>

#include "loop/event_loop.h"
#include "tests/support/test_helpers.h"

bool runUntil(EventLoop& loop, const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  static char tickKey;
  // A short interval keeps the loop waking up so the deadline is noticed.
  loop.addInterval(5000000, &tickKey, [] { return false; });
  loop.runWhile([&] { return !done() && std::chrono::steady_clock::now() < deadline; });
  loop.removeInterval(&tickKey);
  return done();
}
