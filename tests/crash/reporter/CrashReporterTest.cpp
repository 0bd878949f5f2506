// The crash reporter over a scripted engine: which engine operations run,
// what the completion receives, what is printed and when the pending report
// is purged, for every way the engine can answer.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "crash/CrashReporter.h"
#include "support/OVUtils.h"
#include "support/TempEnvironment.h"

namespace velquin::testing {
namespace {

using crash::CrashEngine;
using crash::CrashEngineConfig;
using crash::EngineError;
using crash::ParsedCrashReport;

// What the scripted engine answers, and what it saw.
struct Script {
  bool enables = true;
  bool pending = true;
  bool loads = true;
  bool parses = true;
  std::string text = "Incident Identifier: 1\nException Type:  SIGSEGV";
  std::vector<std::string> calls;
  std::optional<CrashEngineConfig> config;
};

// The engine's parsed report is opaque: the fake hands out its own object
// under that type and reads it back in formatCrashReport.
struct FakeReport {
  std::string text;
};

class ScriptedEngine final : public CrashEngine {
 public:
  explicit ScriptedEngine(Script& script) : script_(script) {}
  bool enable(EngineError* error) override {
    script_.calls.push_back("enable");
    if (!script_.enables) error->description = "sigaltstack failed";
    return script_.enables;
  }
  bool hasPendingCrashReport() override {
    script_.calls.push_back("pending");
    return script_.pending;
  }
  std::optional<std::vector<std::byte>> loadPendingCrashReportData(EngineError* error) override {
    script_.calls.push_back("load");
    if (!script_.loads) {
      error->description = "the pending report could not be read";
      return std::nullopt;
    }
    return std::vector<std::byte>{std::byte{1}, std::byte{2}};
  }
  std::shared_ptr<const ParsedCrashReport> parseCrashReport(const std::vector<std::byte>& data,
                                                            EngineError* error) override {
    script_.calls.push_back("parse");
    EXPECT_EQ(data.size(), 2u);
    if (!script_.parses) {
      error->description = "truncated report";
      return nullptr;
    }
    auto report = std::make_shared<FakeReport>(FakeReport{script_.text});
    return {report, reinterpret_cast<const ParsedCrashReport*>(report.get())};
  }
  std::string formatCrashReport(const ParsedCrashReport& report, int textFormat) override {
    script_.calls.push_back("format");
    EXPECT_EQ(textFormat, crash::kCrashReportTextFormatiOS);
    return reinterpret_cast<const FakeReport&>(report).text;
  }
  bool purgePendingCrashReport() override {
    script_.calls.push_back("purge");
    script_.pending = false;
    return true;
  }

 private:
  Script& script_;
};

struct Delivery {
  int completions = 0;
  std::optional<std::string> text;
  std::optional<Error> error;
  std::size_t callsAtCompletion = 0;
  std::string printed;
};

class CrashReporterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    env.installAsMainBundle();
    OVUtils::enableLogs(true);
  }
  void TearDown() override { OVUtils::enableLogs(false); }

  Delivery start(bool engineMade = true) {
    CrashReporter reporter(
        [this, engineMade](const CrashEngineConfig& config) -> std::unique_ptr<CrashEngine> {
          script.config = config;
          if (!engineMade) return nullptr;
          return std::make_unique<ScriptedEngine>(script);
        });
    Delivery delivery;
    ::testing::internal::CaptureStdout();
    reporter.startCrashReporter(
        [&](const std::optional<std::string>& text, const std::optional<Error>& error) {
          ++delivery.completions;
          delivery.text = text;
          delivery.error = error;
          delivery.callsAtCompletion = script.calls.size();
        });
    delivery.printed = ::testing::internal::GetCapturedStdout();
    return delivery;
  }

  TempEnvironment env;
  Script script;
};

using Calls = std::vector<std::string>;

TEST_F(CrashReporterTest, DeliversAFormattedReportOnceThenPurgesIt) {
  auto delivery = start();
  ASSERT_EQ(delivery.completions, 1);
  EXPECT_EQ(delivery.text, script.text);
  EXPECT_FALSE(delivery.error);
  EXPECT_EQ(delivery.printed, "");
  EXPECT_EQ(script.calls,
            (Calls{"enable", "pending", "load", "parse", "format", "purge", "pending"}));
  EXPECT_EQ(delivery.callsAtCompletion, 5u) << "purged only after the completion ran";

  // The engine is made for this application: POSIX signals, strategy 2, its
  // report folder inside the application's data folder.
  ASSERT_TRUE(script.config);
  EXPECT_EQ(script.config->signalHandlerType, 0);
  EXPECT_EQ(script.config->symbolicationStrategy, 2);
  EXPECT_EQ(script.config->applicationId, env.bundleId());
  EXPECT_EQ(script.config->applicationVersion, "2.3 (45)");
  EXPECT_EQ(script.config->reportDirectory, env.root() / "data" / env.bundleId() / "CrashReports");
}

TEST_F(CrashReporterTest, NothingHappensWithoutAnEngineOrWithoutAPendingReport) {
  auto noEngine = start(/*engineMade=*/false);
  EXPECT_EQ(noEngine.completions, 0);
  EXPECT_TRUE(script.calls.empty());

  script.pending = false;
  auto nothingPending = start();
  EXPECT_EQ(nothingPending.completions, 0);
  EXPECT_EQ(nothingPending.printed, "");
  EXPECT_EQ(script.calls, (Calls{"enable", "pending"}));
}

TEST_F(CrashReporterTest, AFailedEnableIsPrintedAndTheEarlierReportStillDelivered) {
  script.enables = false;
  auto delivery = start();
  EXPECT_EQ(delivery.printed, "error: crashReporter\n");
  EXPECT_EQ(delivery.completions, 1);
  EXPECT_EQ(delivery.text, script.text);
  EXPECT_EQ(script.calls.back(), "pending");

  // With the logs off the reporter prints nothing on standard output.
  OVUtils::enableLogs(false);
  script = Script{};
  script.enables = false;
  script.parses = false;
  EXPECT_EQ(start().printed, "");
}

TEST_F(CrashReporterTest, AnEmptyFormattingLeavesTheReportForTheNextStart) {
  script.text.clear();
  auto delivery = start();
  EXPECT_EQ(delivery.completions, 0);
  EXPECT_EQ(delivery.printed, "");
  EXPECT_EQ(script.calls, (Calls{"enable", "pending", "load", "parse", "format"}));
}

TEST_F(CrashReporterTest, AnUnreadableOrUnparsableReportIsReportedPrintedAndPurged) {
  struct Case {
    bool loads;
    std::int64_t code;
    std::string description;
    Calls calls;
  };
  for (const Case& c :
       {Case{false, CrashReporter::kLoadFailed, "the pending report could not be read",
             Calls{"enable", "pending", "load", "purge", "pending"}},
        Case{true, CrashReporter::kParseFailed, "truncated report",
             Calls{"enable", "pending", "load", "parse", "purge", "pending"}}}) {
    SCOPED_TRACE(c.description);
    script = Script{};
    script.loads = c.loads;
    script.parses = false;
    auto delivery = start();
    ASSERT_EQ(delivery.completions, 1);
    EXPECT_FALSE(delivery.text);
    ASSERT_TRUE(delivery.error);
    EXPECT_EQ(delivery.error->domain, CrashReporter::kErrorDomain);
    EXPECT_EQ(delivery.error->code, c.code);
    EXPECT_EQ(delivery.error->message, c.description);
    EXPECT_EQ(delivery.printed,
              "CrashReporter failed to load and parse with error: " + c.description + "\n");
    EXPECT_EQ(script.calls, c.calls);
  }
}

}  // namespace
}  // namespace velquin::testing
