#include "SandboxFixture.h"

#include <sys/wait.h>

#include <cstdio>
#include <thread>

#include "velquin/NotificationCenter.h"
#include "velquin/OVPurchase.h"
#include "velquin/Velquin.h"

namespace velquin::testing {

void SandboxTest::SetUp() {
  sandbox::SandboxOptions options;
  options.dataDir = env.root() / "sandbox";
  options.faults = initialFaults();
  server = std::make_unique<sandbox::SandboxServer>(options);
  std::string error;
  ASSERT_TRUE(server->start(&error)) << error;
  env.installAsMainBundle();
}

void SandboxTest::TearDown() {
  if (server) server->stop();
}

void SandboxTest::writeWorkingTokenFile() {
  env.writeTokenFile({{"api_address", server->address()},
                      {"access_token", server->config().value("access_token", "")},
                      {"app_id", server->config().value("app_id", "")},
                      {"api_root_certificates", server->caCertificatePem()}});
}

bool SandboxTest::configureAndWait(std::chrono::seconds limit) {
  std::mutex mutex;
  std::condition_variable cv;
  bool handled = false;
  auto token = NotificationCenter::defaultCenter().addObserver(
      OVPurchase::kAppConfigHandledNotification, [&](const Notification&) {
        std::lock_guard lock(mutex);
        handled = true;
        cv.notify_all();
      });
  Velquin::shared().configure();
  std::unique_lock lock(mutex);
  bool ok = cv.wait_for(lock, limit, [&] { return handled; });
  lock.unlock();
  NotificationCenter::defaultCenter().removeObserver(token);
  return ok;
}

nlohmann::json SandboxTest::runHost(const std::vector<std::string>& args, int* exitStatus) {
  // Appended piece by piece: GCC 12 at -O2 reports a false -Wrestrict for
  // "literal" + std::string&&.
  std::string command = "'";
  command += (binDir() / "velquin").string();
  command += "' --bundle '" + env.bundleDir().string() + "'";
  for (const auto& arg : args) command += " '" + arg + "'";
  command += " 2>/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  std::string output;
  char buffer[4096];
  while (pipe && fgets(buffer, sizeof buffer, pipe)) output += buffer;
  int status = pipe ? pclose(pipe) : -1;
  if (exitStatus) *exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  while (!output.empty() && output.back() == '\n') output.pop_back();
  auto lastLine = output.substr(output.find_last_of('\n') == std::string::npos
                                    ? 0
                                    : output.find_last_of('\n') + 1);
  return nlohmann::json::parse(lastLine, nullptr, false);
}

bool SandboxTest::waitForCalls(const std::string& method, size_t count,
                               std::chrono::milliseconds limit) {
  auto until = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < until) {
    if (server->calls(method).size() >= count) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

}  // namespace velquin::testing
