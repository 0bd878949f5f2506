// Waits in a test for a value that a completion delivers on another thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>

namespace velquin::testing {

template <class T>
class Await {
 public:
  // Records the first value; later ones count as extra reports.
  void set(T value) {
    std::lock_guard lock(mutex_);
    ++reports_;
    if (!value_) value_ = std::move(value);
    ready_.notify_all();
  }
  std::optional<T> wait(std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    std::unique_lock lock(mutex_);
    ready_.wait_for(lock, limit, [&] { return value_.has_value(); });
    return value_;
  }
  int reports() const {
    std::lock_guard lock(mutex_);
    return reports_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable ready_;
  std::optional<T> value_;  // guarded by mutex_
  int reports_ = 0;         // guarded by mutex_
};

}  // namespace velquin::testing
