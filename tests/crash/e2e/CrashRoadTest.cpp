// The whole road of a crash: the command-line host crashes on purpose after
// start-up (a fatal signal, a crash on another thread, a stack overflow, an
// uncaught exception); the next start sends what was captured to the
// sandbox backend over TLS, once.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include <SQLiteCpp/SQLiteCpp.h>

#include "SandboxFixture.h"
#include "support/ChildProcess.h"

namespace velquin::testing {
namespace {

using HostRun = ChildRun;

class CrashRoad : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    writeWorkingTokenFile();
    // The hosts crash on purpose: no core files.
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
  }

  // Runs the host over the test's bundle and waits for it to end; the
  // output holds its standard output and error.
  HostRun host(const std::vector<std::string>& args) {
    std::vector<std::string> words{"--bundle", env.bundleDir().string()};
    words.insert(words.end(), args.begin(), args.end());
    HostRun run =
        ChildProcess::run((binDir() / "velquin").string(), words, std::chrono::seconds(120), true);
    EXPECT_TRUE(run.finished) << "the host hung:\n" << run.output;
    return run;
  }

  // The next start: start-up delivers what the last run captured, and the
  // flush waits until the backend has taken every cached event.
  HostRun nextStart() {
    HostRun run = host({"flush", "--wait", "60"});
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_NE(run.output.find("\"remaining\":0"), std::string::npos) << run.output;
    return run;
  }

  std::vector<sandbox::ReceivedEvent> eventsNamed(const std::string& name) {
    std::vector<sandbox::ReceivedEvent> found;
    for (auto& event : server->events()) {
      if (event.name == name) found.push_back(event);
    }
    return found;
  }

  // Regular files in the crash engine's report folder.
  std::size_t filesInReportFolder() {
    std::size_t count = 0;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(
             env.root() / "data" / env.bundleId() / "CrashReports", ec)) {
      count += entry.is_regular_file() ? 1 : 0;
    }
    return count;
  }
};

struct Crash {
  const char* name;
  std::vector<std::string> args;
  int signal;                         // what ends the crashing host
  const char* eventName;              // what the backend receives at the next start
  std::vector<std::string> mentions;  // what the event's text must name
};

void PrintTo(const Crash& crash, std::ostream* out) {
  *out << crash.name;
}

class EachCrash : public CrashRoad, public ::testing::WithParamInterface<Crash> {};

TEST_P(EachCrash, TheNextStartSendsOneEventNamingTheCauseAndTheCrashingFunction) {
  const Crash& crash = GetParam();
  std::vector<std::string> args{"crash"};
  args.insert(args.end(), crash.args.begin(), crash.args.end());
  HostRun crashed = host(args);
  ASSERT_EQ(crashed.signal, crash.signal) << "exit " << crashed.exitCode << ", output:\n"
                                          << crashed.output;

  nextStart();
  auto events = eventsNamed(crash.eventName);
  ASSERT_EQ(events.size(), 1u) << "events: " << server->events().size();
  for (const auto& mention : crash.mentions) {
    EXPECT_NE(events[0].value.find(mention), std::string::npos) << "no \"" << mention << "\" in:\n"
                                                                << events[0].value;
  }
  // One report per crash: the abort that ends an uncaught exception is not
  // reported again by the signal engine, and a signal leaves no exception
  // record.
  const char* other = std::string(crash.eventName) == "fatal_crash" ? "falal_crash" : "fatal_crash";
  EXPECT_TRUE(eventsNamed(other).empty()) << eventsNamed(other)[0].value;
}

INSTANTIATE_TEST_SUITE_P(
    Crashes, EachCrash,
    ::testing::Values(
        Crash{"SEGV", {"--signal", "SEGV"}, SIGSEGV, "fatal_crash", {"SIGSEGV", "crashHostSEGV"}},
        Crash{"BUS", {"--signal", "BUS"}, SIGBUS, "fatal_crash", {"SIGBUS", "crashHostBUS"}},
        Crash{"ILL", {"--signal", "ILL"}, SIGILL, "fatal_crash", {"SIGILL", "crashHostILL"}},
        Crash{"FPE", {"--signal", "FPE"}, SIGFPE, "fatal_crash", {"SIGFPE", "crashHostFPE"}},
        Crash{"ABRT", {"--signal", "ABRT"}, SIGABRT, "fatal_crash", {"SIGABRT", "crashHostABRT"}},
        Crash{"TRAP", {"--signal", "TRAP"}, SIGTRAP, "fatal_crash", {"SIGTRAP", "crashHostTRAP"}},
        Crash{"Thread",
              {"--thread"},
              SIGSEGV,
              "fatal_crash",
              {"SIGSEGV", "crashHostSEGV", "crashHostWorkerThread"}},
        Crash{"StackOverflow",
              {"--stack-overflow"},
              SIGSEGV,
              "fatal_crash",
              {"SIGSEGV", "crashHostStackOverflow"}},
        Crash{"RuntimeError",
              {"--exception"},
              SIGABRT,
              "falal_crash",
              {"Exception reason\uFF1AOptional(\"std::runtime_error\")",
               "Optional(\"velquin crash: an uncaught std::runtime_error\")", "throwStdException"}},
        Crash{"ThrownInt",
              {"--exception", "int"},
              SIGABRT,
              "falal_crash",
              {"Exception reason\uFF1AOptional(\"int\")\n Exception name\uFF1Anil\n", "throwInt"}}),
    [](const ::testing::TestParamInfo<Crash>& param) { return std::string(param.param.name); });

TEST_F(CrashRoad, AReportIsSentByTheFirstStartAfterTheCrashOnly) {
  // SignalTest: an invalid free, which the C library answers with SIGABRT.
  HostRun crashed = host({"crash"});
  ASSERT_EQ(crashed.signal, SIGABRT) << crashed.output;
  EXPECT_GE(filesInReportFolder(), 1u);

  nextStart();
  EXPECT_EQ(filesInReportFolder(), 0u) << "purged once delivered";
  nextStart();
  auto reports = eventsNamed("fatal_crash");
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_NE(reports[0].value.find("signalTest"), std::string::npos) << reports[0].value;
}

TEST_F(CrashRoad, TwoStartsAtOnceAfterOneCrashSendItOnce) {
  ASSERT_EQ(host({"crash", "--signal", "SEGV"}).signal, SIGSEGV);
  const std::vector<std::string> start{"--bundle", env.bundleDir().string(), "flush", "--wait",
                                       "60"};
  ChildProcess a((binDir() / "velquin").string(), start);
  ChildProcess b((binDir() / "velquin").string(), start);
  a.read(std::chrono::seconds(120));
  b.read(std::chrono::seconds(120));
  EXPECT_EQ(a.wait(std::chrono::seconds(120)).exitCode, 0);
  EXPECT_EQ(b.wait(std::chrono::seconds(120)).exitCode, 0);
  nextStart();  // takes whatever the two left cached
  EXPECT_EQ(eventsNamed("fatal_crash").size(), 1u);
  EXPECT_EQ(filesInReportFolder(), 0u);
}

TEST_F(CrashRoad, AnExceptionWhileAnotherProcessHoldsTheWriteLockStillArrivesOnce) {
  nextStart();  // the event cache exists
  const auto database = env.root() / "data" / env.bundleId() / "ZKFMDB.sqlite";
  ASSERT_TRUE(std::filesystem::exists(database));
  {
    SQLite::Database holder(database.string(), SQLite::OPEN_READWRITE);
    holder.exec("BEGIN EXCLUSIVE");
    HostRun crashed = host({"crash", "--exception"});
    ASSERT_EQ(crashed.signal, SIGABRT) << crashed.output;
    holder.exec("COMMIT");
  }
  nextStart();
  nextStart();
  // The record could not be stored, so the engine's report of the abort
  // stands in for it: one report of the crash, not none.
  auto reports = eventsNamed("fatal_crash");
  ASSERT_EQ(reports.size(), 1u) << "falal_crash: " << eventsNamed("falal_crash").size();
  EXPECT_NE(reports[0].value.find("SIGABRT"), std::string::npos) << reports[0].value;
  EXPECT_TRUE(eventsNamed("falal_crash").empty());
}

TEST_F(CrashRoad, ACorruptPendingReportIsPrintedPurgedAndNeverSent) {
  ASSERT_EQ(host({"crash", "--signal", "SEGV"}).signal, SIGSEGV);
  ASSERT_GE(filesInReportFolder(), 1u);
  for (const auto& entry :
       std::filesystem::directory_iterator(env.root() / "data" / env.bundleId() / "CrashReports")) {
    if (entry.is_regular_file()) std::ofstream(entry.path(), std::ios::trunc) << "not a report";
  }

  // The reporter's lines are SDK log lines: printed with the logs on.
  HostRun first = host({"--log", "flush", "--wait", "60"});
  EXPECT_NE(first.output.find("CrashReporter failed to load and parse with error: "),
            std::string::npos)
      << first.output;
  HostRun second = nextStart();
  EXPECT_EQ(second.output.find("CrashReporter failed"), std::string::npos) << "purged";
  EXPECT_TRUE(eventsNamed("fatal_crash").empty());
}

}  // namespace
}  // namespace velquin::testing
