// A serial work queue on one std::thread: blocks run one at a time, in the
// order they were submitted.
//
// Ownership and threads: the owner keeps the queue alive for as long as work
// may be submitted; the destructor runs what is still queued, then joins the
// thread. A queue may also be destroyed from one of its own blocks (its
// owner's last reference dropped there): the worker then owns the queue's
// shared state, finishes that block and whatever is still queued without
// touching the destroyed object, and ends by itself. async(), sync() and
// isCurrent() may be called from any thread.
// sync() waits until every block submitted before it has run and the queue
// is idle, then runs the block on the calling thread (as a serial dispatch
// queue does), which keeps a synchronous hop as cheap as a mutex round trip.
// Either way no two blocks of one queue ever overlap, and isCurrent() is true
// inside every block. sync() from inside a block of the same queue runs the
// block inline instead of deadlocking. An exception escaping a block is
// caught and logged with support::warn.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace velquin::support {

class SerialQueue {
 public:
  explicit SerialQueue(std::string label);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  // Queues `block` and returns at once.
  void async(std::function<void()> block);
  // Runs `block` on behalf of the queue and returns when it has finished.
  void sync(const std::function<void()>& block);
  // True while the calling thread runs a block of this queue.
  bool isCurrent() const;

  const std::string& label() const { return state_->label; }

 private:
  // Everything the worker touches. Shared by the queue object and its
  // worker, so a queue destroyed from its own block leaves the worker a
  // live state to finish with.
  struct State {
    explicit State(std::string name) : label(std::move(name)) {}
    const std::string label;
    std::mutex mutex;
    std::condition_variable wake;                 // signalled on mutex state changes
    std::deque<std::function<void()>> pending;    // guarded by mutex
    bool busy = false;                            // guarded by mutex: a block is running
    bool stopping = false;                        // guarded by mutex
    int syncWaiters = 0;                          // guarded by mutex: sync() calls waiting
  };

  static void run(std::shared_ptr<State> state);
  static void invoke(const State& state, const std::function<void()>& block);

  const std::shared_ptr<State> state_;  // immutable pointer; see State
  std::thread thread_;                  // set once by the constructor
};

}  // namespace velquin::support
