#include "crash/CrashReporter.h"

#include <cstdlib>

#include "platform/Env.h"
#include "support/Console.h"
#include "velquin/Bundle.h"

namespace velquin {

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
  config->applicationId = bundle.bundleIdentifier();
  config->applicationVersion = bundle.shortVersionString();
  if (!bundle.version().empty() && bundle.version() != bundle.shortVersionString()) {
    config->applicationVersion += " (" + bundle.version() + ")";
  }

  std::unique_ptr<crash::CrashEngine> engine = factory_ ? factory_(*config) : nullptr;
  if (!engine) return;

  crash::EngineError enableError;
  if (!engine->enable(&enableError)) support::printLine("error: crashReporter");

  if (!engine->hasPendingCrashReport()) return;

  crash::EngineError error;
  std::optional<Error> failure;
  if (auto data = engine->loadPendingCrashReportData(&error)) {
    if (auto report = engine->parseCrashReport(*data, &error)) {
      std::string text = engine->formatCrashReport(*report, crash::kCrashReportTextFormatiOS);
      if (text.empty()) return;  // kept for the next start
      if (completion) completion(std::move(text), std::nullopt);
      engine->purgePendingCrashReport();
      return;
    }
    failure = Error{kErrorDomain, kParseFailed, error.description};
  } else {
    failure = Error{kErrorDomain, kLoadFailed, error.description};
  }
  if (completion) completion(std::nullopt, failure);
  support::printLine("CrashReporter failed to load and parse with error: " + failure->message);
  engine->purgePendingCrashReport();
}

}  // namespace velquin
