#include "support/SerialQueue.h"

#include <exception>

#include "support/Console.h"

namespace velquin::support {
namespace {

// The queues whose blocks the current thread is running, innermost first.
// A thread runs blocks of several queues at once when a block of one calls
// sync() on another.
struct Frame {
  const SerialQueue* queue;
  const Frame* outer;
};
thread_local const Frame* currentFrames = nullptr;

class FrameScope {
 public:
  explicit FrameScope(const SerialQueue* queue) : frame_{queue, currentFrames} {
    currentFrames = &frame_;
  }
  ~FrameScope() { currentFrames = frame_.outer; }
  FrameScope(const FrameScope&) = delete;
  FrameScope& operator=(const FrameScope&) = delete;

 private:
  Frame frame_;
};

}  // namespace

SerialQueue::SerialQueue(std::string label)
    : label_(std::move(label)), thread_([this] { run(); }) {}

SerialQueue::~SerialQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();  // destroyed from its own block: the loop ends by itself
  } else if (thread_.joinable()) {
    thread_.join();
  }
}

void SerialQueue::async(std::function<void()> block) {
  if (!block) return;
  {
    std::lock_guard lock(mutex_);
    pending_.push_back(std::move(block));
  }
  wake_.notify_all();
}

void SerialQueue::sync(const std::function<void()>& block) {
  if (!block) return;
  if (isCurrent()) {
    invoke(block);
    return;
  }
  // Wait until the queue has run everything submitted before and is idle,
  // then borrow it and run on this thread: one wake-up instead of a
  // hand-over to the queue thread and back.
  std::unique_lock lock(mutex_);
  wake_.wait(lock, [this] { return !busy_ && pending_.empty(); });
  busy_ = true;
  lock.unlock();
  invoke(block);
  lock.lock();
  busy_ = false;
  lock.unlock();
  wake_.notify_all();
}

bool SerialQueue::isCurrent() const {
  for (const Frame* frame = currentFrames; frame; frame = frame->outer) {
    if (frame->queue == this) return true;
  }
  return false;
}

void SerialQueue::invoke(const std::function<void()>& block) const {
  FrameScope scope(this);
  try {
    block();
  } catch (const std::exception& error) {
    warn("queue " + label_ + ": a block failed: " + error.what());
  } catch (...) {
    warn("queue " + label_ + ": a block failed with an unknown exception");
  }
}

void SerialQueue::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return (!busy_ && !pending_.empty()) || (stopping_ && !busy_); });
    if (pending_.empty()) return;  // stopping and drained
    std::function<void()> block = std::move(pending_.front());
    pending_.pop_front();
    busy_ = true;
    lock.unlock();
    invoke(block);
    lock.lock();
    busy_ = false;
    wake_.notify_all();
  }
}

}  // namespace velquin::support
