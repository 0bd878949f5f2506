#include "crash/CrashReporter.h"

#include <atomic>
#include <cstdlib>

#include "platform/Env.h"
#include "crash/CrashReportFormat.h"
#include "support/Console.h"
#include "support/OVUtils.h"
#include "velquin/Bundle.h"

namespace velquin {
namespace {

// The reporter's own lines, on standard output while the SDK's logs are on.
void say(const std::string& line) {
  if (OVUtils::shared().isLogEnable) support::printLine(line);
}

}  // namespace

namespace {
std::atomic<bool> gChainsHostHandlerFirst{false};
}  // namespace

void CrashReporter::setChainsHostHandlerFirst(bool enabled) {
  gChainsHostHandlerFirst = enabled;
}

CrashReporter::CrashReporter() : CrashReporter(crash::createCrashEngine) {}

CrashReporter::CrashReporter(EngineFactory factory) : factory_(std::move(factory)) {}

std::filesystem::path CrashReporter::reportDirectory() {
  return platform::Env::standard().dataDirectory() / "CrashReports";
}

void CrashReporter::startCrashReporter(const Completion& completion) {
  auto config =
      crash::CrashEngineConfig::make(crash::CrashEngineConfig::kSignalHandlerTypeBSD,
                                     crash::CrashEngineConfig::kSymbolicationStrategyRuntime);
  if (!config) {
    support::warn("CrashReporter: the crash engine has no POSIX signal configuration");
    std::abort();
  }
  const Bundle& bundle = Bundle::main();
  config->reportDirectory = reportDirectory();
  config->chainHostHandlerFirst = gChainsHostHandlerFirst.load();
  config->applicationId = bundle.bundleIdentifier();
  config->applicationVersion = bundle.shortVersionString();
  if (!bundle.version().empty() && bundle.version() != bundle.shortVersionString()) {
    config->applicationVersion += " (" + bundle.version() + ")";
  }

  std::unique_ptr<crash::CrashEngine> engine = factory_ ? factory_(*config) : nullptr;
  if (!engine) return;

  crash::EngineError enableError;
  if (!engine->enable(&enableError)) {
    say("error: crashReporter");
    // Once per arming, whatever the log switch: without it a crash is lost
    // with no word.
    if (!enableError.description.empty()) support::warn("[crash] " + enableError.description);
  }

  // Every report earlier runs left, each claimed before it is read so that
  // another process starting now never delivers the same one.
  for (std::size_t round = 0;
       round < crash::format::kMaxPendingReports && engine->hasPendingCrashReport(); ++round) {
    crash::EngineError error;
    std::optional<Error> failure;
    if (auto data = engine->loadPendingCrashReportData(&error)) {
      if (auto report = engine->parseCrashReport(*data, &error)) {
        std::string text = engine->formatCrashReport(*report, crash::kCrashReportTextFormatiOS);
        if (text.empty()) {
          engine->releasePendingCrashReport();  // kept for the next start
          return;
        }
        if (completion) completion(std::move(text), std::nullopt);
        engine->purgePendingCrashReport();
        continue;
      }
      failure = Error{kErrorDomain, kParseFailed, error.description};
    } else if (error.nonePending) {
      return;  // the others were claimed by another process
    } else {
      failure = Error{kErrorDomain, kLoadFailed, error.description};
    }
    if (completion) completion(std::nullopt, failure);
    say("CrashReporter failed to load and parse with error: " + failure->message);
    if (!engine->purgePendingCrashReport()) return;
  }
}

}  // namespace velquin
