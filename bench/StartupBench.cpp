// Start-up cost: the time from configure() until the Init call has been
// handed to gRPC, the time until Init was answered (first TLS connection
// included), and the resident memory that start-up adds. Each sample is a
// fresh child process, because start-up happens once per process.
//
//   startup_bench [--runs N]
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BenchSandbox.h"
#include "velquin/Bundle.h"
#include "velquin/NotificationCenter.h"
#include "velquin/OVPurchase.h"
#include "velquin/Velquin.h"

namespace {

using Clock = std::chrono::steady_clock;

long residentBytes() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

struct Sample {
  double createMs = 0;     // Velquin::shared() built the SDK's objects
  double configureMs = 0;  // configure() returned: Init is with gRPC
  double answeredMs = 0;   // Init's answer handled, GetAppConfig handled
  double rssMb = 0;
};

// Runs in a child: one start-up, measured.
Sample measureOnce(const std::filesystem::path& bundle) {
  velquin::Bundle::setMainBundlePath(bundle);
  long before = residentBytes();
  std::mutex mutex;
  std::condition_variable cv;
  bool handled = false;
  auto created = Clock::now();
  auto& sdk = velquin::Velquin::shared();
  auto start = Clock::now();
  velquin::NotificationCenter::defaultCenter().addObserver(
      velquin::OVPurchase::kAppConfigHandledNotification, [&](const velquin::Notification&) {
        std::lock_guard lock(mutex);
        handled = true;
        cv.notify_all();
      });
  sdk.configure();
  auto configured = Clock::now();
  std::unique_lock lock(mutex);
  cv.wait_for(lock, std::chrono::seconds(30), [&] { return handled; });
  auto answered = Clock::now();
  Sample sample;
  sample.createMs = std::chrono::duration<double, std::milli>(start - created).count();
  sample.configureMs = std::chrono::duration<double, std::milli>(configured - start).count();
  sample.answeredMs = std::chrono::duration<double, std::milli>(answered - start).count();
  sample.rssMb = static_cast<double>(residentBytes() - before) / (1024.0 * 1024.0);
  return sample;
}

double percentile(std::vector<double> values, double p) {
  std::sort(values.begin(), values.end());
  size_t index = static_cast<size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
  return values[std::min(index, values.size() - 1)];
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 15;
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::string(argv[i]) == "--runs") runs = std::max(1, std::atoi(argv[i + 1]));
  }
  velquin::bench::BenchSandbox sandbox;
  if (!sandbox.start()) return 1;

  // One start-up in a child process with the given home.
  auto launch = [&](const std::filesystem::path& home) -> std::optional<Sample> {
    int pipeFds[2];
    if (pipe(pipeFds) != 0) return std::nullopt;
    pid_t child = fork();
    if (child == 0) {
      close(pipeFds[0]);
      setenv("XDG_CONFIG_HOME", (home / "config").c_str(), 1);
      setenv("XDG_DATA_HOME", (home / "data").c_str(), 1);
      Sample sample = measureOnce(sandbox.bundle());
      ssize_t written = write(pipeFds[1], &sample, sizeof sample);
      _exit(written == static_cast<ssize_t>(sizeof sample) ? 0 : 1);
    }
    close(pipeFds[1]);
    Sample sample;
    ssize_t got = read(pipeFds[0], &sample, sizeof sample);
    close(pipeFds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (got != static_cast<ssize_t>(sizeof sample)) return std::nullopt;
    return sample;
  };

  // The first launch of an installation makes and stores the user id and
  // the device id (each an fsync'd file); later launches read them.
  std::vector<double> firstConfigureMs, createMs, configureMs, answeredMs, rssMb;
  for (int run = 0; run < runs; ++run) {
    auto home = sandbox.work() / ("home-" + std::to_string(run));
    auto first = launch(home);
    auto later = launch(home);
    if (!first || !later) {
      std::fprintf(stderr, "run %d failed\n", run);
      return 1;
    }
    firstConfigureMs.push_back(first->configureMs);
    createMs.push_back(later->createMs);
    configureMs.push_back(later->configureMs);
    answeredMs.push_back(later->answeredMs);
    rssMb.push_back(later->rssMb);
  }
  std::printf("startup runs %d (each launch a fresh process)\n", runs);
  std::printf("first launch, configure() until Init is with gRPC: p50 %.3f ms\n",
              percentile(firstConfigureMs, 0.5));
  std::printf("later launch, Velquin::shared() first use: p50 %.3f ms\n", percentile(createMs, 0.5));
  std::printf("later launch, configure() until Init is with gRPC: p50 %.3f ms, p90 %.3f ms, max %.3f ms\n",
              percentile(configureMs, 0.5), percentile(configureMs, 0.9),
              percentile(configureMs, 1.0));
  std::printf("later launch, configure() until GetAppConfig handled (TLS connect + 2 round trips): p50 %.1f ms\n",
              percentile(answeredMs, 0.5));
  std::printf("resident memory added by start-up: p50 %.1f MB, max %.1f MB\n",
              percentile(rssMb, 0.5), percentile(rssMb, 1.0));
  std::printf("ratio startup_configure_vs_10ms_target %.3f\n", percentile(configureMs, 0.5) / 10.0);
  std::printf("ratio startup_first_launch_configure_vs_10ms_target %.3f\n",
              percentile(firstConfigureMs, 0.5) / 10.0);
  std::printf("ratio startup_rss_vs_20MB_target %.3f\n", percentile(rssMb, 0.5) / 20.0);
  return 0;
}
