#include "support/Mutex.h"
#include "velquin/MainQueue.h"

#include <glib.h>

#include <atomic>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <thread>

namespace velquin {

struct MainQueue::State : std::enable_shared_from_this<MainQueue::State> {
  struct Timer {
    Clock::time_point deadline;
    std::chrono::milliseconds interval{0};  // zero: one-shot
    std::function<void()> task;
  };

  GMainContext* context = nullptr;
  GMainLoop* loop = nullptr;  // only when the queue owns its thread
  std::thread thread;
  std::thread::id threadId;  // written before the thread starts, then read-only

  support::Mutex mutex;
  std::deque<std::function<void()>> tasks GUARDED_BY(mutex);
  bool drainScheduled GUARDED_BY(mutex) = false;
  std::map<TimerId, Timer> timers GUARDED_BY(mutex);
  TimerId nextTimer GUARDED_BY(mutex) = 1;
  NowFunction now = [] { return Clock::now(); };  // guarded by mutex
  GSource* wakeup = nullptr;                      // owned by the queue thread

  Clock::time_point currentTime() {
    support::MutexLock lock(mutex);
    return now();
  }

  void post(std::function<void()> task) {
    bool schedule = false;
    {
      support::MutexLock lock(mutex);
      tasks.push_back(std::move(task));
      schedule = !drainScheduled;
      drainScheduled = true;
    }
    if (schedule) attachIdle();
  }

  void attachIdle() {
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    auto* self = new std::shared_ptr<State>(shared_from_this());
    g_source_set_callback(
        source,
        [](gpointer data) -> gboolean {
          (*static_cast<std::shared_ptr<State>*>(data))->drain();
          return G_SOURCE_REMOVE;
        },
        self, [](gpointer data) { delete static_cast<std::shared_ptr<State>*>(data); });
    g_source_attach(source, context);
    g_source_unref(source);
  }

  // Runs every task posted so far, one at a time, in order.
  void drain() {
    for (;;) {
      std::function<void()> task;
      {
        support::MutexLock lock(mutex);
        if (tasks.empty()) {
          drainScheduled = false;
          return;
        }
        task = std::move(tasks.front());
        tasks.pop_front();
      }
      task();
    }
  }

  // On the queue: runs the timers that are due, then arms one GLib timeout
  // for the earliest one left.
  void fireDue() {
    for (;;) {
      std::function<void()> task;
      {
        support::MutexLock lock(mutex);
        auto nowValue = now();
        auto due = timers.end();
        for (auto it = timers.begin(); it != timers.end(); ++it) {
          if (it->second.deadline <= nowValue &&
              (due == timers.end() || it->second.deadline < due->second.deadline)) {
            due = it;
          }
        }
        if (due == timers.end()) break;
        task = due->second.task;
        if (due->second.interval.count() > 0) {
          due->second.deadline = nowValue + due->second.interval;
        } else {
          timers.erase(due);
        }
      }
      task();
    }
    arm();
  }

  void arm() {
    if (wakeup) {
      g_source_destroy(wakeup);
      g_source_unref(wakeup);
      wakeup = nullptr;
    }
    Clock::duration wait;
    {
      support::MutexLock lock(mutex);
      if (timers.empty()) return;
      auto earliest = timers.begin()->second.deadline;
      for (const auto& [id, timer] : timers) earliest = std::min(earliest, timer.deadline);
      wait = std::max(Clock::duration::zero(), earliest - now());
    }
    auto ms = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
    wakeup = g_timeout_source_new(static_cast<guint>(std::min<long long>(ms, G_MAXUINT)));
    auto* self = new std::weak_ptr<State>(weak_from_this());
    g_source_set_callback(
        wakeup,
        [](gpointer data) -> gboolean {
          if (auto state = static_cast<std::weak_ptr<State>*>(data)->lock()) state->fireDue();
          return G_SOURCE_REMOVE;
        },
        self, [](gpointer data) { delete static_cast<std::weak_ptr<State>*>(data); });
    g_source_attach(wakeup, context);
  }

  TimerId addTimer(std::chrono::milliseconds delay, std::chrono::milliseconds interval,
                   std::function<void()> task) {
    TimerId id;
    {
      support::MutexLock lock(mutex);
      id = nextTimer++;
      timers[id] = Timer{now() + delay, interval, std::move(task)};
    }
    post([self = shared_from_this()] { self->arm(); });
    return id;
  }

  bool isCurrent() const {
    if (loop) return std::this_thread::get_id() == threadId;
    return g_main_context_is_owner(context);
  }
};

namespace {
// The process-wide queue: made once, on first use, and never freed.
std::atomic<MainQueue*> sharedQueue{nullptr};
std::mutex sharedQueueMutex;  // guards the making of sharedQueue
}  // namespace

MainQueue& MainQueue::shared() {
  if (auto* queue = sharedQueue.load(std::memory_order_acquire)) return *queue;
  std::lock_guard lock(sharedQueueMutex);
  if (!sharedQueue.load(std::memory_order_relaxed)) {
    sharedQueue.store(new MainQueue(), std::memory_order_release);
  }
  return *sharedQueue.load(std::memory_order_relaxed);
}

bool MainQueue::useHostContext(GMainContext* context) {
  std::lock_guard lock(sharedQueueMutex);
  if (auto* queue = sharedQueue.load(std::memory_order_relaxed)) {
    return queue->context() == context;
  }
  sharedQueue.store(new MainQueue(context), std::memory_order_release);
  return true;
}

MainQueue::MainQueue() : state_(std::make_shared<State>()) {
  state_->context = g_main_context_new();
  state_->loop = g_main_loop_new(state_->context, FALSE);
  std::promise<std::thread::id> started;
  auto startedId = started.get_future();
  state_->thread = std::thread([state = state_, &started] {
    g_main_context_push_thread_default(state->context);
    started.set_value(std::this_thread::get_id());
    g_main_loop_run(state->loop);
    g_main_context_pop_thread_default(state->context);
  });
  state_->threadId = startedId.get();
}

MainQueue::MainQueue(GMainContext* hostContext) : state_(std::make_shared<State>()) {
  state_->context = g_main_context_ref(hostContext);
}

MainQueue::~MainQueue() {
  if (state_->loop) {
    auto* loop = state_->loop;
    state_->post([loop] { g_main_loop_quit(loop); });
    state_->thread.join();
    if (state_->wakeup) {
      g_source_destroy(state_->wakeup);
      g_source_unref(state_->wakeup);
    }
    g_main_loop_unref(state_->loop);
  }
  g_main_context_unref(state_->context);
}

void MainQueue::async(std::function<void()> task) {
  state_->post(std::move(task));
}

void MainQueue::sync(const std::function<void()>& task) {
  if (isCurrent()) {
    task();
    return;
  }
  std::promise<void> done;
  state_->post([&] {
    task();
    done.set_value();
  });
  done.get_future().wait();
}

MainQueue::TimerId MainQueue::after(std::chrono::milliseconds delay, std::function<void()> task) {
  return state_->addTimer(delay, std::chrono::milliseconds(0), std::move(task));
}

MainQueue::TimerId MainQueue::every(std::chrono::milliseconds interval,
                                    std::function<void()> task) {
  if (interval.count() <= 0) interval = std::chrono::milliseconds(1);
  return state_->addTimer(interval, interval, std::move(task));
}

void MainQueue::cancel(TimerId id) {
  support::MutexLock lock(state_->mutex);
  state_->timers.erase(id);
}

bool MainQueue::isCurrent() const {
  return state_->isCurrent();
}

GMainContext* MainQueue::context() const {
  return state_->context;
}

void MainQueue::setNowFunction(NowFunction now) {
  {
    support::MutexLock lock(state_->mutex);
    state_->now = now ? std::move(now) : NowFunction([] { return Clock::now(); });
  }
  fireDueTimers();
}

void MainQueue::fireDueTimers() {
  state_->post([state = state_] { state->fireDue(); });
}

}  // namespace velquin
