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

 private:
  std::filesystem::path work_;
  pid_t pid_ = -1;
};

}  // namespace velquin::bench
