#include "loop/event_loop.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

namespace {

constexpr uint64_t ONE_DAY_NS = 86'400'000'000'000ull;
constexpr int ONE_DAY_MS = 86'400'000;
constexpr uint64_t NS_PER_MS = 1'000'000;
constexpr int MAX_EVENTS = 1024;
constexpr size_t INOTIFY_BUFFER_SIZE = 16384;
// A pass whose wait or sleep was at most this many ns counts as one that did not wait at all.
constexpr uint64_t SPIN_THRESHOLD_NS = 4;
constexpr uint32_t SPIN_PASSES = 10;
constexpr uint64_t METRICS_PERIOD_NS = 15'000'000'000ull;

}  // namespace

uint64_t wallClockNanos() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count());
}

EventLoop::EventLoop(const Log& parent)
    : log(parent.with("component", "EventLoop")), metricsStart(wallClockNanos()) {
  if (signal(SIGHUP, SIG_IGN) == SIG_ERR) {
    const int savedErrno = errno;
    error(log) << "Could not ignore hang up signal: " << strerror(savedErrno) << std::endl;
    assert(false);
  }
  // SIGPIPE shares the hang-up wording: there has never been a message of its own for it.
  if (signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
    const int savedErrno = errno;
    error(log) << "Could not ignore hang up signal: " << strerror(savedErrno) << std::endl;
    assert(false);
  }
  if (signal(SIGCHLD, SIG_IGN) == SIG_ERR) {
    const int savedErrno = errno;
    error(log) << "Could not ignore child signal: " << strerror(savedErrno) << std::endl;
    assert(false);
  }
  epollDescriptor = epoll_create1(EPOLL_CLOEXEC);
  if (epollDescriptor == -1) {
    const int savedErrno = errno;
    error(log) << "Cannot create epoll descriptor for event loop: " << strerror(savedErrno)
               << std::endl;
    assert(false);
  }
  inotifyDescriptor = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (inotifyDescriptor == -1) {
    const int savedErrno = errno;
    error(log) << "Cannot create inotify descriptor for event loop: " << strerror(savedErrno)
               << std::endl;
    assert(false);
  }
  // The loop itself stands for the inotify descriptor, so dispatch can tell it from listeners.
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = this;
  if (epoll_ctl(epollDescriptor, EPOLL_CTL_ADD, inotifyDescriptor, &event) == -1) {
    const int savedErrno = errno;
    error(log) << "Cannot add inotify to epoll event set: " << strerror(savedErrno) << std::endl;
    assert(false);
  }
}

EventLoop::~EventLoop() {
  if (close(epollDescriptor) == -1) {
    const int savedErrno = errno;
    error(log) << "Cannot close epoll descriptor: " << strerror(savedErrno) << std::endl;
  }
  if (close(inotifyDescriptor) == -1) {
    const int savedErrno = errno;
    error(log) << "Cannot close inotify descriptor: " << strerror(savedErrno) << std::endl;
  }
}

int EventLoop::waitTimeoutMs(bool anyTimer, uint64_t wait) {
  if (!anyTimer) return ONE_DAY_MS;
  const uint64_t millis = wait / NS_PER_MS;
  // Never round a pending wait down to a busy poll: sleep at least a millisecond.
  if (wait != 0 && millis == 0) return 1;
  return static_cast<int>(millis);
}

void EventLoop::runWhile(const std::function<bool()>& condition) {
  uint32_t spinCount = 0;
  while (condition()) {
    bool idle = true;
    const uint64_t t0 = wallClockNanos();

    uint64_t wait = 0;
    int timeout = 0;
    if (idleCallbacksFirst.empty() && idleCallbacksSecond.empty()) {
      wait = ONE_DAY_NS;
      for (const TimerMap* timers : {&intervals, &timeouts}) {
        for (const auto& [key, entry] : *timers) {
          wait = entry.next < t0 ? 0 : std::min(wait, entry.next - t0);
        }
      }
      timeout = waitTimeoutMs(!intervals.empty() || !timeouts.empty(), wait);
    }

    epoll_event events[MAX_EVENTS];
    const int count = epoll_wait(epollDescriptor, events, MAX_EVENTS, timeout);
    if (count == -1) {
      const int savedErrno = errno;
      if (savedErrno == EAGAIN || savedErrno == EINTR) continue;
      error(log) << "Epoll call failed: " << strerror(savedErrno) << std::endl;
      assert(false);
    }

    const uint64_t t1 = wallClockNanos();
    removedListeners.clear();
    for (int i = 0; i < count; ++i) {
      void* target = events[i].data.ptr;
      if (target == this) {
        handleInotifyEvents();
        continue;
      }
      auto* listener = static_cast<EpollListener*>(target);
      // An earlier handler of this wake-up may have removed it; its event is stale.
      if (removedListeners.count(listener)) continue;
      listener->descriptorAvailable(static_cast<int>(events[i].events));
    }
    if (count > 0) idle = false;

    const uint64_t now = wallClockNanos();
    if (runDueTimers(intervals, now, false)) idle = false;
    if (runDueTimers(timeouts, now, true)) idle = false;

    const uint64_t t2 = wallClockNanos();
    idleTime += t1 - t0;
    longestProcessing = std::max(longestProcessing, t2 - t1);

    if (t1 - t0 <= SPIN_THRESHOLD_NS || wait <= SPIN_THRESHOLD_NS) ++spinCount;
    if (spinCount > SPIN_PASSES) {
      if (spinHandler) spinHandler();
      spinCount = 0;
      // Give epoll a pass of its own now and then, however much deferred work is queued.
      idle = false;
    }

    if (t2 - metricsStart > METRICS_PERIOD_NS) {
      info(log.with("idle_promille", idleTime * 1000 / (t2 - metricsStart))
               .with("longest_processing", longestProcessing))
          << "metrics" << std::endl;
      metricsStart = t2;
      idleTime = 0;
      longestProcessing = 0;
    }

    if (idle && !runIdleCallbacks(idleCallbacksFirst)) runIdleCallbacks(idleCallbacksSecond);
  }
}

bool EventLoop::runDueTimers(TimerMap& timers, uint64_t now, bool oneShot) {
  // Callbacks run from a copy: they may add or remove timers of this very map, and a timer removed
  // by an earlier callback of the batch still fires in it.
  std::vector<std::pair<void*, TimerEntry>> due;
  for (auto& [key, entry] : timers) {
    if (entry.next > now) continue;
    due.emplace_back(key, entry);
    // Relative to now, not to the old due time: a late interval drifts instead of catching up.
    if (!oneShot) entry.next = entry.interval + now;
  }
  if (due.empty()) return false;
  // Erased before any callback runs, so a callback may schedule its own key again.
  if (oneShot) {
    for (const auto& [key, entry] : due) timers.erase(key);
  }
  bool didWork = false;
  for (auto& [key, entry] : due) {
    if (entry.callback()) didWork = true;
  }
  return didWork;
}

bool EventLoop::runIdleCallbacks(TimerMap& callbacks) {
  // A callback that schedules itself again waits for the next pass; running it again at once would
  // keep this pass from ever returning to epoll.
  std::vector<void*> ran;
  while (true) {
    auto next = std::find_if(callbacks.begin(), callbacks.end(), [&](const auto& entry) {
      return std::find(ran.begin(), ran.end(), entry.first) == ran.end();
    });
    if (next == callbacks.end()) return false;
    ran.push_back(next->first);
    Callback callback = std::move(next->second.callback);
    callbacks.erase(next);
    if (callback()) return true;
  }
}

void EventLoop::setEpollListener(int fd, uint32_t events, EpollListener* listener) {
  epoll_event event{};
  event.events = events;
  event.data.ptr = listener;
  auto existing = epollListenersReverse.find(listener);
  if (existing != epollListenersReverse.end()) {
    assert(existing->second == fd);
    if (epoll_ctl(epollDescriptor, EPOLL_CTL_MOD, fd, &event) == -1) {
      const int savedErrno = errno;
      error(log) << "Could not modify epoll listener: " << strerror(savedErrno) << std::endl;
    }
    return;
  }
  if (epoll_ctl(epollDescriptor, EPOLL_CTL_ADD, fd, &event) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not add epoll listener: " << strerror(savedErrno) << std::endl;
    return;
  }
  epollListenersReverse.emplace(listener, fd);
}

void EventLoop::removeEpollListener(EpollListener* listener) {
  auto existing = epollListenersReverse.find(listener);
  assert(existing != epollListenersReverse.end());
  if (epoll_ctl(epollDescriptor, EPOLL_CTL_DEL, existing->second, nullptr) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not delete epoll listener: " << strerror(savedErrno) << std::endl;
    return;
  }
  epollListenersReverse.erase(existing);
  removedListeners.insert(listener);
}

void EventLoop::addInterval(uint64_t interval, void* key, Callback callback) {
  intervals.insert_or_assign(key, TimerEntry{interval, 0, std::move(callback)});
}

void EventLoop::addInterval(uint64_t interval, Callback callback) {
  anonymousTimerKeys.push_back(std::make_unique<char>());
  addInterval(interval, anonymousTimerKeys.back().get(), std::move(callback));
}

void EventLoop::removeInterval(void* key) { intervals.erase(key); }

void EventLoop::addTimeout(uint64_t delay, void* key, Callback callback) {
  addTimeoutAt(wallClockNanos() + delay, key, std::move(callback));
}

void EventLoop::addTimeoutAt(uint64_t time, void* key, Callback callback) {
  // A pending timeout keeps its callback and due time: repeated requests coalesce.
  timeouts.try_emplace(key, TimerEntry{NEVER, time, std::move(callback)});
}

void EventLoop::addIdleCallback(void* key, int level, Callback callback) {
  TimerMap& callbacks = level == 1 ? idleCallbacksFirst : idleCallbacksSecond;
  callbacks.try_emplace(key, TimerEntry{NEVER, 0, std::move(callback)});
}

void EventLoop::setSpinHandler(std::function<void()> handler) { spinHandler = std::move(handler); }

void EventLoop::addInotifyWatch(const std::string& path, uint32_t mask, InotifyWatcher* watcher) {
  const int descriptor = inotify_add_watch(inotifyDescriptor, path.c_str(), mask);
  if (descriptor == -1) {
    const int savedErrno = errno;
    error(log) << "Could not register inotify watcher: " << strerror(savedErrno) << std::endl;
    return;
  }
  // A watcher that already had a watch leaves the old one behind; callers remove first.
  inotifyDescriptors[watcher] = descriptor;
  inotifyWatchers[descriptor] = watcher;
}

void EventLoop::removeInotifyWatch(InotifyWatcher* watcher) {
  auto existing = inotifyDescriptors.find(watcher);
  if (existing == inotifyDescriptors.end()) {
    error(log) << "Attempt to remove unregistered inotify watcher." << std::endl;
    return;
  }
  const int descriptor = existing->second;
  if (inotify_rm_watch(inotifyDescriptor, descriptor) == -1) {
    const int savedErrno = errno;
    error(log) << "Failed to remove inotify watch: " << strerror(savedErrno) << std::endl;
    assert(false);
  }
  inotifyDescriptors.erase(existing);
  inotifyWatchers.erase(descriptor);
}

void EventLoop::handleInotifyEvents() {
  // One read per wake-up: interest is level-triggered, so a larger backlog wakes us again.
  alignas(inotify_event) char buffer[INOTIFY_BUFFER_SIZE];
  const ssize_t ret = read(inotifyDescriptor, buffer, sizeof buffer);
  if (ret == -1) {
    const int savedErrno = errno;
    error(log) << "Could not read inotify events: " << strerror(savedErrno) << std::endl;
    return;
  }
  assert(ret % alignof(inotify_event) == 0);
  for (ssize_t offset = 0; offset < ret;) {
    const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
    // Looked up per record, so a watcher removed by an earlier record's callback is seen as gone.
    // Every removal also leaves one such line behind, for the IN_IGNORED record the kernel
    // queues; that line is expected.
    auto watcher = inotifyWatchers.find(event->wd);
    if (watcher != inotifyWatchers.end()) {
      watcher->second->inotifyEvent(event->mask);
    } else {
      error(log) << "Received inotify event for unknown watcher." << std::endl;
    }
    assert((sizeof(inotify_event) + event->len) % alignof(inotify_event) == 0);
    offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
  }
}
