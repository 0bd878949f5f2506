// Small helpers the benchmark programs share: percentiles, medians of
// repeated runs, and pointing the library's folders at a scratch home.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

namespace velquin::bench {

using Clock = std::chrono::steady_clock;

inline double microsecondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::micro>(to - from).count();
}

inline double secondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

// Nearest-rank percentile, p in [0, 1]; 0 for no values.
inline double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  auto index = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
  return values[std::min(index, values.size() - 1)];
}

inline double median(const std::vector<double>& values) { return percentile(values, 0.5); }

// The configuration and data folders the library uses (XDG), so that every
// run starts from its own empty cache and settings.
inline void useHome(const std::filesystem::path& home) {
  setenv("XDG_CONFIG_HOME", (home / "config").c_str(), 1);
  setenv("XDG_DATA_HOME", (home / "data").c_str(), 1);
}

// Polls `done` every `step` until it holds or `limit` has passed.
template <class Done>
bool waitFor(Done done, std::chrono::milliseconds limit,
             std::chrono::milliseconds step = std::chrono::milliseconds(5)) {
  auto until = Clock::now() + limit;
  for (;;) {
    if (done()) return true;
    if (Clock::now() >= until) return false;
    std::this_thread::sleep_for(step);
  }
}

}  // namespace velquin::bench
