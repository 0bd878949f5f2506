// The crash report engine: fatal signals caught on an alternate stack and
// written as one pending report file, read back, parsed and formatted as text
// at the next start.
//
// The reporter (CrashReporter) drives it with eight operations, in this
// order: make a configuration, create the engine, enable it, ask whether a
// report is pending, load its bytes, parse them, format the parsed report as
// text, purge the pending report.
//
// Threads: create, enable, load, parse, format and purge run on the thread
// that starts crash capture (once per process). The signal handlers that
// `enable` installs run on whichever thread crashes and only do
// async-signal-safe work (see the engine's implementation header).
// Ownership: the engine object is owned by its creator; the handlers it
// installs, and the state they read, stay for the life of the process even
// after the engine object is gone.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velquin::crash {

// Why an engine operation failed; `description` is the text shown to people.
struct EngineError {
  std::string description;
  // Set by loadPendingCrashReportData when every pending report was claimed
  // by another process in the meantime: nothing failed.
  bool nonePending = false;
};

// Which signal capture and symbol strategy to use, and what the report's
// header names.
struct CrashEngineConfig {
  // 0: POSIX signal handlers, the only capture Linux has.
  static constexpr int kSignalHandlerTypeBSD = 0;
  // Kept as given; symbols are always resolved when formatting, never in the
  // handler.
  static constexpr int kSymbolicationStrategyRuntime = 2;

  int signalHandlerType = kSignalHandlerTypeBSD;
  int symbolicationStrategy = kSymbolicationStrategyRuntime;
  // The folder that holds the pending report (the application's data
  // folder); created when missing.
  std::filesystem::path reportDirectory;
  // Named in the formatted report's header.
  std::string applicationId;
  std::string applicationVersion;
  // The host's earlier signal handler runs first; a signal it handles is no
  // crash (see HandlerSettings::chainFirst in the engine's handler).
  bool chainHostHandlerFirst = false;

  // nullopt for a signal handler type this platform does not have.
  static std::optional<CrashEngineConfig> make(int signalHandlerType, int symbolicationStrategy);
};

// A report read back from its bytes; what it holds is the engine's business.
class ParsedCrashReport;

// Text formats `formatReport` knows.
inline constexpr int kCrashReportTextFormatiOS = 0;

class CrashEngine {
 public:
  virtual ~CrashEngine() = default;

  // Installs the handlers (previous handlers are kept and chained). False,
  // with `error` set, when they cannot be installed.
  virtual bool enable(EngineError* error) = 0;
  // True when an earlier run left a report no running process has claimed.
  virtual bool hasPendingCrashReport() = 0;
  // Claims the oldest pending report for this engine (no other process can
  // read it from then on) and returns its bytes; nullopt, with `error` set,
  // when unreadable or when none is left to claim.
  virtual std::optional<std::vector<std::byte>> loadPendingCrashReportData(EngineError* error) = 0;
  // Null, with `error` set, for bytes that are not a whole report (truncated,
  // garbage, wrong version). Never crashes on any input.
  virtual std::shared_ptr<const ParsedCrashReport> parseCrashReport(
      const std::vector<std::byte>& data, EngineError* error) = 0;
  // The report as readable text; an empty string when it cannot be
  // formatted (the report then stays pending).
  virtual std::string formatCrashReport(const ParsedCrashReport& report, int textFormat) = 0;
  // Removes the report this engine claimed; false when it could not.
  virtual bool purgePendingCrashReport() = 0;
  // Gives the claimed report back, pending, for a later start.
  virtual void releasePendingCrashReport() {}
};

// The Linux engine; null when it cannot be created (no report folder).
std::unique_ptr<CrashEngine> createCrashEngine(const CrashEngineConfig& config);

// Called by the uncaught-exception hook after it has stored its own record
// of the crash: the abort that follows still runs the chained handlers and
// still kills the process, but writes no second report. Async-signal-safe.
void suppressReportOfCurrentCrash() noexcept;

}  // namespace velquin::crash
