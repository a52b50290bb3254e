#include "loop/event_loop.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/test_helpers.h"

using ::testing::ElementsAre;

namespace {

constexpr uint64_t MS = 1'000'000;
constexpr uint64_t HOUR = 3600'000 * MS;

struct FnListener : EpollListener {
  std::function<void(int)> onEvent;
  void descriptorAvailable(int events) override { onEvent(events); }
};

struct RecordingWatcher : InotifyWatcher {
  std::vector<uint32_t> masks;
  std::function<void()> onEvent = [] {};
  void inotifyEvent(uint32_t mask) override {
    masks.push_back(mask);
    onEvent();
  }
};

struct Pipe {
  int fds[2];
  Pipe() { EXPECT_EQ(pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0); }
  ~Pipe() { close(fds[0]), close(fds[1]); }
};

std::string errorLine(const std::string& message) {
  return R"({"level":"ERROR", "component":"EventLoop", "message": ")" + message + "\"}";
}

// A loop logging into a string, with a zero-interval timer that counts passes: it is due on every
// pass, so `passes` is the number of the current pass from its timer batch on.
class EventLoopTest : public ::testing::Test {
 protected:
  EventLoopTest() {
    loop.addInterval(0, &passKey, [this] {
      ++passes;
      return false;
    });
  }
  void runPasses(int count) {
    const int last = passes + count;
    loop.runWhile([&] { return passes < last; });
  }
  std::vector<std::string> lines() const { return splitLines(out.str()); }

  std::ostringstream out;
  Log root{out};
  EventLoop loop{root};
  char passKey = 0;
  int passes = 0;
};

using EventLoopTimers = EventLoopTest;
using EventLoopIdle = EventLoopTest;
using EventLoopListeners = EventLoopTest;

TEST(EventLoopWaitTimeout, CutsToWholeMillisecondsButNeverToZero) {
  EXPECT_EQ(EventLoop::waitTimeoutMs(false, 0), 86'400'000);
  EXPECT_EQ(EventLoop::waitTimeoutMs(false, 5 * MS), 86'400'000);
  EXPECT_EQ(EventLoop::waitTimeoutMs(true, 0), 0);
  EXPECT_EQ(EventLoop::waitTimeoutMs(true, 1), 1);
  EXPECT_EQ(EventLoop::waitTimeoutMs(true, 500'000), 1);
  EXPECT_EQ(EventLoop::waitTimeoutMs(true, 1'900'000), 1);
  EXPECT_EQ(EventLoop::waitTimeoutMs(true, 2 * MS), 2);
  EXPECT_EQ(EventLoop::waitTimeoutMs(true, 86'400'000 * MS), 86'400'000);
}

TEST_F(EventLoopTimers, DueTimersRunInKeyOrderIntervalsFirst) {
  char keys[4];
  std::vector<int> order;
  auto record = [&](int id) {
    return [&order, id] {
      order.push_back(id);
      return false;
    };
  };
  loop.addTimeoutAt(0, &keys[1], record(11));
  loop.addTimeoutAt(0, &keys[0], record(10));
  // A new interval is due on the next pass, however long its period.
  loop.addInterval(HOUR, &keys[3], record(3));
  loop.addInterval(HOUR, &keys[2], record(2));
  runPasses(1);
  EXPECT_THAT(order, ElementsAre(2, 3, 10, 11));
  runPasses(2);
  EXPECT_EQ(order.size(), 4u);
  loop.removeInterval(&keys[2]);
  loop.removeInterval(&keys[3]);
}

TEST_F(EventLoopTimers, PendingTimeoutIgnoresNewRequestsAndKeyIsReusableFromItsCallback) {
  char pending, reused;
  bool fired = false;
  loop.addTimeout(HOUR, &pending, [&] { return fired = true; });
  loop.addTimeout(0, &pending, [&] { return fired = true; });
  EXPECT_FALSE(runUntil(loop, [&] { return fired; }, std::chrono::milliseconds(30)));

  int calls = 0;
  std::function<bool()> again = [&] {
    if (++calls < 3) loop.addTimeout(0, &reused, again);
    return true;
  };
  loop.addTimeout(0, &reused, again);
  EXPECT_TRUE(runUntil(loop, [&] { return calls == 3; }));
  runPasses(3);
  EXPECT_EQ(calls, 3);
}

TEST_F(EventLoopTimers, LateIntervalDriftsInsteadOfCatchingUp) {
  char key;
  std::vector<uint64_t> starts;
  loop.addInterval(10 * MS, &key, [&] {
    starts.push_back(wallClockNanos());
    if (starts.size() == 1) {
      while (wallClockNanos() - starts[0] < 35 * MS) {
        // Work that overruns the period more than three times.
      }
    }
    return true;
  });
  ASSERT_TRUE(runUntil(loop, [&] { return starts.size() == 4; }));
  loop.removeInterval(&key);
  EXPECT_GE(starts[1] - starts[0], 35 * MS);
  // Catching up would fire the missed periods back to back after the overrun.
  EXPECT_GE(starts[2] - starts[1], 5 * MS);
  EXPECT_GE(starts[3] - starts[2], 5 * MS);
}

TEST_F(EventLoopIdle, RunOnlyOnPassesWithoutWork) {
  std::string seen;
  char idleKey, busyKey;
  Pipe pipe;
  FnListener reader;
  reader.onEvent = [&](int) {
    char byte;
    EXPECT_EQ(read(pipe.fds[0], &byte, 1), 1);
    seen += 'L';
  };
  loop.setEpollListener(pipe.fds[0], EPOLLIN, &reader);
  ASSERT_EQ(write(pipe.fds[1], "x", 1), 1);
  auto idle = [&] {
    seen += 'I';
    return false;
  };
  loop.addIdleCallback(&idleKey, 2, idle);
  // Pass 1: a descriptor fired. Pass 2: only a timer that did nothing ran.
  loop.runWhile([&] { return seen.find('I') == std::string::npos && passes < 10; });
  EXPECT_EQ(seen, "LI");
  EXPECT_EQ(passes, 2);
  loop.removeEpollListener(&reader);

  seen.clear();
  loop.addInterval(0, &busyKey, [&] {
    seen += 'W';
    return seen.size() < 3;
  });
  loop.addIdleCallback(&idleKey, 1, idle);
  loop.runWhile([&] { return seen.find('I') == std::string::npos && passes < 10; });
  loop.removeInterval(&busyKey);
  EXPECT_EQ(seen, "WWWI");
}

TEST_F(EventLoopIdle, FirstLevelRunsFirstAndWorkEndsThePass) {
  char keys[4];
  std::string seen;
  auto record = [&](char name, bool work) {
    return [this, &seen, name, work] {
      seen += name + std::to_string(passes);
      return work;
    };
  };
  loop.addIdleCallback(&keys[0], 2, record('a', false));
  loop.addIdleCallback(&keys[1], 1, record('b', true));
  loop.addIdleCallback(&keys[1], 1, record('x', false));  // pending key: ignored
  loop.addIdleCallback(&keys[2], 1, record('c', false));
  loop.addIdleCallback(&keys[3], 0, record('d', false));  // any level but 1 is the second
  runPasses(3);
  EXPECT_EQ(seen, "b1c2a2d2");
}

TEST_F(EventLoopIdle, SpinHandlerOnEveryEleventhPassWithoutWait) {
  char key;
  std::vector<int> spins, idlePasses, expectedIdle;
  std::function<bool()> again = [&] {
    idlePasses.push_back(passes);
    loop.addIdleCallback(&key, 1, again);
    return false;
  };
  loop.addIdleCallback(&key, 1, again);
  loop.setSpinHandler([&] { spins.push_back(passes); });
  runPasses(33);
  EXPECT_THAT(spins, ElementsAre(11, 22, 33));
  // The spinning pass hands over to epoll without running deferred work.
  for (int pass = 1; pass <= 33; ++pass) {
    if (pass % 11 != 0) expectedIdle.push_back(pass);
  }
  EXPECT_EQ(idlePasses, expectedIdle);
}

// Both descriptors are ready in one wake-up; whichever epoll reports first removes the other and
// registers it again. The second event of that array is stale and skipped; the next wake-up
// reports the descriptor anew.
TEST_F(EventLoopListeners, ListenerRemovedDuringWakeUpGetsNoFurtherCallInIt) {
  Pipe first, second;
  FnListener listeners[2];
  std::vector<std::pair<int, int>> calls;  // listener, pass
  for (int i = 0; i < 2; ++i) {
    listeners[i].onEvent = [&, i](int) {
      calls.emplace_back(i, passes);
      FnListener& other = listeners[1 - i];
      if (calls.size() == 1) {
        loop.removeEpollListener(&other);
        loop.setEpollListener((i == 0 ? second : first).fds[0], EPOLLIN, &other);
      }
      loop.removeEpollListener(&listeners[i]);
    };
  }
  loop.setEpollListener(first.fds[0], EPOLLIN, &listeners[0]);
  loop.setEpollListener(second.fds[0], EPOLLIN, &listeners[1]);
  ASSERT_EQ(write(first.fds[1], "x", 1), 1);
  ASSERT_EQ(write(second.fds[1], "x", 1), 1);
  runPasses(3);
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_NE(calls[0].first, calls[1].first);
  EXPECT_EQ(calls[0].second, 0);
  EXPECT_EQ(calls[1].second, 1);
}

TEST_F(EventLoopListeners, FailedRegistrationIsLogged) {
  FnListener listener;
  loop.setEpollListener(-1, EPOLLIN, &listener);
  EXPECT_THAT(lines(), ElementsAre(errorLine("Could not add epoll listener: Bad file descriptor")));
}

class InotifyWatches : public EventLoopTest {
 protected:
  InotifyWatches() { writeFile(path, ""); }
  TempDir dir;
  std::string path = dir.file("watched");
  RecordingWatcher watcher;
};

TEST_F(InotifyWatches, EventsArriveOnceEachInKernelOrder) {
  loop.addInotifyWatch(path, IN_OPEN | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB, &watcher);
  appendFile(path, "line\n");
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  ASSERT_TRUE(runUntil(loop, [&] { return watcher.masks.size() >= 4; }));
  EXPECT_THAT(watcher.masks, ElementsAre(IN_OPEN, IN_MODIFY, IN_CLOSE_WRITE, IN_ATTRIB));
  loop.removeInotifyWatch(&watcher);
}

TEST_F(InotifyWatches, WatcherRemovingItselfGetsNoMoreOfTheBuffer) {
  loop.addInotifyWatch(path, IN_OPEN | IN_MODIFY | IN_CLOSE_WRITE, &watcher);
  watcher.onEvent = [&] { loop.removeInotifyWatch(&watcher); };
  appendFile(path, "line\n");
  // The two records left in the buffer, then the kernel's IN_IGNORED for the removed watch.
  ASSERT_TRUE(runUntil(loop, [&] { return lines().size() >= 3; }));
  runPasses(2);
  EXPECT_THAT(watcher.masks, ElementsAre(IN_OPEN));
  const std::string unknown = errorLine("Received inotify event for unknown watcher.");
  EXPECT_THAT(lines(), ElementsAre(unknown, unknown, unknown));
}

TEST_F(InotifyWatches, RemovalBookkeeping) {
  RecordingWatcher never;
  loop.removeInotifyWatch(&never);
  loop.addInotifyWatch(dir.file("missing"), IN_MODIFY, &never);
  loop.removeInotifyWatch(&never);
  loop.addInotifyWatch(path, IN_MODIFY, &watcher);
  loop.removeInotifyWatch(&watcher);
  loop.removeInotifyWatch(&watcher);
  ASSERT_TRUE(runUntil(loop, [&] { return lines().size() >= 5; }));
  const std::string unregistered = errorLine("Attempt to remove unregistered inotify watcher.");
  EXPECT_THAT(lines(),
              ElementsAre(unregistered,
                          errorLine("Could not register inotify watcher: No such file or directory"),
                          unregistered, unregistered,
                          errorLine("Received inotify event for unknown watcher.")));
}

// The newest inotify descriptor of this process: the one of the loop under test.
int loopInotifyDescriptor() {
  int found = -1;
  DIR* fds = opendir("/proc/self/fd");
  while (dirent* entry = readdir(fds)) {
    char target[PATH_MAX] = {};
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    if (readlink(link.c_str(), target, sizeof target - 1) > 0 &&
        std::string(target) == "anon_inode:inotify") {
      found = std::max(found, atoi(entry->d_name));
    }
  }
  closedir(fds);
  return found;
}

// Feeds `bytes` to the loop as if the kernel had queued them: in the forked child of a death test,
// a pipe takes the place of the inotify descriptor.
void feedInotifyBytes(EventLoop& loop, const std::string& bytes) {
  int fds[2];
  if (pipe(fds) != 0 || dup2(fds[0], loopInotifyDescriptor()) == -1) abort();
  if (write(fds[1], bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) abort();
  loop.handleInotifyEvents();
}

// The loop ignores SIGCHLD for the whole process, which makes the kernel reap children at once;
// a death test has to wait for its child, so it takes the default back.
class EventLoopDeathTest : public EventLoopTest {
 protected:
  EventLoopDeathTest() { signal(SIGCHLD, SIG_DFL); }
};

TEST_F(EventLoopDeathTest, ListenerMisuse) {
  Pipe pipe;
  FnListener listener;
  EXPECT_DEATH(loop.removeEpollListener(&listener), "existing != epollListenersReverse.end\\(\\)");
  loop.setEpollListener(pipe.fds[0], EPOLLIN, &listener);
  EXPECT_DEATH(loop.setEpollListener(pipe.fds[1], EPOLLOUT, &listener), "existing->second == fd");
  loop.removeEpollListener(&listener);
}

TEST_F(EventLoopDeathTest, MalformedInotifyRecords) {
  EXPECT_DEATH(feedInotifyBytes(loop, "abc"), "ret % alignof\\(inotify_event\\) == 0");
  inotify_event header{};
  header.wd = 12345;
  header.len = 3;
  std::string record(reinterpret_cast<const char*>(&header), sizeof header);
  record.append(4, '\0');
  EXPECT_DEATH(feedInotifyBytes(loop, record),
               "\\(sizeof\\(inotify_event\\) \\+ event->len\\) % alignof\\(inotify_event\\) == 0");
}

// A deleted file's watch is gone in the kernel but stays in the loop's maps; its last records
// reach the watcher as they are, and removing it afterwards is fatal.
TEST(InotifyDeathTest, RemovingWatchTheKernelDroppedIsFatal) {
  Log root(std::cerr);
  EventLoop loop(root);
  signal(SIGCHLD, SIG_DFL);
  TempDir dir;
  writeFile(dir.file("watched"), "");
  RecordingWatcher watcher;
  loop.addInotifyWatch(dir.file("watched"), IN_DELETE_SELF, &watcher);
  ASSERT_EQ(unlink(dir.file("watched").c_str()), 0);
  ASSERT_TRUE(runUntil(loop, [&] { return watcher.masks.size() >= 2; }));
  EXPECT_THAT(watcher.masks, ElementsAre(IN_DELETE_SELF, IN_IGNORED));
  EXPECT_DEATH(loop.removeInotifyWatch(&watcher), "Failed to remove inotify watch: Invalid argument");
}

}  // namespace
