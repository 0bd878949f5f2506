// The fatal-signal side of the crash report engine: installs the handlers and
// writes the pending report from inside them.
//
// Installed once per process (`installCrashSignalHandlers`), on the thread
// that enables crash capture. Everything the handler needs is prepared there
// and published through one atomic pointer to a HandlerState that is never
// freed: the folder's paths, the process and application names, the kernel
// release, the previous handlers, and a snapshot of the loaded modules (path,
// load bias, address range, GNU build id read from the mapped PT_NOTE
// segments), taken with dl_iterate_phdr into vectors sized at that moment and
// never changed afterwards.
//
// Modules loaded later: the handler walks the dynamic linker's own list
// (`_r_debug.r_map`, plain memory reads) and writes every module found
// there; one that is also in the snapshot gets the snapshot's range and
// build id, one loaded after `enable` gets its path and load bias only, and
// the formatter reads its range and build id from the file. When the list is
// in the middle of a change (`r_state` not RT_CONSISTENT) the snapshot is
// written instead.
//
// Alternate stack: `enable` maps an alternate signal stack (256 KiB plus a
// guard page) for the enabling thread, unless that thread already has one of
// at least 64 KiB. The handlers are installed with SA_ONSTACK, so a stack
// overflow on the enabling thread is reported. Other threads have no
// alternate stack unless they call installAlternateSignalStackOnThisThread
// (or their creator gave them one): without one, a crash there runs the
// handler on the thread's own stack and is reported, but a stack overflow
// cannot run any handler and the kernel kills the process with SIGSEGV
// without a report. A thread cannot be given a stack from the handler itself,
// and there is no hook that runs when any thread starts.
//
// What the handler calls, and why each is async-signal-safe:
//   std::atomic<int>/<bool>/<pointer> load, store, compare_exchange
//     (lock-free, checked by static_assert): the published state, the
//     reentrancy guard and the suppression flag.
//   syscall(SYS_gettid), syscall(SYS_tgkill), getpid: plain system calls
//     (getpid is on the POSIX async-signal-safe list).
//   clock_gettime (POSIX list): crash time and handler time.
//   open, write, close, rename, unlink (POSIX list): the report is written to
//     "<folder>/.crash-report-<pid>.tmp" and renamed to
//     "<folder>/pending-crash-report-<pid>-<time>" (its own name: a report
//     still pending is never replaced), so a reader never sees half a report;
//     a folder that cannot be written leaves nothing and the process still
//     dies. No fsync: the kernel keeps the data when the process dies; a
//     power loss at that moment loses the report, which we accept to keep
//     the handler fast.
//   memcpy, strlen, strcmp (pure functions on memory; on the POSIX list
//     since its 2016 edition): copying into the handler's stack buffer.
//   nanosleep (POSIX list): a second thread crashing while the first writes
//     waits, at most two seconds, for the first to finish.
//   sigaction, sigemptyset, sigaddset, pthread_sigmask (POSIX list): restore
//     the default action and unblock the signal before re-raising it.
//   unw_init_local2 (x86_64) or unw_getcontext + unw_init_local +
//     unw_is_signal_frame (elsewhere), unw_get_reg, unw_step: libunwind
//     documents its local unwinder as async-signal-safe (memory from its own
//     mmap-backed pools; its caches take their locks with signals blocked),
//     and `enable` runs it once beforehand so its one-time set-up never
//     happens in a handler. On x86_64 it starts from the kernel's ucontext
//     with UNW_INIT_SIGNAL_FRAME, so the first frame is the faulting
//     instruction. Caveat: libunwind finds unwind tables through
//     dl_iterate_phdr, which takes the loader's recursive lock: a crash on
//     the same thread inside the loader re-enters it; another thread holding
//     it is loading a library and lets it go.
//   process_vm_readv on our own pid (a plain system call): the loader's
//     link_map list and module names, which a crash may have damaged, are
//     copied through the kernel, so a bad pointer ends the walk instead of
//     faulting inside the handler.
//   Reads of `_r_debug`, of the HandlerState and of the ucontext and siginfo
//     the kernel passed: plain memory reads.
//   The previous handler (sa_sigaction or sa_handler), as its owner wrote it.
// Nothing else: no allocation, no stdio, no locks, no C++ exceptions; all
// numbers are encoded by hand into a buffer on the handler's stack.
//
// Order in the handler: write the report (unless suppressed), call the
// previous handler, restore the default action and re-raise the signal with
// tgkill, so the process ends by the same signal as it would have without us.
// With chainFirst the previous handler runs before all that, and the handler
// returns when it handled the signal (see HandlerSettings::chainFirst).
// A fault inside the handler or inside the previous handler (the same thread
// entering again) skips straight to the default action.
#pragma once

#include <string>

namespace velquin::crash {

struct HandlerSettings {
  std::string reportDirectory;
  std::string applicationId;
  std::string applicationVersion;
  // False: handlers are installed and chain, but write no report (the
  // folder already holds as many reports as are kept).
  bool writeReports = true;
  // For hosts whose own earlier handler turns faults into work (managed
  // runtimes): that handler runs first, and a signal it handled (it moved
  // the instruction or stack pointer, or returned and the fault did not come
  // back) is no crash: no report, no death. Otherwise as usual, without
  // calling it a second time.
  bool chainFirst = false;
};

// Installs the handlers for SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT and
// SIGTRAP. A second call in the same process with the same folder does
// nothing and succeeds; with another folder it fails (one pending report per
// process). False with `error` set when a handler or the alternate stack
// cannot be installed.
bool installCrashSignalHandlers(const HandlerSettings& settings, std::string* error);

// Gives the calling thread an alternate signal stack, so that a stack
// overflow on it is reported too; unmapped when the thread ends. Does nothing
// when the thread already has one of at least 64 KiB. Meant for long-lived
// threads (the library's own, or a host's); any thread, any time.
bool installAlternateSignalStackOnThisThread(std::string* error);

// Makes the handler skip writing for the crash under way. Lock-free.
void setSuppressCurrentCrash() noexcept;

}  // namespace velquin::crash
