// A velquin-sandbox process for benchmarks, in a temporary folder, with a
// client bundle written for it. Stopped (SIGTERM) and removed on destruction.
#pragma once

#include <sys/types.h>

#include <filesystem>

namespace velquin::bench {

class BenchSandbox {
 public:
  BenchSandbox();
  ~BenchSandbox();
  // Starts the program next to this one and waits for its bundle.
  bool start(const char* extraArguments = "");
  const std::filesystem::path& work() const { return work_; }
  std::filesystem::path bundle() const { return work_ / "bundle"; }
  std::filesystem::path dataDir() const { return work_ / "sandbox"; }
  pid_t pid() const { return pid_; }
  // CPU seconds the sandbox process has used so far (0 when not running).
  double cpuSeconds() const;
  // FireEvent calls the sandbox has stored so far (-1 when unreadable).
  long long storedEvents() const;

 private:
  std::filesystem::path work_;
  pid_t pid_ = -1;
};

}  // namespace velquin::bench
