#include "support/SerialQueue.h"

#include <exception>

#include "support/Console.h"

namespace velquin::support {
namespace {

// The queues whose blocks the current thread is running, innermost first.
// A thread runs blocks of several queues at once when a block of one calls
// sync() on another. A queue is known by its shared state.
struct Frame {
  const void* queue;
  const Frame* outer;
};
thread_local const Frame* currentFrames = nullptr;

class FrameScope {
 public:
  explicit FrameScope(const void* queue) : frame_{queue, currentFrames} {
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
    : state_(std::make_shared<State>(std::move(label))), thread_(&SerialQueue::run, state_) {}

SerialQueue::~SerialQueue() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
  }
  state_->wake.notify_all();
  if (thread_.get_id() == std::this_thread::get_id()) {
    // Destroyed from its own block: the worker holds the state and ends by
    // itself once the queue is drained.
    thread_.detach();
  } else if (thread_.joinable()) {
    thread_.join();
  }
}

void SerialQueue::async(std::function<void()> block) {
  if (!block) return;
  {
    std::lock_guard lock(state_->mutex);
    state_->pending.push_back(std::move(block));
  }
  state_->wake.notify_all();
}

void SerialQueue::sync(const std::function<void()>& block) {
  if (!block) return;
  if (isCurrent()) {
    invoke(*state_, block);
    return;
  }
  // Wait until the queue has run everything submitted before and is idle,
  // then borrow it and run on this thread: one wake-up instead of a
  // hand-over to the queue thread and back.
  State& state = *state_;
  std::unique_lock lock(state.mutex);
  ++state.syncWaiters;
  state.wake.wait(lock, [&state] { return !state.busy && state.pending.empty(); });
  --state.syncWaiters;
  state.busy = true;
  lock.unlock();
  invoke(state, block);
  lock.lock();
  state.busy = false;
  // Only a thread that waits needs the signal: waking the idle worker for
  // nothing costs the next caller a context switch on a busy machine.
  const bool wake = state.syncWaiters > 0 || !state.pending.empty() || state.stopping;
  lock.unlock();
  if (wake) state.wake.notify_all();
}

bool SerialQueue::isCurrent() const {
  for (const Frame* frame = currentFrames; frame; frame = frame->outer) {
    if (frame->queue == state_.get()) return true;
  }
  return false;
}

void SerialQueue::invoke(const State& state, const std::function<void()>& block) {
  FrameScope scope(&state);
  try {
    block();
  } catch (const std::exception& error) {
    warn("queue " + state.label + ": a block failed: " + error.what());
  } catch (...) {
    warn("queue " + state.label + ": a block failed with an unknown exception");
  }
}

void SerialQueue::run(std::shared_ptr<State> state) {
  std::unique_lock lock(state->mutex);
  for (;;) {
    state->wake.wait(lock, [&state] {
      return (!state->busy && !state->pending.empty()) || (state->stopping && !state->busy);
    });
    if (state->pending.empty()) return;  // stopping and drained
    std::function<void()> block = std::move(state->pending.front());
    state->pending.pop_front();
    state->busy = true;
    lock.unlock();
    invoke(*state, block);
    // The block's captures go before the lock is taken again: destroying
    // them may destroy the queue's owner, and with it the queue object,
    // which must not wait on this thread.
    block = nullptr;
    lock.lock();
    state->busy = false;
    // The worker itself takes the next pending block; only sync() callers
    // waiting for the queue to be idle need a signal.
    if (state->syncWaiters > 0) state->wake.notify_all();
  }
}

}  // namespace velquin::support
