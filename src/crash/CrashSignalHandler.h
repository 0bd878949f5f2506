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
// Alternate stack: `enable` maps one alternate signal stack (256 KiB plus a
// guard page) for the enabling thread, unless that thread already has one of
// at least 64 KiB. The handlers are installed with SA_ONSTACK, so a stack
// overflow on the enabling thread is reported. Other threads have no
// alternate stack unless their creator gave them one: a crash there runs the
// handler on the thread's own stack and is reported; a stack overflow there
// cannot run any handler, and the kernel kills the process with SIGSEGV
// without a report.
//
// What the handler calls, and why each is async-signal-safe:
//   std::atomic<int>/<bool> load, store, compare_exchange (lock-free, checked
//     by static_assert): the reentrancy guard and the suppression flag.
//   syscall(SYS_gettid), getpid, syscall(SYS_tgkill): plain system calls.
//   clock_gettime (POSIX async-signal-safe list): crash time and handler time.
//   open, write, close, rename, unlink (POSIX list): the report file, written
//     to a temporary name and renamed into place, so a reader never sees half
//     a report; no fsync (the kernel keeps the data when the process dies; a
//     power loss at that moment loses the report, which we accept to keep the
//     handler fast).
//   nanosleep (POSIX list): a second thread crashing while the first writes
//     waits, at most two seconds, for the first to finish.
//   sigaction, pthread_sigmask (POSIX list): restore the default action and
//     unblock the signal before re-raising it.
//   unw_init_local2 / unw_init_local, unw_getcontext, unw_get_reg, unw_step
//     (libunwind documents its local unwinder as async-signal-safe: its memory
//     comes from its own mmap-backed pools and its caches take their locks
//     with signals blocked). On x86_64 it starts from the kernel's ucontext
//     with UNW_INIT_SIGNAL_FRAME, so the first frame is the faulting
//     instruction. Caveat: libunwind finds unwind tables with dl_iterate_phdr,
//     which takes the loader's recursive lock; a crash on the same thread
//     inside the loader re-enters it, and another thread that holds it is
//     loading a library and releases it.
//   The previous handler (sa_sigaction or sa_handler), as its owner wrote it.
// Nothing else: no allocation, no stdio, no locks, no C++ exceptions; all
// numbers are encoded by hand into a buffer on the handler's stack.
#pragma once

#include <string>

namespace velquin::crash {

struct HandlerSettings {
  std::string reportDirectory;
  std::string applicationId;
  std::string applicationVersion;
};

// Installs the handlers for SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT and
// SIGTRAP. A second call in the same process with the same folder does
// nothing and succeeds; with another folder it fails (one pending report per
// process). False with `error` set when a handler or the alternate stack
// cannot be installed.
bool installCrashSignalHandlers(const HandlerSettings& settings, std::string* error);

// Makes the handler skip writing for the crash under way. Lock-free.
void setSuppressCurrentCrash() noexcept;

}  // namespace velquin::crash
