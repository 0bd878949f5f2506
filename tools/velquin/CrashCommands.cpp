// velquin crash: crashes this host on purpose once start-up has armed crash
// capture, so that the next run (any command) delivers the report. Each way
// of crashing has its own function, named in the report's frames.
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "Cli.h"
#include "velquin/OVAnalytics.h"
#include "velquin/SignalTest.h"
#include "velquin/Velquin.h"

namespace velquin::cli {

// Kept out of line and out of the anonymous namespace, so each shows under
// its own name in a crash report.
// Volatile all the way: the compiler may drop a plain store it can prove
// is never read.
[[gnu::noinline]] void crashHostSEGV() {
  volatile int* volatile target = nullptr;
  *target = 1;
}

[[gnu::noinline]] void crashHostBUS() {
  // A shared mapping past the end of its (empty) file: touching it is SIGBUS.
  const int fd = memfd_create("velquin-crash", 0);
  void* page = fd < 0 ? MAP_FAILED : mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
  if (page == MAP_FAILED) std::raise(SIGBUS);
  const volatile char* byte = static_cast<const volatile char*>(page);
  (void)*byte;
}

[[gnu::noinline]] void crashHostILL() {
#if defined(__x86_64__) || defined(__i386__)
  __asm__ volatile("ud2");
#else
  std::raise(SIGILL);
#endif
}

[[gnu::noinline]] void crashHostFPE() {
#if defined(__x86_64__) || defined(__i386__)
  volatile int numerator = 1;
  volatile int zero = 0;
  volatile int quotient = numerator / zero;  // integer division traps here
  (void)quotient;
#else
  std::raise(SIGFPE);
#endif
}

[[gnu::noinline]] void crashHostABRT() {
  std::abort();
}

[[gnu::noinline]] void crashHostTRAP() {
#if defined(__x86_64__) || defined(__i386__)
  __asm__ volatile("int3");
#else
  std::raise(SIGTRAP);
#endif
}

// The worker thread's own function; the abort after the call keeps this
// frame on the stack (the call is not in tail position).
[[gnu::noinline]] void crashHostWorkerThread() {
  crashHostSEGV();
  std::abort();
}

[[gnu::noinline]] void crashHostOnThread() {
  std::thread worker(crashHostWorkerThread);
  worker.join();
}

// Each call hands its own frame to the next, so no call can reuse its
// caller's frame; the end is read through a volatile, so the compiler can
// prove neither an end nor an endless loop.
volatile bool recursionEnds = false;
[[gnu::noinline]] char crashHostStackOverflow(volatile char* caller) {
  volatile char frame[512];
  frame[0] = static_cast<char>(caller ? caller[0] + 1 : 0);
  if (recursionEnds) return frame[0];
  return static_cast<char>(crashHostStackOverflow(frame) + frame[0]);
}

[[gnu::noinline]] void throwStdException() {
  throw std::runtime_error("velquin crash: an uncaught std::runtime_error");
}

[[gnu::noinline]] void throwInt() {
  throw 42;
}

namespace {

using Clock = std::chrono::steady_clock;

// Thrown on a thread of its own with nothing above it that catches, so the
// runtime calls terminate with the throwing frames still on the stack.
void* throwingThread(void* kind) {
  if (*static_cast<const std::string*>(kind) == "int") throwInt();
  throwStdException();
  return nullptr;
}

Outcome crash(const Context& context, const std::vector<std::string>& words) {
  static const char* kUsage =
      "usage: crash [--signal SEGV|BUS|ILL|FPE|ABRT|TRAP | --exception [std|int] | --thread | "
      "--stack-overflow]";
  std::string how = "signal-test";
  std::string detail;
  if (words.size() == 2 && words[0] == "--signal") {
    how = "signal";
    detail = words[1];
    if (detail != "SEGV" && detail != "BUS" && detail != "ILL" && detail != "FPE" &&
        detail != "ABRT" && detail != "TRAP") {
      return failure(kUsage);
    }
  } else if (!words.empty() && words.size() <= 2 && words[0] == "--exception") {
    how = "exception";
    detail = words.size() == 2 ? words[1] : "std";
    if (detail != "std" && detail != "int") return failure(kUsage);
  } else if (words.size() == 1 && words[0] == "--thread") {
    how = "thread";
  } else if (words.size() == 1 && words[0] == "--stack-overflow") {
    how = "stack-overflow";
  } else if (!words.empty()) {
    return failure(kUsage);
  }

  // Start-up arms crash capture before it hands the app key to the event
  // client: once events can be sent, a crash is captured.
  auto& analytics = Velquin::shared().analytics();
  const auto until = Clock::now() + context.timeout;
  while (!analytics.canSendEvents()) {
    if (Clock::now() >= until) return timedOut("start-up (crash capture not armed)");
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  // What is printed so far reaches the terminal before the process dies.
  std::fflush(nullptr);

  if (how == "signal") {
    if (detail == "SEGV") crashHostSEGV();
    if (detail == "BUS") crashHostBUS();
    if (detail == "ILL") crashHostILL();
    if (detail == "FPE") crashHostFPE();
    if (detail == "ABRT") crashHostABRT();
    if (detail == "TRAP") crashHostTRAP();
  } else if (how == "exception") {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, throwingThread, &detail) != 0) {
      return failure("could not start a thread");
    }
    pthread_join(thread, nullptr);
  } else if (how == "thread") {
    crashHostOnThread();
  } else if (how == "stack-overflow") {
    crashHostStackOverflow(nullptr);
  } else {
    SignalTest::signalTest();
  }
  return failure("the host is still running after crashing on purpose");
}

}  // namespace

std::vector<Command> crashCommands() {
  return {
      {"crash",
       "[--signal SEGV|BUS|ILL|FPE|ABRT|TRAP | --exception [std|int] | --thread | "
       "--stack-overflow]",
       "crash on purpose once start-up armed crash capture (default: SignalTest); the next "
       "run sends the report",
       true, crash},
  };
}

}  // namespace velquin::cli
