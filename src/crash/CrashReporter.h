// CrashReporter: arms the crash report engine for this run and hands the
// report an earlier run left behind to its caller, as text, once.
//
// startCrashReporter(completion):
//  1. makes the engine configuration (POSIX signals, symbolication strategy
//     2); a configuration this platform cannot make is a programming error
//     and stops the process;
//  2. creates the engine through the factory; without one it returns and
//     the completion is not called;
//  3. enables it; on failure prints "error: crashReporter" and goes on (a
//     report from an earlier run is still read);
//  4. returns without calling the completion when no report is pending;
//  5. loads, parses and formats the pending report:
//     - all succeed: the completion gets the text, then the report is purged;
//     - formatting gives an empty text: returns at once, no completion, the
//       report stays for the next start;
//     - loading or parsing fails: the completion gets the error, the line
//       "CrashReporter failed to load and parse with error: <description>"
//       is printed, and the report is purged.
// So a report is delivered at most once. Lines go to standard output.
//
// Ownership and threads: a CrashReporter holds only its engine factory and
// may be made and dropped freely; the engine it creates is dropped when
// startCrashReporter returns (the handlers it installed stay for the
// process). startCrashReporter runs on the caller's thread and calls the
// completion synchronously on it, at most once, with exactly one of text
// and error set. Arm it once per process (the analytics start does).
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "crash/CrashEngine.h"
#include "velquin/Error.h"

namespace velquin {

class CrashReporter {
 public:
  // The domain and codes of the errors the completion receives.
  static constexpr const char* kErrorDomain = "velquin-crash";
  static constexpr std::int64_t kLoadFailed = 1;
  static constexpr std::int64_t kParseFailed = 2;

  using Completion = std::function<void(const std::optional<std::string>& text,
                                        const std::optional<Error>& error)>;
  // Makes the engine from a configuration; null when it cannot.
  using EngineFactory =
      std::function<std::unique_ptr<crash::CrashEngine>(const crash::CrashEngineConfig&)>;

  // The Linux engine, writing its reports to reportDirectory() and naming
  // the main bundle's identifier and version in them.
  CrashReporter();
  explicit CrashReporter(EngineFactory factory);

  void startCrashReporter(const Completion& completion);

  // Whether the engines made from now on run the host's earlier signal
  // handler first (see crash::HandlerSettings::chainFirst). Process-wide;
  // any thread; default false.
  static void setChainsHostHandlerFirst(bool enabled);

  // Where the default engine keeps the pending report: the "CrashReports"
  // folder of the application's data folder.
  static std::filesystem::path reportDirectory();

 private:
  EngineFactory factory_;  // immutable
};

}  // namespace velquin
