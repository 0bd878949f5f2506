// SignalTest: crashes the process on purpose, so that a host can see its
// crash capture at work (the report arrives at the next start).
//
// Ownership and threads: no state; call from any thread. It never returns.
#pragma once

#include "velquin/Export.h"

namespace velquin {

class VELQUIN_EXPORT SignalTest {
 public:
  // Frees a pointer no allocator handed out (the C library stops the
  // process with SIGABRT on it) and, should that pass, writes to address 1
  // (SIGSEGV).
  [[noreturn]] static void signalTest();
};

}  // namespace velquin
