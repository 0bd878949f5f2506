// crash_bench: how long the crash handler takes to write its pending report,
// and how big the report is.
//
// Each sample is a forked child that enables the crash report engine in a
// fresh folder and dereferences a bad pointer. Two times are taken:
//   - in the handler: from its entry to the last record handed to the kernel
//     (the report carries it);
//   - end to end: from just before the fault until a handler installed
//     before the engine, which the engine chains after renaming the report
//     into place, runs; it sends the time through a pipe.
// The target is < 10 ms; there is no raw limit to compare with.
//
//   crash_bench [--crashes N]   (default 30)
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "crash/CrashEngine.h"
#include "crash/CrashReport.h"

namespace {

namespace fs = std::filesystem;

// The child's state, read by its earlier handler.
timespec gFaultAt{};
int gPipe = -1;
volatile int* volatile gBadPointer = reinterpret_cast<volatile int*>(1);

void reportEndToEnd(int) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const long long elapsed =
      (now.tv_sec - gFaultAt.tv_sec) * 1000000000LL + (now.tv_nsec - gFaultAt.tv_nsec);
  if (write(gPipe, &elapsed, sizeof elapsed) != static_cast<ssize_t>(sizeof elapsed)) _exit(3);
}

[[noreturn]] void crashingChild(const fs::path& folder) {
  const rlimit noCore = {0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  struct sigaction earlier = {};
  earlier.sa_handler = reportEndToEnd;
  sigemptyset(&earlier.sa_mask);
  sigaction(SIGSEGV, &earlier, nullptr);
  auto config = velquin::crash::CrashEngineConfig::make(0, 2);
  config->reportDirectory = folder;
  auto engine = velquin::crash::createCrashEngine(*config);
  velquin::crash::EngineError error;
  if (!engine || !engine->enable(&error)) _exit(4);
  clock_gettime(CLOCK_MONOTONIC, &gFaultAt);
  *gBadPointer = 1;
  _exit(5);
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  int crashes = 30;
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], "--crashes") == 0) crashes = std::max(1, std::atoi(argv[i + 1]));
  }
  std::string pattern = (fs::temp_directory_path() / "crash-bench-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) return 1;
  const fs::path folder = pattern;
  auto readerConfig = velquin::crash::CrashEngineConfig::make(0, 2);
  readerConfig->reportDirectory = folder;
  const auto reader = velquin::crash::createCrashEngine(*readerConfig);
  if (!reader) return 1;

  std::vector<double> inHandler;
  std::vector<double> endToEnd;
  std::size_t bytes = 0;
  for (int run = 0; run < crashes; ++run) {
    int fds[2];
    if (pipe(fds) != 0) return 1;
    const pid_t child = fork();
    if (child == 0) {
      close(fds[0]);
      gPipe = fds[1];
      crashingChild(folder);
    }
    close(fds[1]);
    long long elapsed = 0;
    const bool heard =
        read(fds[0], &elapsed, sizeof elapsed) == static_cast<ssize_t>(sizeof elapsed);
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!heard || !WIFSIGNALED(status) || WTERMSIG(status) != SIGSEGV) {
      std::fprintf(stderr, "crash_bench: the child did not crash as expected\n");
      return 1;
    }
    velquin::crash::EngineError error;
    const auto raw = reader->loadPendingCrashReportData(&error);
    const auto report = raw ? reader->parseCrashReport(*raw, &error) : nullptr;
    if (!report || !report->handlerNanoseconds) {
      std::fprintf(stderr, "crash_bench: %s\n", error.description.c_str());
      return 1;
    }
    inHandler.push_back(static_cast<double>(*report->handlerNanoseconds) / 1e6);
    endToEnd.push_back(static_cast<double>(elapsed) / 1e6);
    bytes = raw->size();
    reader->purgePendingCrashReport();
  }
  fs::remove_all(folder);

  const double endToEndMedian = median(endToEnd);
  std::printf("crash handler, report written (median of %d crashes): %.3f ms (max %.3f ms)\n",
              crashes, median(inHandler), *std::max_element(inHandler.begin(), inHandler.end()));
  std::printf(
      "crash handler, fault until the chained handler runs (median): %.3f ms (max %.3f ms)\n",
      endToEndMedian, *std::max_element(endToEnd.begin(), endToEnd.end()));
  std::printf("crash report size: %zu bytes\n", bytes);
  std::printf("ratio crash_handler_vs_10ms_target %.4f\n", endToEndMedian / 10.0);
  return 0;
}
