// The reactor of the main thread: epoll descriptors, inotify watches, interval timers, one-shot
// timeouts and deferred (idle) callbacks. Public header; sources, net and app include it.
//
// Everything here runs on the thread that calls runWhile(), callbacks included. The loop owns its
// callbacks and nothing else: listeners and watchers register, stay alive while registered, and
// deregister before they die. Timer keys are opaque addresses chosen by the owner; an owner removes
// every key it used before the address can be handed out again.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "support/log.h"

/// Receives the epoll events of one descriptor. `events` is the raw epoll mask.
class EpollListener {
 public:
  virtual void descriptorAvailable(int events) = 0;
};

/// Receives the inotify events of one watch, with the kernel's mask as it stands.
class InotifyWatcher {
 public:
  virtual void inotifyEvent(uint32_t mask) = 0;
};

class EventLoop {
 public:
  /// A loop callback returns true if it did work; that feeds the idle decision of a pass.
  using Callback = std::function<bool()>;

  static constexpr uint64_t NEVER = ~0ull;

  explicit EventLoop(const Log& log);
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  /// Runs passes until `condition` returns false. May be called again after it returned.
  void runWhile(const std::function<bool()>& condition);

  /// Registers `listener` for `fd`, or changes its interest (level-triggered).
  void setEpollListener(int fd, uint32_t events, EpollListener* listener);
  /// Deregisters a registered listener; it gets no further call in the current wake-up.
  void removeEpollListener(EpollListener* listener);

  /// Inserts or replaces the repeating timer under `key`; it fires on the next pass.
  void addInterval(uint64_t interval, void* key, Callback callback);
  /// A repeating timer that can never be removed.
  void addInterval(uint64_t interval, Callback callback);
  void removeInterval(void* key);
  /// One-shot timer `delay` ns from now. A pending timeout under `key` is left as it is.
  void addTimeout(uint64_t delay, void* key, Callback callback);
  void addTimeoutAt(uint64_t time, void* key, Callback callback);
  /// Deferred callback (level 1 runs before any other level), run only on passes that did no work.
  void addIdleCallback(void* key, int level, Callback callback);
  /// Called when passes keep being given a zero wait.
  void setSpinHandler(std::function<void()> handler);

  void addInotifyWatch(const std::string& path, uint32_t mask, InotifyWatcher* watcher);
  void removeInotifyWatch(InotifyWatcher* watcher);
  /// Reads and dispatches queued inotify records; for runWhile only.
  void handleInotifyEvents();

  /// The epoll_wait time-out in ms for a pass whose nearest timer is `wait` ns away.
  static int waitTimeoutMs(bool anyTimer, uint64_t wait);

 private:
  struct TimerEntry {
    uint64_t interval;
    uint64_t next;
    Callback callback;
  };
  using TimerMap = std::map<void*, TimerEntry, std::less<>>;

  /// Copies the entries of `timers` due at `now`, reschedules (intervals) or erases (one-shot)
  /// them, then calls the copies in key order. Returns whether any callback did work.
  static bool runDueTimers(TimerMap& timers, uint64_t now, bool oneShot);
  /// Takes and calls the deferred callbacks of one level, lowest key first, until one did work
  /// (returns true) or none is left that hasn't run in this call.
  static bool runIdleCallbacks(TimerMap& callbacks);

  Log log;
  int epollDescriptor = -1;
  int inotifyDescriptor = -1;
  uint64_t idleTime = 0;
  uint64_t longestProcessing = 0;
  uint64_t metricsStart = 0;
  std::vector<std::unique_ptr<char>> anonymousTimerKeys;
  TimerMap intervals;
  TimerMap timeouts;
  TimerMap idleCallbacksFirst;
  TimerMap idleCallbacksSecond;
  std::function<void()> spinHandler;
  std::map<int, InotifyWatcher*> inotifyWatchers;
  std::map<InotifyWatcher*, int> inotifyDescriptors;
  std::map<EpollListener*, int> epollListenersReverse;
  std::set<EpollListener*> removedListeners;
};

/// Wall-clock nanoseconds since the Unix epoch: the time of events and timers.
uint64_t wallClockNanos();
