#include "loop/event_loop.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "tests/support/test_helpers.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr uint64_t MS = 1'000'000;
constexpr uint64_t HOUR = 3600'000 * MS;

// Stands for a listener or a watcher: writes down the watch's masks, and runs `onEvent` on each
// call of either kind.
struct Recorder : EpollListener, InotifyWatcher {
  std::vector<uint32_t> masks;
  std::function<void()> onEvent = [] {};
  void descriptorAvailable(int) override { onEvent(); }
  void inotifyEvent(uint32_t mask) override { masks.push_back(mask), onEvent(); }
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
// pass and its key comes before the others, so `passes` is the number of the current pass from
// its timer batch on. note() makes callbacks that write down their name and the pass.
class EventLoopTest : public ::testing::Test {
 protected:
  EventLoopTest() {
    loop.addInterval(0, &keys[0], [this] { return ++passes, false; });
  }
  void runPasses(int count) {
    const int last = passes + count;
    loop.runWhile([&] { return passes < last; });
  }
  EventLoop::Callback note(const std::string& name, bool work = false) {
    return [this, name, work] { return seen += name + std::to_string(passes), work; };
  }
  std::vector<std::string> lines() const { return splitLines(out.str()); }

  std::ostringstream out;
  Log root{out};
  EventLoop loop{root};
  char keys[8] = {};
  int passes = 0;
  std::string seen;
};

TEST(EventLoopWaitTimeout, CutsToWholeMillisecondsButNeverToZero) {
  EXPECT_EQ(EventLoop::waitTimeoutMs(false, 0), 86'400'000);
  EXPECT_EQ(EventLoop::waitTimeoutMs(true, 0), 0);
  EXPECT_EQ(EventLoop::waitTimeoutMs(true, 1), 1);
  EXPECT_EQ(EventLoop::waitTimeoutMs(true, 1'900'000), 1);
  EXPECT_EQ(EventLoop::waitTimeoutMs(true, 86'400'000 * MS), 86'400'000);
}

using EventLoopTimers = EventLoopTest;

TEST_F(EventLoopTimers, DueInKeyOrderIntervalsFirstTimeoutsOnceAndCoalesced) {
  loop.addTimeoutAt(0, &keys[2], note("t"));
  loop.addTimeoutAt(0, &keys[1], note("s"));
  loop.addTimeout(0, &keys[1], note("x"));  // pending key: the first request stands
  loop.addTimeout(HOUR, &keys[5], note("y"));
  loop.addTimeout(0, &keys[5], note("z"));
  // A new interval is due on the next pass, however long its period.
  loop.addInterval(HOUR, &keys[4], note("j"));
  loop.addInterval(HOUR, &keys[3], note("i"));
  runPasses(3);
  EXPECT_EQ(seen, "i1j1s1t1");
  loop.removeInterval(&keys[3]);
  loop.removeInterval(&keys[4]);

  // The key is free again inside its own callback.
  int calls = 0;
  std::function<bool()> again = [&] {
    if (++calls < 3) loop.addTimeout(0, &keys[1], again);
    return true;
  };
  loop.addTimeout(0, &keys[1], again);
  int anonymous = 0;  // intervals without a key get one each
  loop.addInterval(HOUR, [&] { return ++anonymous == 0; });
  loop.addInterval(HOUR, [&] { return ++anonymous == 0; });
  runPasses(5);
  EXPECT_EQ(anonymous, 2);
  EXPECT_EQ(calls, 3);
}

TEST_F(EventLoopTimers, LateIntervalDriftsInsteadOfCatchingUp) {
  std::vector<uint64_t> starts;
  loop.addInterval(10 * MS, &keys[1], [&] {
    starts.push_back(wallClockNanos());
    while (starts.size() == 1 && wallClockNanos() - starts[0] < 35 * MS) {
      // Work that overruns the period more than three times.
    }
    return true;
  });
  ASSERT_TRUE(runUntil(loop, [&] { return starts.size() == 3; }));
  // Catching up would fire the missed periods back to back after the overrun.
  EXPECT_GE(starts[2] - starts[1], 5 * MS);
}

using EventLoopIdle = EventLoopTest;

TEST_F(EventLoopIdle, RunOnPassesWithoutWorkFirstLevelFirst) {
  Pipe pipe;
  Recorder reader;
  reader.onEvent = [&] {
    char byte;
    EXPECT_EQ(read(pipe.fds[0], &byte, 1), 1);
    seen += 'L' + std::to_string(passes);
  };
  loop.setEpollListener(pipe.fds[0], EPOLLIN, &reader);
  ASSERT_EQ(write(pipe.fds[1], "x", 1), 1);
  int busy = 0;
  loop.addInterval(0, &keys[5], [&] { return ++busy == 2; });  // work on the second pass only
  loop.addIdleCallback(&keys[1], 2, note("a"));
  loop.addIdleCallback(&keys[2], 1, note("b", true));
  loop.addIdleCallback(&keys[2], 1, note("x"));  // pending key: ignored
  loop.addIdleCallback(&keys[3], 1, note("c"));
  loop.addIdleCallback(&keys[4], 0, note("d"));  // any level but 1 is the second
  runPasses(5);
  loop.removeEpollListener(&reader);
  // A descriptor fired on the first pass, a timer did work on the second, and on the third the
  // callback's work ended the idle phase.
  EXPECT_EQ(seen, "L0b3c4a4d4");
}

TEST_F(EventLoopIdle, SpinHandlerOnEveryEleventhPassWithoutWait) {
  std::vector<int> spins;
  std::function<bool()> again = [&] {
    seen += "i";
    loop.addIdleCallback(&keys[1], 1, again);
    return false;
  };
  loop.addIdleCallback(&keys[1], 1, again);
  loop.setSpinHandler([&] { spins.push_back(passes); });
  runPasses(33);
  EXPECT_THAT(spins, ElementsAre(11, 22, 33));
  // The spinning pass hands over to epoll without running deferred work.
  EXPECT_EQ(seen, std::string(30, 'i'));
}

// Nothing is due but a timeout: a deferred callback of either level still runs at once, and a
// signal that interrupts the wait after it is no error. A loop that closes cleanly says nothing.
TEST_F(EventLoopIdle, DeferredWorkCutsTheWaitShortAndSignalsAreNoError) {
  loop.removeInterval(&keys[0]);
  struct sigaction action {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
  const uint64_t start = wallClockNanos();
  uint64_t idleAfter = 0;
  loop.addTimeout(100 * MS, &keys[1], note("t"));
  loop.addIdleCallback(&keys[2], 2, [&] { return idleAfter = wallClockNanos() - start, false; });
  ualarm(10'000, 0);
  loop.runWhile([&] { return seen.empty(); });
  EXPECT_LT(idleAfter, 50 * MS);  // not after the timeout's wait
  { EventLoop other(root); }
  EXPECT_THAT(lines(), IsEmpty());
}

using EventLoopListeners = EventLoopTest;

// Both descriptors are ready in one wake-up; whichever epoll reports first removes the other and
// registers it again. The second event of that array is stale and skipped; the next wake-up
// reports the descriptor anew. A failed registration is only logged.
TEST_F(EventLoopListeners, ListenerRemovedDuringWakeUpGetsNoFurtherCallAndFailedAddIsLogged) {
  Pipe pipes[2];
  Recorder listeners[2];
  for (int i = 0; i < 2; ++i) {
    listeners[i].onEvent = [&, i] {
      seen += "AB"[i] + std::to_string(passes);
      loop.removeEpollListener(&listeners[i]);
      if (seen.size() == 2) {
        loop.removeEpollListener(&listeners[1 - i]);
        loop.setEpollListener(pipes[1 - i].fds[0], EPOLLIN, &listeners[1 - i]);
      }
    };
    loop.setEpollListener(pipes[i].fds[0], 0, &listeners[i]);
    loop.setEpollListener(pipes[i].fds[0], EPOLLIN, &listeners[i]);  // a change, quietly
    ASSERT_EQ(write(pipes[i].fds[1], "x", 1), 1);
  }
  runPasses(3);
  EXPECT_TRUE(seen == "A0B1" || seen == "B0A1") << seen;

  loop.setEpollListener(-1, EPOLLIN, &listeners[0]);
  EXPECT_THAT(lines(), ElementsAre(errorLine("Could not add epoll listener: Bad file descriptor")));
}

class InotifyWatches : public EventLoopTest {
 protected:
  InotifyWatches() { writeFile(path, ""); }
  TempDir dir;
  std::string path = dir.file("watched");
  Recorder watcher, never;
  const std::string unknown = errorLine("Received inotify event for unknown watcher.");
  const std::string unregistered = errorLine("Attempt to remove unregistered inotify watcher.");
};

// One watcher takes all of its events in kernel order; another removes itself on its first and
// gets no more of the buffer: its two records left in it, then the kernel's IN_IGNORED for the
// removed watch, are unknown to the loop.
TEST_F(InotifyWatches, EventsArriveOnceEachInKernelOrderUntilTheWatchIsRemoved) {
  Recorder quitter;
  const std::string other = dir.file("other");
  writeFile(other, "");
  loop.addInotifyWatch(other, IN_OPEN | IN_MODIFY | IN_CLOSE_WRITE, &quitter);
  quitter.onEvent = [&] { loop.removeInotifyWatch(&quitter); };
  appendFile(other, "line\n");
  loop.addInotifyWatch(path, IN_OPEN | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB, &watcher);
  appendFile(path, "line\n");
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  ASSERT_TRUE(runUntil(loop, [&] { return watcher.masks.size() >= 4 && lines().size() >= 3; }));
  runPasses(2);
  EXPECT_THAT(quitter.masks, ElementsAre(IN_OPEN));
  EXPECT_THAT(watcher.masks, ElementsAre(IN_OPEN, IN_MODIFY, IN_CLOSE_WRITE, IN_ATTRIB));
  // Every removal leaves the kernel's IN_IGNORED record behind, for a watch the loop forgot.
  loop.removeInotifyWatch(&watcher);
  loop.removeInotifyWatch(&watcher);
  loop.removeInotifyWatch(&never);
  loop.addInotifyWatch(dir.file("missing"), IN_MODIFY, &never);
  loop.removeInotifyWatch(&never);
  ASSERT_TRUE(runUntil(loop, [&] { return lines().size() >= 8; }));
  EXPECT_THAT(
      lines(),
      ElementsAre(unknown, unknown, unknown, unregistered, unregistered,
                  errorLine("Could not register inotify watcher: No such file or directory"),
                  unregistered, unknown));
}

// The loop ignores SIGCHLD for the whole process, which makes the kernel reap children at once;
// a death test has to wait for its child, so it takes the default back.
class EventLoopDeathTest : public InotifyWatches {
 protected:
  EventLoopDeathTest() {
    signal(SIGCHLD, SIG_DFL);
    out.std::ostream::rdbuf(std::cerr.rdbuf());  // a dying child's lines must reach stderr
  }
  // The newest descriptor of a kind ("inotify", "[eventpoll]"): the one of this loop.
  static int newest(const std::string& kind) {
    int found = -1;
    char target[32];
    for (int fd = 3; fd < 1024; ++fd) {
      const ssize_t n = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, 32);
      if (n > 0 && std::string(target, n) == "anon_inode:" + kind) found = fd;
    }
    return found;
  }
  // Feeds `bytes` to the loop as if the kernel had queued them: in the forked child, a pipe takes
  // the place of the inotify descriptor.
  void feedInotifyBytes(const std::string& bytes) {
    int fds[2];
    if (pipe(fds) != 0 || dup2(fds[0], newest("inotify")) == -1) abort();
    if (write(fds[1], bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) abort();
    loop.handleInotifyEvents();
  }
};

// Listener misuse, a failing wait, malformed inotify records and a watch the kernel dropped.
TEST_F(EventLoopDeathTest, ProgramErrorsAndFailedSystemCallsStopTheProcess) {
  Pipe pipe;
  Recorder listener;
  EXPECT_DEATH(loop.removeEpollListener(&listener), "existing != epollListenersReverse.end\\(\\)");
  loop.setEpollListener(pipe.fds[0], EPOLLIN, &listener);
  EXPECT_DEATH(loop.setEpollListener(pipe.fds[1], EPOLLOUT, &listener), "existing->second == fd");
  loop.removeEpollListener(&listener);
  EXPECT_DEATH((close(newest("[eventpoll]")), runPasses(1)),
               "Epoll call failed: Bad file descriptor");

  EXPECT_DEATH(feedInotifyBytes("abc"), "ret % alignof\\(inotify_event\\) == 0");
  const inotify_event header{.wd = 12345, .mask = 0, .cookie = 0, .len = 3};
  const std::string record(reinterpret_cast<const char*>(&header), sizeof header);
  EXPECT_DEATH(feedInotifyBytes(record + std::string(4, '\0')),
               "\\(sizeof\\(inotify_event\\) \\+ event->len\\) % alignof\\(inotify_event\\) == 0");
  // A deleted file's watch is gone in the kernel but stays in the loop's maps; its last records
  // reach the watcher as they are, and removing it afterwards is fatal.
  loop.addInotifyWatch(path, IN_DELETE_SELF, &watcher);
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_TRUE(runUntil(loop, [&] { return watcher.masks.size() >= 2; }));
  EXPECT_THAT(watcher.masks, ElementsAre(IN_DELETE_SELF, IN_IGNORED));
  EXPECT_DEATH(loop.removeInotifyWatch(&watcher),
               "Failed to remove inotify watch: Invalid argument");
}

}  // namespace
