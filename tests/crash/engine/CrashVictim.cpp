// A program that enables the crash report engine in a given folder and then
// crashes in the named way; the engine tests run it as a child process.
//
//   crash_victim FOLDER WAY [ARGUMENT]
//
// WAY: segv bus ill fpe abrt trap (one fatal signal each), thread (segv on a
// second thread), overflow (stack overflow on the enabling thread),
// thread-overflow (on a second thread that installed an alternate stack), chain
// MARKER (a handler installed before the engine writes MARKER), chain-crash
// (that earlier handler aborts, entering the engine's handler again), suppress (the suppression
// hook, then abort), readonly (the folder turns read-only before the crash), two-threads (two
// threads fault at the same moment), plugin LIBRARY (the crash happens in a library loaded after
// enable), damaged-modules (a wild write has left the loader's last module name pointing at
// unmapped memory before the crash), unwritable (the folder is read-only before enable, which
// fails with exit status 5), first-recovers (with the host's handler called first, that
// SA_SIGINFO handler moves the thread on: the victim exits 0), first-gives-up MARKER (called
// first, it writes MARKER and returns unchanged: the fault comes back and is reported).
#include <dlfcn.h>
#include <link.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "crash/CrashEngine.h"
#include "crash/CrashSignalHandler.h"

namespace victim {

volatile int gZero = 0;
volatile bool gNeverTrue = false;
// Address 1: never mapped. Volatile so the compiler cannot see the fault coming.
volatile int* volatile gBadPointer = reinterpret_cast<volatile int*>(1);
std::atomic<int> gReadyThreads{0};
// Set just before the crash; read by the earlier handler of `chain`.
timespec gCrashStarted{};
const char* gMarkerPath = nullptr;

__attribute__((noinline)) void writeThroughBadPointer() {
  *gBadPointer = 42;
}

__attribute__((noinline)) void readPastTruncatedFile() {
  const int fd = memfd_create("crash-victim", MFD_CLOEXEC);
  void* page = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);  // the file is empty
  if (page == MAP_FAILED) std::abort();
  std::printf("%d\n", *static_cast<volatile const int*>(page));
}

__attribute__((noinline)) void executeUndefinedInstruction() {
#if defined(__x86_64__)
  asm volatile("ud2");
#elif defined(__aarch64__)
  asm volatile(".inst 0x00000000");
#else
  raise(SIGILL);
#endif
}

__attribute__((noinline)) void divideByZero() {
#if defined(__x86_64__)
  volatile int numerator = 1;
  std::printf("%d\n", numerator / gZero);
#else
  raise(SIGFPE);  // integer division does not trap here
#endif
}

__attribute__((noinline)) void hitBreakpoint() {
#if defined(__x86_64__)
  asm volatile("int3");
#elif defined(__aarch64__)
  asm volatile("brk #0");
#else
  raise(SIGTRAP);
#endif
}

__attribute__((noinline)) void abortNow() {
  std::abort();
}

__attribute__((noinline)) int overflowStack(int depth) {
  volatile char frame[512];
  frame[0] = static_cast<char>(depth);
  if (gNeverTrue) return frame[0];
  return overflowStack(depth + 1) + frame[0];
}

// The empty asm after each call keeps the caller's frame (no tail call).
__attribute__((noinline)) void overflowOnWorkerThread() {
  if (!velquin::crash::installAlternateSignalStackOnThisThread(nullptr)) std::abort();
  std::printf("%d\n", overflowStack(0));
}

__attribute__((noinline)) void crashOnWorkerThread() {
  writeThroughBadPointer();
  asm volatile("" ::: "memory");
}

__attribute__((noinline)) void crashTogether() {
  gReadyThreads.fetch_add(1);
  while (gReadyThreads.load() < 2) {
  }
  writeThroughBadPointer();
  asm volatile("" ::: "memory");
}

void writeMarker(int) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const long long elapsed =
      (now.tv_sec - gCrashStarted.tv_sec) * 1000000000LL + (now.tv_nsec - gCrashStarted.tv_nsec);
  char text[32];
  int length = 0;
  char digits[24];
  int count = 0;
  unsigned long long value = static_cast<unsigned long long>(elapsed > 0 ? elapsed : 0);
  do {
    digits[count++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (count > 0) text[length++] = digits[--count];
  const int fd = open(gMarkerPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd >= 0) {
    if (write(fd, text, static_cast<size_t>(length)) != length) _exit(3);
    close(fd);
  }
}

void abortInsideHandler(int) {
  std::abort();
}

// Where a recovering runtime resumes a thread whose fault it handled: the
// host goes on with its normal work and ends well.
[[noreturn]] __attribute__((noinline)) void resumeAfterHandledFault() {
  const char said[] = "crash_victim: recovered\n";
  if (write(STDERR_FILENO, said, sizeof said - 1) < 0) _exit(3);
  _exit(0);
}

// A managed runtime's handler: turns the fault into its own work by moving
// the thread to resumeAfterHandledFault, on an aligned stack.
void recoverByMovingTheThread(int, siginfo_t*, void* context) {
  auto* uc = static_cast<ucontext_t*>(context);
#if defined(__x86_64__)
  uc->uc_mcontext.gregs[REG_RSP] = (uc->uc_mcontext.gregs[REG_RSP] & ~greg_t{15}) - 8;
  uc->uc_mcontext.gregs[REG_RIP] = reinterpret_cast<greg_t>(&resumeAfterHandledFault);
#elif defined(__aarch64__)
  uc->uc_mcontext.sp &= ~std::uint64_t{15};
  uc->uc_mcontext.pc = reinterpret_cast<std::uint64_t>(&resumeAfterHandledFault);
#else
  (void)uc;
#endif
}

// A handler with SA_SIGINFO that looks at the fault and gives up: it
// returns with the context as it was.
void lookAndReturn(int signal, siginfo_t*, void*) {
  writeMarker(signal);
}

void installEarlierInfoHandler(void (*handler)(int, siginfo_t*, void*)) {
  struct sigaction action = {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  sigaction(SIGSEGV, &action, nullptr);
}

void installEarlierHandler(void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  sigaction(SIGSEGV, &action, nullptr);
}

// As root, permissions do not stop writes: give up the capabilities that
// bypass them so that the read-only folder is read-only for us too.
void dropPermissionOverride() {
  if (geteuid() != 0) return;
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  if (syscall(SYS_capget, &header, data) != 0) std::abort();
  for (int capability : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_FOWNER}) {
    data[capability / 32].effective &= ~(1u << (capability % 32));
  }
  if (syscall(SYS_capset, &header, data) != 0) std::abort();
}

}  // namespace victim

int main(int argc, char** argv) {
  using namespace victim;
  if (argc < 3) {
    std::fprintf(stderr, "usage: crash_victim FOLDER WAY [ARGUMENT]\n");
    return 2;
  }
  const std::string folder = argv[1];
  const std::string way = argv[2];
  const char* argument = argc > 3 ? argv[3] : nullptr;

  // The test wants the exit status, not core files.
  const rlimit noCore = {0, 0};
  setrlimit(RLIMIT_CORE, &noCore);

  if (way == "chain" && argument != nullptr) {
    gMarkerPath = argument;
    installEarlierHandler(writeMarker);
  } else if (way == "chain-crash") {
    installEarlierHandler(abortInsideHandler);
  } else if (way == "first-recovers") {
    installEarlierInfoHandler(recoverByMovingTheThread);
  } else if (way == "first-gives-up" && argument != nullptr) {
    gMarkerPath = argument;
    installEarlierInfoHandler(lookAndReturn);
  }

  if (way == "unwritable") {  // the folder is read-only before enable: enable says so
    mkdir(folder.c_str(), 0700);
    if (chmod(folder.c_str(), 0555) != 0) return 7;
    dropPermissionOverride();
  }

  auto config = velquin::crash::CrashEngineConfig::make(0, 2);
  if (!config) return 4;
  config->reportDirectory = folder;
  config->applicationId = "com.example.crashvictim";
  config->applicationVersion = "7.1";
  config->chainHostHandlerFirst = way == "first-recovers" || way == "first-gives-up";
  auto engine = velquin::crash::createCrashEngine(*config);
  velquin::crash::EngineError error;
  if (!engine || !engine->enable(&error)) {
    std::fprintf(stderr, "crash_victim: cannot enable: %s\n", error.description.c_str());
    return 5;
  }

  void (*pluginCrash)() = nullptr;
  if (way == "plugin" && argument != nullptr) {
    void* library = dlopen(argument, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) return 6;
    pluginCrash = reinterpret_cast<void (*)()>(dlsym(library, "crash_victim_plugin_crash"));
    if (pluginCrash == nullptr) return 6;
  }
  if (way == "readonly") {
    if (chmod(folder.c_str(), 0555) != 0) return 7;
    dropPermissionOverride();
  }

  if (way == "damaged-modules") {
    // Found through dlinfo, not _r_debug: a reference to _r_debug from this
    // program would give it a copy of its own that the loader keeps stale.
    link_map* last = nullptr;
    if (dlinfo(dlopen(nullptr, RTLD_NOW), RTLD_DI_LINKMAP, &last) != 0) return 8;
    while (last != nullptr && last->l_next != nullptr) last = last->l_next;
    if (last == nullptr) return 8;
    last->l_name = reinterpret_cast<char*>(1);  // never mapped
  }

  clock_gettime(CLOCK_MONOTONIC, &gCrashStarted);
  if (way == "segv" || way == "damaged-modules" || way == "first-recovers" ||
      way == "first-gives-up" || way == "chain" || way == "chain-crash" || way == "readonly")
    writeThroughBadPointer();
  if (way == "bus") readPastTruncatedFile();
  if (way == "ill") executeUndefinedInstruction();
  if (way == "fpe") divideByZero();
  if (way == "abrt") abortNow();
  if (way == "trap") hitBreakpoint();
  if (way == "overflow") std::printf("%d\n", overflowStack(0));
  if (way == "thread") std::thread(crashOnWorkerThread).join();
  if (way == "thread-overflow") std::thread(overflowOnWorkerThread).join();
  if (way == "two-threads") {
    std::thread first(crashTogether);
    std::thread second(crashTogether);
    first.join();
    second.join();
  }
  if (way == "suppress") {
    velquin::crash::suppressReportOfCurrentCrash();
    abortNow();
  }
  if (pluginCrash != nullptr) pluginCrash();
  std::fprintf(stderr, "crash_victim: survived '%s'\n", way.c_str());
  return 1;
}
