#include "crash/CrashSignalHandler.h"

#define UNW_LOCAL_ONLY
#include <elf.h>
#include <fcntl.h>
#include <libunwind.h>
#include <link.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/utsname.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "crash/CrashReportFormat.h"
#include "support/Uuid.h"

namespace velquin::crash {
namespace {

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP};
constexpr std::size_t kSignalCount = std::size(kSignals);
constexpr std::size_t kAltStackBytes = 256 * 1024;
constexpr std::size_t kMinUsableAltStackBytes = 64 * 1024;
// How long a second crashing thread waits for the first to finish its report.
constexpr int kWaitForWriterMilliseconds = 2000;

static_assert(std::atomic<int>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);
static_assert(std::atomic<void*>::is_always_lock_free);

// One loaded module as seen when crash capture was enabled.
struct SnapshotModule {
  std::string linkName;  // the loader's name for it ("" for the main program)
  std::string path;      // the file written into the report
  std::uint64_t bias = 0;
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::uint8_t buildId[format::kMaxBuildIdBytes] = {};
  std::uint32_t buildIdLength = 0;
};

// Everything the handler reads. Built by installCrashSignalHandlers, then
// never changed nor freed: the handler reads it without any lock.
struct HandlerState {
  std::string reportDirectory;
  // "<folder>/pending-crash-report-": the handler appends pid and time.
  std::string pendingPrefix;
  // False when the folder already held kMaxPendingReports at enable.
  bool writeReports = true;
  // The handler installed before ours runs first (see chainFirst).
  bool chainFirst = false;
  std::string processName;
  std::string osRelease;
  std::string applicationId;
  std::string applicationVersion;
  std::string incidentIdentifier;
  std::vector<SnapshotModule> modules;
  struct sigaction previous[kSignalCount] = {};
};

// Owned by gInstallMutex for writing (once); read lock-free by the handler.
std::atomic<HandlerState*> gState{nullptr};
// Serialises installCrashSignalHandlers (never taken by the handler).
std::mutex gInstallMutex;
// Set by suppressReportOfCurrentCrash on the crashing thread; read by the handler.
std::atomic<bool> gSuppress{false};
// The kernel thread id of the first thread that entered the handler (0: none
// yet); the reentrancy guard. Written once by compare-exchange.
std::atomic<int> gWriterThread{0};
// Set by that thread once its report is written (or skipped).
std::atomic<bool> gWriterFinished{false};

// Buffers records on the handler's stack and hands them to write(2).
class ReportWriter {
 public:
  explicit ReportWriter(int fd) : fd_(fd) {}

  void bytes(const void* data, std::size_t size) {
    const auto* from = static_cast<const char*>(data);
    while (size > 0) {
      if (used_ == sizeof(buffer_)) flush();
      const std::size_t chunk = std::min(size, sizeof(buffer_) - used_);
      std::memcpy(buffer_ + used_, from, chunk);
      used_ += chunk;
      from += chunk;
      size -= chunk;
    }
  }
  template <typename T>
  void value(T v) {
    bytes(&v, sizeof v);
  }
  void record(std::uint32_t tag, std::size_t payloadSize) {
    value<std::uint32_t>(tag);
    value<std::uint32_t>(static_cast<std::uint32_t>(payloadSize));
  }
  void text(std::uint32_t tag, const char* data, std::size_t size) {
    size = std::min(size, format::kMaxTextBytes);
    record(tag, size);
    bytes(data, size);
  }
  // False once any write failed.
  bool flush() {
    std::size_t done = 0;
    while (!failed_ && done < used_) {
      const ssize_t n = ::write(fd_, buffer_ + done, used_ - done);
      if (n > 0) {
        done += static_cast<std::size_t>(n);
      } else if (n < 0 && errno == EINTR) {
        continue;
      } else {
        failed_ = true;
      }
    }
    used_ = 0;
    return !failed_;
  }

 private:
  int fd_;
  char buffer_[4096];
  std::size_t used_ = 0;
  bool failed_ = false;
};

std::size_t appendText(char* to, std::size_t at, std::size_t capacity, const char* text) {
  const std::size_t length = std::strlen(text);
  if (at + length >= capacity) return capacity;
  std::memcpy(to + at, text, length);
  return at + length;
}

std::size_t appendDecimal(char* to, std::size_t at, std::size_t capacity, unsigned long value) {
  char digits[24];
  std::size_t count = 0;
  do {
    digits[count++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  if (at + count >= capacity) return capacity;
  while (count > 0) to[at++] = digits[--count];
  return at;
}

std::uint64_t nanosecondsBetween(const timespec& from, const timespec& to) {
  const std::int64_t ns = (static_cast<std::int64_t>(to.tv_sec) - from.tv_sec) * 1000000000LL +
                          (to.tv_nsec - from.tv_nsec);
  return ns > 0 ? static_cast<std::uint64_t>(ns) : 0;
}

void writeModule(ReportWriter& out, std::uint64_t bias, std::uint64_t start, std::uint64_t end,
                 const std::uint8_t* buildId, std::uint32_t buildIdLength, const char* path) {
  const std::size_t pathLength = std::min(std::strlen(path), format::kMaxTextBytes);
  out.record(format::kModule, 8 * 3 + 4 + buildIdLength + pathLength);
  out.value<std::uint64_t>(bias);
  out.value<std::uint64_t>(start);
  out.value<std::uint64_t>(end);
  out.value<std::uint32_t>(buildIdLength);
  out.bytes(buildId, buildIdLength);
  out.bytes(path, pathLength);
}

void writeSnapshotModule(ReportWriter& out, const SnapshotModule& m) {
  writeModule(out, m.bias, m.start, m.end, m.buildId, m.buildIdLength, m.path.c_str());
}

void writeRegisters(ReportWriter& out, const void* context) {
  const auto* uc = static_cast<const ucontext_t*>(context);
#if defined(__x86_64__)
  out.record(format::kRegisters, 8 + 8 * NGREG);
  out.value<std::uint32_t>(static_cast<std::uint32_t>(format::RegisterSet::x86_64));
  out.value<std::uint32_t>(NGREG);
  for (int i = 0; i < NGREG; ++i)
    out.value<std::uint64_t>(static_cast<std::uint64_t>(uc->uc_mcontext.gregs[i]));
#elif defined(__aarch64__)
  out.record(format::kRegisters, 8 + 8 * 34);
  out.value<std::uint32_t>(static_cast<std::uint32_t>(format::RegisterSet::aarch64));
  out.value<std::uint32_t>(34);
  for (int i = 0; i < 31; ++i) out.value<std::uint64_t>(uc->uc_mcontext.regs[i]);
  out.value<std::uint64_t>(uc->uc_mcontext.sp);
  out.value<std::uint64_t>(uc->uc_mcontext.pc);
  out.value<std::uint64_t>(uc->uc_mcontext.pstate);
#else
  (void)out;
  (void)uc;
#endif
}

std::uint64_t programCounter(const void* context) {
  const auto* uc = static_cast<const ucontext_t*>(context);
#if defined(__x86_64__)
  return static_cast<std::uint64_t>(uc->uc_mcontext.gregs[REG_RIP]);
#elif defined(__aarch64__)
  return uc->uc_mcontext.pc;
#else
  (void)uc;
  return 0;
#endif
}

// The crashing thread's frames, innermost first, from the signal context.
void writeFrames(ReportWriter& out, void* context) {
  unw_cursor_t cursor;
  bool started = false;
#if defined(__x86_64__)
  // libunwind's context on x86_64 is the ucontext_t the kernel handed us.
  started =
      unw_init_local2(&cursor, static_cast<unw_context_t*>(context), UNW_INIT_SIGNAL_FRAME) == 0;
#else
  // Elsewhere: unwind from here up through the kernel's signal frame.
  unw_context_t here;
  if (unw_getcontext(&here) == 0 && unw_init_local(&cursor, &here) == 0) {
    for (int i = 0; i < 32 && unw_is_signal_frame(&cursor) <= 0; ++i) {
      if (unw_step(&cursor) <= 0) break;
    }
    started = unw_is_signal_frame(&cursor) > 0 && unw_step(&cursor) > 0;
  }
#endif
  std::size_t count = 0;
  if (started) {
    do {
      unw_word_t ip = 0;
      if (unw_get_reg(&cursor, UNW_REG_IP, &ip) < 0 || ip == 0) break;
      out.record(format::kFrame, 8);
      out.value<std::uint64_t>(ip);
      ++count;
    } while (count < format::kMaxFrames && unw_step(&cursor) > 0);
  }
  if (count == 0) {
    out.record(format::kFrame, 8);
    out.value<std::uint64_t>(programCounter(context));
  }
}

const SnapshotModule* findSnapshot(const HandlerState& state, std::uint64_t bias,
                                   const char* linkName) {
  for (const SnapshotModule& m : state.modules) {
    if (m.bias == bias && std::strcmp(m.linkName.c_str(), linkName) == 0) return &m;
  }
  return nullptr;
}

// Copies `size` bytes of this process's memory at `from` through the
// kernel, so an address that is not mapped gives false instead of a fault.
bool safeRead(void* to, const void* from, std::size_t size) {
  iovec local{to, size};
  iovec remote{const_cast<void*>(from), size};
  return syscall(SYS_process_vm_readv, getpid(), &local, 1UL, &remote, 1UL, 0UL) ==
         static_cast<long>(size);
}

// A module name read with safeRead, a page piece at a time (a piece within
// one page is either all readable or not at all). False when unreadable.
bool safeReadName(const char* from, char* to, std::size_t capacity) {
  std::size_t length = 0;
  while (length + 1 < capacity) {
    const auto address = reinterpret_cast<std::uintptr_t>(from + length);
    const std::size_t toPageEnd = 4096 - (address & 4095);
    const std::size_t piece = std::min({toPageEnd, capacity - 1 - length, std::size_t{256}});
    if (!safeRead(to + length, from + length, piece)) return false;
    const void* end = std::memchr(to + length, '\0', piece);
    if (end != nullptr) return true;
    length += piece;
  }
  to[length] = '\0';
  return true;
}

// The modules loaded now: the loader's list when it is consistent, else the
// snapshot taken at enable. The list is read through safeRead: a list the
// crash damaged (a wild write over a link_map) ends the walk instead of
// faulting inside the handler and costing the report.
void writeModules(ReportWriter& out, const HandlerState& state) {
  const volatile r_debug& loader = _r_debug;
  std::size_t written = 0;
  if (loader.r_version >= 1 && loader.r_state == r_debug::RT_CONSISTENT) {
    const link_map* next = loader.r_map;
    char name[format::kMaxTextBytes + 1];
    while (next != nullptr && written < format::kMaxModules) {
      link_map m;
      if (!safeRead(&m, next, sizeof m)) break;
      name[0] = '\0';
      if (m.l_name != nullptr && !safeReadName(m.l_name, name, sizeof name)) break;
      if (const SnapshotModule* known = findSnapshot(state, m.l_addr, name)) {
        writeSnapshotModule(out, *known);
      } else {
        writeModule(out, m.l_addr, 0, 0, nullptr, 0, name);
      }
      ++written;
      next = m.l_next;
    }
  }
  if (written == 0) {
    for (std::size_t i = 0; i < state.modules.size() && i < format::kMaxModules; ++i) {
      writeSnapshotModule(out, state.modules[i]);
    }
  }
}

void writeReport(const HandlerState& state, int signal, const siginfo_t* info, void* context,
                 int tid) {
  timespec started{};
  clock_gettime(CLOCK_MONOTONIC, &started);
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const pid_t pid = getpid();

  char tempPath[PATH_MAX + 64];
  std::size_t at = appendText(tempPath, 0, sizeof tempPath, state.reportDirectory.c_str());
  at = appendText(tempPath, at, sizeof tempPath, "/");
  at = appendText(tempPath, at, sizeof tempPath, format::kTempFilePrefix);
  at = appendDecimal(tempPath, at, sizeof tempPath, static_cast<unsigned long>(pid));
  at = appendText(tempPath, at, sizeof tempPath, format::kTempFileSuffix);
  if (at >= sizeof tempPath) return;
  tempPath[at] = '\0';

  char finalPath[PATH_MAX + 96];
  at = appendText(finalPath, 0, sizeof finalPath, state.pendingPrefix.c_str());
  at = appendDecimal(finalPath, at, sizeof finalPath, static_cast<unsigned long>(pid));
  at = appendText(finalPath, at, sizeof finalPath, "-");
  at = appendDecimal(finalPath, at, sizeof finalPath, static_cast<unsigned long>(now.tv_sec));
  // Nine digits of nanoseconds, so names sort by time within a second.
  char nanos[10];
  unsigned long rest = static_cast<unsigned long>(now.tv_nsec);
  for (int i = 8; i >= 0; --i, rest /= 10) nanos[i] = static_cast<char>('0' + rest % 10);
  nanos[9] = '\0';
  at = appendText(finalPath, at, sizeof finalPath, nanos);
  if (at >= sizeof finalPath) return;
  finalPath[at] = '\0';

  const int fd =
      ::open(tempPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return;  // a read-only or vanished folder: no report, the process still dies

  ReportWriter out(fd);
  out.bytes(format::kMagic, sizeof format::kMagic);
  out.value<std::uint32_t>(format::kVersion);

  const int code = info != nullptr ? info->si_code : 0;
  const bool sentByProcess = info != nullptr && code <= 0;
  out.record(format::kSignal, 4 + 4 + 8 + 4);
  out.value<std::int32_t>(signal);
  out.value<std::int32_t>(code);
  out.value<std::uint64_t>(
      info != nullptr && !sentByProcess ? reinterpret_cast<std::uintptr_t>(info->si_addr) : 0);
  out.value<std::int32_t>(sentByProcess ? info->si_pid : 0);

  out.record(format::kThread, 8);
  out.value<std::uint64_t>(static_cast<std::uint64_t>(tid));
  out.record(format::kTime, 16);
  out.value<std::int64_t>(now.tv_sec);
  out.value<std::int64_t>(now.tv_nsec);

  const std::size_t nameLength = std::min(state.processName.size(), format::kMaxTextBytes);
  out.record(format::kProcess, 4 + nameLength);
  out.value<std::int32_t>(pid);
  out.bytes(state.processName.data(), nameLength);
  out.text(format::kOsRelease, state.osRelease.data(), state.osRelease.size());
  out.text(format::kAppId, state.applicationId.data(), state.applicationId.size());
  out.text(format::kAppVersion, state.applicationVersion.data(), state.applicationVersion.size());
  out.text(format::kIncident, state.incidentIdentifier.data(), state.incidentIdentifier.size());

  if (context != nullptr) {
    writeRegisters(out, context);
    writeFrames(out, context);
  }
  writeModules(out, state);

  timespec finished{};
  clock_gettime(CLOCK_MONOTONIC, &finished);
  out.record(format::kHandlerTime, 8);
  out.value<std::uint64_t>(nanosecondsBetween(started, finished));
  out.record(format::kEnd, 0);
  const bool written = out.flush();
  ::close(fd);
  if (!written || ::rename(tempPath, finalPath) != 0) ::unlink(tempPath);
}

int signalIndex(int signal) {
  for (std::size_t i = 0; i < kSignalCount; ++i) {
    if (kSignals[i] == signal) return static_cast<int>(i);
  }
  return -1;
}

void callPrevious(const struct sigaction& previous, int signal, siginfo_t* info, void* context) {
  if (previous.sa_handler == SIG_DFL || previous.sa_handler == SIG_IGN) return;
  if ((previous.sa_flags & SA_SIGINFO) != 0) {
    if (previous.sa_sigaction != nullptr) previous.sa_sigaction(signal, info, context);
  } else if (previous.sa_handler != nullptr) {
    previous.sa_handler(signal);
  }
}

// Restores the default action and sends the signal again, so the process
// ends exactly as it would have without us (same signal, core dump rules).
void dieBySignal(int signal, int tid) {
  struct sigaction defaultAction = {};
  defaultAction.sa_handler = SIG_DFL;
  sigemptyset(&defaultAction.sa_mask);
  sigaction(signal, &defaultAction, nullptr);
  syscall(SYS_tgkill, getpid(), tid, signal);
  sigset_t unblock;
  sigemptyset(&unblock);
  sigaddset(&unblock, signal);
  pthread_sigmask(SIG_UNBLOCK, &unblock, nullptr);
  // A fault returns to the faulting instruction and faults again with the
  // default action in place.
}

// The instruction and stack pointers of a signal context.
struct Resume {
  std::uint64_t ip = 0;
  std::uint64_t sp = 0;
  bool operator==(const Resume&) const = default;
};

Resume resumeOf(const void* context) {
  const auto* uc = static_cast<const ucontext_t*>(context);
  if (uc == nullptr) return {};
#if defined(__x86_64__)
  return {static_cast<std::uint64_t>(uc->uc_mcontext.gregs[REG_RIP]),
          static_cast<std::uint64_t>(uc->uc_mcontext.gregs[REG_RSP])};
#elif defined(__aarch64__)
  return {uc->uc_mcontext.pc, uc->uc_mcontext.sp};
#else
  return {};
#endif
}

// The fault a chained-first handler returned from without changing the
// context, per thread: the same fault again means it did not handle it.
// Initial-exec TLS: a plain memory access, safe in a handler.
struct LastReturnedFault {
  int signal = 0;
  Resume at;
};
__attribute__((tls_model("initial-exec"))) thread_local LastReturnedFault tReturnedFault;

// With chainFirst: runs the earlier handler before anything of ours. True
// when it handled the signal and the thread should go on: it moved the
// instruction or stack pointer (the runtime turned the fault into its own
// exception), or it returned from a signal someone sent, or it returned
// from a fault that does not come back when the instruction runs again.
bool earlierHandlerHandled(const HandlerState& state, int signal, siginfo_t* info,
                           void* context) {
  const int index = signalIndex(signal);
  if (index < 0) return false;
  const struct sigaction& previous = state.previous[index];
  if (previous.sa_handler == SIG_DFL || previous.sa_handler == SIG_IGN) return false;
  const Resume before = resumeOf(context);
  const bool fault = info != nullptr && info->si_code > 0;
  if (fault && tReturnedFault.signal == signal && tReturnedFault.at == before) {
    tReturnedFault = {};
    return false;  // it returned last time and the fault came back: not handled
  }
  callPrevious(previous, signal, info, context);
  if (!(resumeOf(context) == before)) return true;
  if (!fault) return true;
  tReturnedFault = {signal, before};  // run the instruction again and see
  return true;
}

void onFatalSignal(int signal, siginfo_t* info, void* context) {
  const int savedErrno = errno;
  const HandlerState* state = gState.load(std::memory_order_acquire);
  if (state != nullptr && state->chainFirst && gWriterThread.load() == 0 &&
      earlierHandlerHandled(*state, signal, info, context)) {
    errno = savedErrno;
    return;
  }
  const int tid = static_cast<int>(syscall(SYS_gettid));
  int owner = 0;
  if (gWriterThread.compare_exchange_strong(owner, tid)) {
    if (state != nullptr && state->writeReports && !gSuppress.load()) {
      writeReport(*state, signal, info, context, tid);
    }
    gWriterFinished.store(true);
    const int index = signalIndex(signal);
    // With chainFirst the earlier handler has had its turn already.
    if (state != nullptr && !state->chainFirst && index >= 0) {
      callPrevious(state->previous[index], signal, info, context);
    }
  } else if (owner != tid) {
    // Another thread crashed first and is writing its report; that thread
    // ends the process. Wait for it, bounded, then die by our own signal.
    for (int waited = 0; waited < kWaitForWriterMilliseconds && !gWriterFinished.load(); ++waited) {
      timespec oneMillisecond{0, 1000000};
      nanosleep(&oneMillisecond, nullptr);
    }
  }
  // owner == tid: a fault inside this handler or inside a chained one; go
  // straight to the default action, writing nothing more.
  dieBySignal(signal, tid);
  errno = savedErrno;
}

// The GNU build id from a module's mapped PT_NOTE segment.
void readBuildId(const char* notes, std::size_t size, std::size_t alignment,
                 SnapshotModule& module) {
  std::size_t at = 0;
  const auto align = [alignment](std::size_t n) { return (n + alignment - 1) & ~(alignment - 1); };
  while (at + sizeof(ElfW(Nhdr)) <= size) {
    ElfW(Nhdr) header;
    std::memcpy(&header, notes + at, sizeof header);
    const std::size_t nameAt = at + sizeof header;
    const std::size_t descAt = nameAt + align(header.n_namesz);
    const std::size_t next = descAt + align(header.n_descsz);
    if (descAt + header.n_descsz > size) return;
    if (header.n_type == NT_GNU_BUILD_ID && header.n_namesz == 4 &&
        std::memcmp(notes + nameAt, "GNU", 4) == 0) {
      module.buildIdLength = static_cast<std::uint32_t>(
          std::min<std::size_t>(header.n_descsz, format::kMaxBuildIdBytes));
      std::memcpy(module.buildId, notes + descAt, module.buildIdLength);
      return;
    }
    at = next;
  }
}

struct SnapshotContext {
  std::vector<SnapshotModule>* modules;
  const std::string* mainProgramPath;
};

int collectModule(dl_phdr_info* info, std::size_t, void* data) {
  auto* context = static_cast<SnapshotContext*>(data);
  SnapshotModule module;
  module.linkName = info->dlpi_name != nullptr ? info->dlpi_name : "";
  module.path = module.linkName.empty() ? *context->mainProgramPath : module.linkName;
  module.bias = info->dlpi_addr;
  std::uint64_t low = UINT64_MAX;
  std::uint64_t high = 0;
  for (ElfW(Half) i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& segment = info->dlpi_phdr[i];
    if (segment.p_type == PT_LOAD) {
      low = std::min<std::uint64_t>(low, segment.p_vaddr);
      high = std::max<std::uint64_t>(high, segment.p_vaddr + segment.p_memsz);
    } else if (segment.p_type == PT_NOTE && module.buildIdLength == 0) {
      readBuildId(reinterpret_cast<const char*>(info->dlpi_addr + segment.p_vaddr), segment.p_memsz,
                  segment.p_align == 8 ? 8 : 4, module);
    }
  }
  if (high > 0) {
    module.start = module.bias + low;
    module.end = module.bias + high;
  }
  context->modules->push_back(std::move(module));
  return 0;
}

// Runs the unwinder once outside any signal handler, so that its one-time
// set-up never happens inside one.
void warmUpUnwinder() {
  unw_context_t here;
  unw_cursor_t cursor;
  if (unw_getcontext(&here) != 0 || unw_init_local(&cursor, &here) != 0) return;
  for (int i = 0; i < 64 && unw_step(&cursor) > 0; ++i) {
  }
}

// The alternate stack a thread got from us, unmapped when the thread ends.
// Owned by its thread (thread_local).
class ThreadAlternateStack {
 public:
  ThreadAlternateStack() = default;
  ThreadAlternateStack(const ThreadAlternateStack&) = delete;
  ThreadAlternateStack& operator=(const ThreadAlternateStack&) = delete;
  ~ThreadAlternateStack() {
    if (memory_ == nullptr) return;
    stack_t current = {};
    if (sigaltstack(nullptr, &current) == 0 &&
        current.ss_sp == static_cast<char*>(memory_) + guard_) {
      stack_t off = {};
      off.ss_flags = SS_DISABLE;
      sigaltstack(&off, nullptr);
    }
    munmap(memory_, bytes_);
  }

  bool install(std::string* error) {
    stack_t current = {};
    if (sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0 &&
        current.ss_size >= kMinUsableAltStackBytes) {
      return true;  // this thread's alternate stack (ours or its owner's) is big enough
    }
    const long page = sysconf(_SC_PAGESIZE);
    const std::size_t guard = page > 0 ? static_cast<std::size_t>(page) : 4096;
    std::size_t size = kAltStackBytes;
    const long minimum = sysconf(_SC_SIGSTKSZ);
    if (minimum > 0) size = std::max(size, static_cast<std::size_t>(minimum) * 4);
    void* memory =
        mmap(nullptr, size + guard, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
      *error = std::string("cannot map the alternate signal stack: ") + std::strerror(errno);
      return false;
    }
    // The lowest page stays inaccessible: an overflow of the handler itself
    // faults instead of writing over other memory.
    mprotect(memory, guard, PROT_NONE);
    stack_t stack = {};
    stack.ss_sp = static_cast<char*>(memory) + guard;
    stack.ss_size = size;
    if (sigaltstack(&stack, nullptr) != 0) {
      *error = std::string("cannot install the alternate signal stack: ") + std::strerror(errno);
      munmap(memory, size + guard);
      return false;
    }
    if (memory_ != nullptr) munmap(memory_, bytes_);  // replaced by a disabled or too small one
    memory_ = memory;
    bytes_ = size + guard;
    guard_ = guard;
    return true;
  }

 private:
  void* memory_ = nullptr;
  std::size_t bytes_ = 0;
  std::size_t guard_ = 0;
};

thread_local ThreadAlternateStack tAlternateStack;

}  // namespace

bool installCrashSignalHandlers(const HandlerSettings& settings, std::string* error) {
  std::lock_guard lock(gInstallMutex);
  if (const HandlerState* existing = gState.load()) {
    if (existing->reportDirectory == settings.reportDirectory) return true;
    *error = "crash capture is already enabled with the report folder " + existing->reportDirectory;
    return false;
  }

  auto state = std::make_unique<HandlerState>();
  state->reportDirectory = settings.reportDirectory;
  state->pendingPrefix =
      settings.reportDirectory + "/" + format::kPendingFileName + std::string("-");
  state->writeReports = settings.writeReports;
  state->chainFirst = settings.chainFirst;
  state->applicationId = settings.applicationId;
  state->applicationVersion = settings.applicationVersion;
  state->incidentIdentifier = support::randomUuid();
  state->processName =
      program_invocation_short_name != nullptr ? program_invocation_short_name : "";
  utsname system = {};
  if (uname(&system) == 0) state->osRelease = system.release;
  std::error_code ignored;
  const std::string mainProgramPath =
      std::filesystem::read_symlink("/proc/self/exe", ignored).string();
  SnapshotContext snapshot{&state->modules, &mainProgramPath};
  dl_iterate_phdr(collectModule, &snapshot);

  warmUpUnwinder();
  if (!tAlternateStack.install(error)) return false;

  HandlerState* published = state.release();  // lives for the process: handlers read it
  gState.store(published, std::memory_order_release);
  for (std::size_t i = 0; i < kSignalCount; ++i) {
    struct sigaction action = {};
    action.sa_sigaction = onFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    if (sigaction(kSignals[i], &action, &published->previous[i]) != 0) {
      *error = std::string("cannot install the handler for signal ") + std::to_string(kSignals[i]) +
               ": " + std::strerror(errno);
      for (std::size_t j = 0; j < i; ++j) sigaction(kSignals[j], &published->previous[j], nullptr);
      gState.store(nullptr);
      return false;
    }
  }
  return true;
}

bool installAlternateSignalStackOnThisThread(std::string* error) {
  std::string ignored;
  return tAlternateStack.install(error != nullptr ? error : &ignored);
}

void setSuppressCurrentCrash() noexcept {
  gSuppress.store(true);
}

}  // namespace velquin::crash
