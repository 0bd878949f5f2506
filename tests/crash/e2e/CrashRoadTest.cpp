// The whole road of a crash: the command-line host crashes on purpose after
// start-up (a fatal signal, a crash on another thread, a stack overflow, an
// uncaught exception); the next start sends what was captured to the
// sandbox backend over TLS, once.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "SandboxFixture.h"

extern char** environ;

namespace velquin::testing {
namespace {

struct HostRun {
  int signal = 0;     // the signal that ended it, 0 when it exited
  int exitCode = -1;  // when it exited
  std::string output;  // standard output and error
};

class CrashRoad : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    writeWorkingTokenFile();
    // The hosts crash on purpose: no core files.
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
  }

  // Runs the host over the test's bundle and waits for it to end.
  HostRun host(const std::vector<std::string>& args) {
    const std::string program = (binDir() / "velquin").string();
    const std::string bundle = env.bundleDir().string();
    const std::string outputFile = (env.root() / "host-output.txt").string();
    std::vector<std::string> words{program, "--bundle", bundle};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputFile.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    pid_t pid = 0;
    HostRun run;
    const int spawned = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    EXPECT_EQ(spawned, 0) << std::strerror(spawned);
    if (spawned != 0) return run;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
    if (WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
    std::ifstream in(outputFile);
    std::stringstream text;
    text << in.rdbuf();
    run.output = text.str();
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
  int signal;                        // what ends the crashing host
  const char* eventName;             // what the backend receives at the next start
  std::vector<std::string> mentions;  // what the event's text must name
};

void PrintTo(const Crash& crash, std::ostream* out) { *out << crash.name; }

class EachCrash : public CrashRoad, public ::testing::WithParamInterface<Crash> {};

TEST_P(EachCrash, TheNextStartSendsOneEventNamingTheCauseAndTheCrashingFunction) {
  const Crash& crash = GetParam();
  std::vector<std::string> args{"crash"};
  args.insert(args.end(), crash.args.begin(), crash.args.end());
  HostRun crashed = host(args);
  ASSERT_EQ(crashed.signal, crash.signal)
      << "exit " << crashed.exitCode << ", output:\n" << crashed.output;

  nextStart();
  auto events = eventsNamed(crash.eventName);
  ASSERT_EQ(events.size(), 1u) << "events: " << server->events().size();
  for (const auto& mention : crash.mentions) {
    EXPECT_NE(events[0].value.find(mention), std::string::npos)
        << "no \"" << mention << "\" in:\n" << events[0].value;
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
        Crash{"Thread", {"--thread"}, SIGSEGV, "fatal_crash",
              {"SIGSEGV", "crashHostSEGV", "crashHostWorkerThread"}},
        Crash{"StackOverflow", {"--stack-overflow"}, SIGSEGV, "fatal_crash",
              {"SIGSEGV", "crashHostStackOverflow"}},
        Crash{"RuntimeError", {"--exception"}, SIGABRT, "falal_crash",
              {"Exception reason\uFF1AOptional(\"std::runtime_error\")",
               "Optional(\"velquin crash: an uncaught std::runtime_error\")",
               "throwStdException"}},
        Crash{"ThrownInt", {"--exception", "int"}, SIGABRT, "falal_crash",
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

TEST_F(CrashRoad, ACorruptPendingReportIsPrintedPurgedAndNeverSent) {
  ASSERT_EQ(host({"crash", "--signal", "SEGV"}).signal, SIGSEGV);
  ASSERT_GE(filesInReportFolder(), 1u);
  for (const auto& entry : std::filesystem::directory_iterator(
           env.root() / "data" / env.bundleId() / "CrashReports")) {
    if (entry.is_regular_file()) std::ofstream(entry.path(), std::ios::trunc) << "not a report";
  }

  HostRun first = nextStart();
  EXPECT_NE(first.output.find("CrashReporter failed to load and parse with error: "),
            std::string::npos)
      << first.output;
  HostRun second = nextStart();
  EXPECT_EQ(second.output.find("CrashReporter failed"), std::string::npos) << "purged";
  EXPECT_TRUE(eventsNamed("fatal_crash").empty());
}

}  // namespace
}  // namespace velquin::testing
