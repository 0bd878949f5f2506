// The uncaught-exception hook: a std::set_terminate handler that turns the
// exception the process is dying of into one text record, prints it and
// stores it (through a writer given at install, the request cache's
// fatal-crash record in the library) before the process ends.
//
// The record reads
//   "Exception reason：" NAME "\n Exception name：" REASON "\nException stack：" STACK
// with full-width colons (U+FF1A). The labels are crossed on purpose (the
// name follows the reason label and the reason the name label): the
// backend's crash views are built on this text. Values print in one form:
//   NAME    Optional("std::runtime_error"): the demangled type of the
//           exception (the mangled name when it cannot be demangled); nil
//           when no exception is active;
//   REASON  Optional("what() text") for a std::exception (bytes that are not
//           UTF-8 become U+FFFD); nil for any other type (throw 42) and when
//           no exception is active;
//   STACK   ["0   module  0xADDRESS  symbol + offset", "1   ..."]: the
//           frames of the thread that called terminate, innermost first; nil
//           when no exception is active.
// Inside quotes, '"' and '\' are escaped with '\' and line breaks print as
// "\n", so the text stays one record per value.
//
// What happens after the record is stored: when the writer says it is
// stored (the insert committed), the crash engine is told that this crash is
// reported (velquin::crash::suppressReportOfCurrentCrash), so the abort that
// ends the process is not reported a second time; when it is not (the
// database is locked by another process, the disk is full, there is no
// store), the engine writes its report of the abort as for any crash; then the
// handler that was installed before ours runs (the runtime's default prints
// "terminate called after throwing ..." and aborts; a host's own handler
// keeps working). If that handler returns, the process aborts.
//
// Ownership and threads: the hook is process-wide; install() may be called
// from any thread, at most once per process (later calls are ignored). The
// handler runs on the thread that calls terminate and never waits for
// another thread's work: it builds the text, writes it with write(2) and
// calls the writer synchronously. A second thread that terminates while the
// first is still recording skips the record and aborts at once (the crash
// engine then reports that abort).
#pragma once

#include <string>

namespace velquin {

class OVUncaughtExceptionHandler {
 public:
  OVUncaughtExceptionHandler() = default;

  // Stores one record; called on the terminating thread, must not throw.
  // True only when the record is durably stored (its insert committed).
  using Writer = bool (*)(const std::string& record) noexcept;

  // Makes uncaughtExceptionHandler the process's terminate handler, keeping
  // the previous one to chain to; `writer` stores each record. False when a
  // handler was already installed by an earlier call.
  static bool install(Writer writer);

  // The record for the exception being handled on this thread now (see the
  // file comment); all three values nil when there is none.
  static std::string describeCurrentException();
};

// The terminate handler itself (a plain function, as std::set_terminate
// needs): prints and stores the record, then ends the process as described
// above. Never returns.
[[noreturn]] void uncaughtExceptionHandler() noexcept;

}  // namespace velquin
