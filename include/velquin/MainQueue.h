// The main queue: one thread on which store callbacks, page work, alerts and
// timers run, in the order they were posted.
//
// Ownership and threads: a process-wide object reached through shared(); it
// runs a GLib main context on a thread of its own (headless hosts), or on the
// host's GLib main context once useHostContext() names it (GTK hosts). Every
// member may be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "velquin/Export.h"

typedef struct _GMainContext GMainContext;

namespace velquin {

class VELQUIN_EXPORT MainQueue {
 public:
  using Clock = std::chrono::steady_clock;
  using TimerId = std::uint64_t;
  // The time source timers are measured against; tests install a manual one.
  using NowFunction = std::function<Clock::time_point()>;

  static MainQueue& shared();
  // Makes shared() run on `context` (for example GTK's default context,
  // iterated by the host's main loop) instead of a thread of its own. Takes
  // effect only before the first use of shared(); returns whether shared()
  // runs on `context`.
  static bool useHostContext(GMainContext* context);

  // Starts a queue with its own thread and GLib main context.
  MainQueue();
  // Runs on a context the host iterates (for example GTK's default context).
  explicit MainQueue(GMainContext* hostContext);
  ~MainQueue();
  MainQueue(const MainQueue&) = delete;
  MainQueue& operator=(const MainQueue&) = delete;

  // Runs task on the queue, after every task posted before it.
  void async(std::function<void()> task);
  // Runs task on the queue and waits for it; runs it at once on the queue itself.
  void sync(const std::function<void()>& task);
  // One-shot and repeating timers; the returned id cancels them.
  TimerId after(std::chrono::milliseconds delay, std::function<void()> task);
  TimerId every(std::chrono::milliseconds interval, std::function<void()> task);
  void cancel(TimerId id);

  bool isCurrent() const;
  GMainContext* context() const;

  // Replaces the time source. Timers fire when the time source says they are
  // due; after moving a manual clock forward call fireDueTimers().
  void setNowFunction(NowFunction now);
  void fireDueTimers();

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace velquin
