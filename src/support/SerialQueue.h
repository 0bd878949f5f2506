// A serial work queue on one std::thread: blocks run one at a time, in the
// order they were submitted.
//
// Ownership and threads: the owner keeps the queue alive for as long as work
// may be submitted; the destructor runs what is still queued, then joins the
// thread. async(), sync() and isCurrent() may be called from any thread.
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

  const std::string& label() const { return label_; }

 private:
  void run();
  void invoke(const std::function<void()>& block) const;

  const std::string label_;
  std::mutex mutex_;
  std::condition_variable wake_;                 // signalled on mutex_ state changes
  std::deque<std::function<void()>> pending_;    // guarded by mutex_
  bool busy_ = false;                            // guarded by mutex_: a block is running
  bool stopping_ = false;                        // guarded by mutex_
  std::thread thread_;                           // set once by the constructor
};

}  // namespace velquin::support
