#include "BenchSandbox.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace velquin::bench {

BenchSandbox::BenchSandbox() {
  std::string pattern = (std::filesystem::temp_directory_path() / "velquin-bench-XXXXXX").string();
  if (mkdtemp(pattern.data())) work_ = pattern;
}

BenchSandbox::~BenchSandbox() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
  }
  std::error_code ec;
  if (!work_.empty()) std::filesystem::remove_all(work_, ec);
}

bool BenchSandbox::start(const char* extraArguments) {
  std::error_code ec;
  auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
  auto program = self.parent_path() / "velquin-sandbox";
  std::string command = "exec '" + program.string() + "' --data-dir '" + dataDir().string() +
                        "' --write-bundle '" + bundle().string() + "' " + extraArguments +
                        " >'" + (work_ / "sandbox.log").string() + "' 2>&1";
  pid_ = fork();
  if (pid_ == 0) {
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  for (int i = 0; i < 200; ++i) {
    if (std::filesystem::exists(dataDir() / "port") &&
        std::filesystem::exists(bundle() / "velquin-app-token.plist")) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::fprintf(stderr, "velquin-sandbox did not start; see %s\n",
               (work_ / "sandbox.log").c_str());
  return false;
}

}  // namespace velquin::bench
