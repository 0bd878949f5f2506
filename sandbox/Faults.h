// Decides, call by call, which faults the sandbox injects: a delay, then
// UNAVAILABLE for the first N calls or for a share of calls per method.
//
// Ownership and threads: owned by the server; decide() and set() may run on
// any thread (state guarded by mutex_).
#pragma once

#include <mutex>
#include <random>
#include <string>

#include "SandboxServer.h"

namespace velquin::sandbox {

class FaultInjector {
 public:
  // Longest delay accepted, so a typo cannot hang a test run.
  static constexpr int kMaxDelayMs = 60'000;

  struct Decision {
    int delayMs = 0;
    bool fail = false;
  };

  explicit FaultInjector(FaultOptions options = {});

  // Replaces the faults; the fail-first count and the generator start over.
  // Shares are clamped to 0..1, counts and delays to their bounds.
  void set(FaultOptions options);
  Decision decide(const std::string& method);

 private:
  std::mutex mutex_;
  FaultOptions options_;        // guarded by mutex_
  int failFirstLeft_ = 0;       // guarded by mutex_
  std::mt19937_64 generator_;   // guarded by mutex_
};

}  // namespace velquin::sandbox
