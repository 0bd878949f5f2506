// Events survive whatever happens to the process or the backend: a host
// killed in the middle of sending, a backend that is down, one that fails a
// share of calls, and a damaged cache file. Runs the command-line host as
// the host process against the sandbox over TLS.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "SandboxFixture.h"
#include "support/ChildProcess.h"

namespace velquin::testing {
namespace {

using namespace std::chrono_literals;

class Durability : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    writeWorkingTokenFile();
  }

  std::string program() const { return (binDir() / "velquin").string(); }

  nlohmann::json run(const std::vector<std::string>& args) { return runHost(args); }

  // Two hosts storing `count` events each ("ev_first", "ev_second") at the
  // same time over the one data folder; every event must be stored.
  void runTwoHostsAtOnce(const std::string& count, const std::string& wait) {
    auto host = [&](const char* name) {
      return std::async(std::launch::async, [this, count, wait, name] {
        return run({"track-many", count, "--name", name, "--wait", wait});
      });
    };
    auto first = host("ev_first");
    auto second = host("ev_second");
    for (auto* result : {&first, &second}) {
      auto outcome = result->get();
      ASSERT_TRUE(outcome.is_object()) << outcome.dump();
      EXPECT_EQ(outcome["notStored"], 0) << outcome.dump();
    }
  }

  // Flushes the cache, then checks that the backend got `expected` distinct
  // (name, seq) events and none of them twice.
  void expectEachEventOnceAfterAFlush(std::size_t expected) {
    auto flushed = run({"flush", "--wait", "60"});
    EXPECT_EQ(flushed["remaining"], 0);
    std::map<std::pair<std::string, long>, int> seen;
    for (const auto& event : server->events()) {
      auto value = nlohmann::json::parse(event.value, nullptr, false);
      if (value.is_object() && value.contains("seq")) {
        ++seen[{event.name, value["seq"].get<long>()}];
      }
    }
    EXPECT_EQ(seen.size(), expected);
    int repeated = 0;
    for (const auto& [key, times] : seen) repeated += times - 1;
    EXPECT_EQ(repeated, 0);
  }

  // The sequence numbers the backend received, with how often each came.
  std::map<long, int> receivedSequence() {
    std::map<long, int> seen;
    for (const auto& event : server->events()) {
      auto value = nlohmann::json::parse(event.value, nullptr, false);
      if (value.is_object() && value.contains("seq")) ++seen[value["seq"].get<long>()];
    }
    return seen;
  }
};

TEST_F(Durability, EveryAcknowledgedEventArrivesAfterAKill) {
  const auto ackFile = env.root() / "acks.txt";
  std::random_device entropy;
  // Counted from the host's first stored event, so a slow start on a busy
  // machine cannot leave nothing to check.
  const int killAfterMs = std::uniform_int_distribution<int>(100, 1100)(entropy);
  std::cout << "killing the host " << killAfterMs << " ms after its first stored event\n";

  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, STDOUT_FILENO);
    dup2(devnull, STDERR_FILENO);
    std::string bundle = env.bundleDir().string();
    std::string acks = ackFile.string();
    execl(program().c_str(), "velquin", "--bundle", bundle.c_str(), "track-many", "20000",
          "--ack-file", acks.c_str(), "--wait", "120", static_cast<char*>(nullptr));
    _exit(127);
  }
  // The first line of the ack file: the host is up and storing. The bound
  // only keeps a broken host from hanging the test.
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  const auto storing = [&] {
    std::error_code missing;  // the file does not exist until the host opens it
    const auto size = std::filesystem::file_size(ackFile, missing);
    return !missing && size > 0;
  };
  while (!storing() && waitpid(child, nullptr, WNOHANG) == 0 &&
         std::chrono::steady_clock::now() < giveUp) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(killAfterMs));
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status)) << "the host finished before it could be killed";

  std::set<long> acknowledged;
  {
    std::ifstream in(ackFile);
    long seq;
    while (in >> seq) acknowledged.insert(seq);
  }
  ASSERT_FALSE(acknowledged.empty()) << "no event was acknowledged before the kill";

  const auto beforeRestart = receivedSequence();
  auto flushed = run({"flush", "--wait", "120"});
  ASSERT_TRUE(flushed.is_object());
  EXPECT_EQ(flushed["remaining"], 0);

  auto received = receivedSequence();
  std::vector<long> missing;
  long duplicates = 0;
  long resentAfterKill = 0;  // sent by the killed host and again by the restarted one
  long twiceByRestarted = 0;
  for (long seq : acknowledged) {
    if (!received.count(seq)) missing.push_back(seq);
  }
  for (const auto& [seq, times] : received) {
    duplicates += times - 1;
    auto before = beforeRestart.find(seq);
    const int earlier = before == beforeRestart.end() ? 0 : before->second;
    const int later = times - earlier;
    if (earlier > 0 && later > 0) ++resentAfterKill;
    if (later > 1) twiceByRestarted += later - 1;
  }
  std::cout << acknowledged.size() << " acknowledged, " << received.size() << " distinct received, "
            << duplicates << " duplicates, " << resentAfterKill << " sent again after the kill\n";
  RecordProperty("acknowledged", static_cast<int>(acknowledged.size()));
  RecordProperty("duplicates", static_cast<int>(duplicates));
  EXPECT_TRUE(missing.empty()) << missing.size() << " acknowledged events never arrived, first "
                               << missing.front();
  // Only the calls in flight at the kill may arrive twice; the restarted
  // process never sends a row twice itself.
  EXPECT_EQ(twiceByRestarted, 0);
  EXPECT_LE(resentAfterKill, 3);
  EXPECT_EQ(duplicates, resentAfterKill);
}

TEST_F(Durability, ANormalExitWaitsForTheCallsInFlightAndTheNextStartSendsNoneAgain) {
  // Every answer comes a second late: the host's three calls are still in
  // flight when it returns from main.
  sandbox::FaultOptions slow;
  slow.delayMs = 1000;
  server->setFaults(slow);
  setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // the SDK's singletons live for the process
  auto exited = ChildProcess::run((binDir() / "exiting_host").string(),
                                  {env.bundleDir().string(), "0", "3", "60000"},
                                  std::chrono::seconds(180), /*withStderr=*/true);
  ASSERT_TRUE(exited.finished && exited.signal == 0 && exited.exitCode == 0) << exited.output;
  const auto exitEvents = [&] {
    std::map<long, int> seen;
    for (const auto& event : server->events()) {
      auto value = nlohmann::json::parse(event.value, nullptr, false);
      if (event.name == "ev_exit" && value.is_object()) ++seen[value["seq"].get<long>()];
    }
    return seen;
  };
  // The backend stores an event before it answers: the exit waited for the
  // answers, so all three are there once the host is gone.
  EXPECT_EQ(exitEvents(), (std::map<long, int>{{0, 1}, {1, 1}, {2, 1}}));

  server->setFaults({});
  auto flushed = run({"flush", "--wait", "60"});
  EXPECT_EQ(flushed["remaining"], 0);
  EXPECT_EQ(exitEvents(), (std::map<long, int>{{0, 1}, {1, 1}, {2, 1}}));
}

class DurabilityWithFailures : public Durability {
  sandbox::FaultOptions initialFaults() override {
    sandbox::FaultOptions faults;
    faults.failureRate["FireEvent"] = 0.3;
    return faults;
  }
};

TEST_F(DurabilityWithFailures, AShareOfFailedCallsLosesNothing) {
  auto result = run({"track-many", "400", "--wait", "60"});
  ASSERT_TRUE(result.is_object());
  EXPECT_EQ(result["remaining"], 0);
  auto received = receivedSequence();
  EXPECT_EQ(received.size(), 400u);
  EXPECT_GT(server->calls("FireEvent").size(), 400u);  // some calls did fail
}

TEST_F(Durability, ABackendThatIsDownLosesNothing) {
  const int port = server->port();
  // Start-up needs the backend once (Init hands the app key to events).
  ASSERT_EQ(run({"track", "ev_before"})["delivered"], true);
  server->stop();

  auto offline = run({"track-many", "50", "--wait", "2"});
  ASSERT_TRUE(offline.is_object());
  EXPECT_EQ(offline["remaining"], 50);

  sandbox::SandboxOptions options;
  options.dataDir = env.root() / "sandbox";
  options.port = port;
  server = std::make_unique<sandbox::SandboxServer>(options);
  ASSERT_TRUE(server->start());
  auto flushed = run({"flush", "--wait", "60"});
  EXPECT_EQ(flushed["remaining"], 0);
  EXPECT_EQ(receivedSequence().size(), 50u);
}

TEST_F(Durability, ADamagedCacheFileIsSetAsideAndEventsStillFlow) {
  auto dataDir = env.root() / "data" / env.bundleId();
  std::filesystem::create_directories(dataDir);
  { std::ofstream(dataDir / "ZKFMDB.sqlite") << "this is not a database, only text"; }
  auto result = run({"track", "ev_after_damage", "{\"k\":1}"});
  ASSERT_TRUE(result.is_object());
  EXPECT_EQ(result["delivered"], true);
  bool setAside = false;
  for (const auto& entry : std::filesystem::directory_iterator(dataDir)) {
    setAside |= entry.path().filename().string().find("ZKFMDB.sqlite.corrupt") == 0;
  }
  EXPECT_TRUE(setAside);
}

TEST_F(Durability, TwoProcessesSharingTheCacheLoseAndRepeatNothing) {
  const int port = server->port();
  ASSERT_EQ(run({"track", "ev_before"})["delivered"], true);
  server->stop();
  // Both hosts write the one cache at once, with request ids made from the
  // same clock: many of them collide.
  runTwoHostsAtOnce("500", "2");

  sandbox::SandboxOptions options;
  options.dataDir = env.root() / "sandbox";
  options.port = port;
  server = std::make_unique<sandbox::SandboxServer>(options);
  ASSERT_TRUE(server->start());
  expectEachEventOnceAfterAFlush(1000);
}

TEST_F(Durability, TwoProcessesSendingAtOnceNeverSendARowTwice) {
  // Each host uploads the shared cache whenever it falls idle, and so
  // reads the rows the other one is sending.
  ASSERT_EQ(run({"track", "ev_before"})["delivered"], true);
  runTwoHostsAtOnce("1500", "60");
  expectEachEventOnceAfterAFlush(3000);
}

TEST_F(Durability, HostileInputIsRefusedWithAClearErrorAndNothingStored) {
  auto refused = [&](const std::vector<std::string>& args, const std::string& says) {
    int status = 0;
    auto result = runHost(args, &status);
    EXPECT_NE(status, 0) << result.dump();
    ASSERT_TRUE(result.is_object()) << "no JSON answer for " << args.front();
    ASSERT_TRUE(result.contains("error")) << result.dump();
    EXPECT_NE(result["error"]["message"].get<std::string>().find(says), std::string::npos)
        << result.dump();
  };
  refused({"track", "ev_\xff\xfe"}, "UTF-8");
  refused({"track", "ev_params", "{\"k\":\"\xc3\x28\"}"}, "JSON");
  std::string deep = "{\"k\":" + std::string(50000, '[') + std::string(50000, ']') + "}";
  refused({"track", "ev_deep", deep}, "deeper");
  refused({"track-many", "-1"}, "whole number");
  refused({"track-many", "1e3"}, "whole number");
  refused({"track-many", "10x"}, "whole number");
  refused({"track", "ev_wait", "--wait", "nan"}, "--wait");
  refused({"flush", "--wait", "-5"}, "--wait");
  refused({"track-many", "1", "--ack-file", (env.root() / "missing" / "acks").string()},
          "ack file");

  // Nothing of it reached the cache or the backend.
  auto flushed = run({"flush", "--wait", "10"});
  EXPECT_EQ(flushed["remaining"], 0);
  for (const auto& event : server->events()) {
    EXPECT_TRUE(event.name.starts_with("ev_first_open") || event.name.starts_with("ev_app_start"))
        << event.name;
  }

  int status = -1;
  runHost({"-h"}, &status);
  EXPECT_EQ(status, 0);
  runHost({"track", "--help"}, &status);
  EXPECT_EQ(status, 0);
}

TEST_F(Durability, WithoutAUsableCacheEventsGoOutButAreNotCalledStored) {
  // The database file's place is taken by a folder: no database.
  std::filesystem::create_directories(env.root() / "data" / env.bundleId() / "ZKFMDB.sqlite");
  auto result = run({"track", "ev_undurable"});
  ASSERT_TRUE(result.is_object()) << result.dump();
  EXPECT_EQ(result["stored"], false);
  EXPECT_EQ(result["delivered"], true);  // the backend acknowledged it

  server->stop();
  result = run({"track", "ev_lost", "--wait", "2"});
  ASSERT_TRUE(result.is_object()) << result.dump();
  EXPECT_EQ(result["stored"], false);
  EXPECT_EQ(result["delivered"], false);
}

TEST_F(Durability, AUserIdThatIsNotUtf8IsNeverStored) {
  auto first = run({"user-id"});
  ASSERT_TRUE(first.is_object()) << first.dump();
  const std::string before = first["userId"];
  auto refused = run({"user-info", "--user-id", "\xff\xfe"});
  ASSERT_TRUE(refused.is_object()) << refused.dump();
  EXPECT_EQ(refused["error"]["code"], 103);  // reported, not uploaded under the old id
  // Later starts neither abort nor see the refused id.
  auto later = run({"track", "ev_after_bad_id"});
  ASSERT_TRUE(later.is_object()) << later.dump();
  EXPECT_EQ(later["delivered"], true);
  auto after = run({"user-id"});
  ASSERT_TRUE(after.is_object()) << after.dump();
  EXPECT_EQ(after["userId"], before);
}

TEST_F(Durability, APathLikeBundleIdentifierFallsBackToTheDefaultName) {
  {
    std::ofstream out(env.bundleDir() / "Info.plist");
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
        << "<key>CFBundleIdentifier</key><string>../../escape</string>"
        << "<key>CFBundleShortVersionString</key><string>1.0</string>"
        << "<key>CFBundleVersion</key><string>1</string></dict></plist>\n";
  }
  auto result = run({"track", "ev_contained", "--wait", "10"});
  ASSERT_TRUE(result.is_object()) << result.dump();
  EXPECT_FALSE(std::filesystem::exists(env.root() / "escape"));
  EXPECT_FALSE(std::filesystem::exists(env.root().parent_path() / "escape"));
  EXPECT_TRUE(std::filesystem::exists(env.root() / "data" / "velquin.app" / "ZKFMDB.sqlite"));
}

}  // namespace
}  // namespace velquin::testing
