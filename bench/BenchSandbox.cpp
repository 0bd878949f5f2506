#include "BenchSandbox.h"

#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
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

double BenchSandbox::cpuSeconds() const {
  if (pid_ <= 0) return 0;
  std::ifstream stat("/proc/" + std::to_string(pid_) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) return 0;
  auto close = line.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream rest(line.substr(close + 2));
  std::string field;
  double ticks = 0;
  for (int index = 3; rest >> field && index <= 15; ++index) {
    if (index == 14 || index == 15) ticks += std::stod(field);  // utime, stime
  }
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

long long BenchSandbox::storedEvents() const {
  sqlite3* db = nullptr;
  long long count = -1;
  if (sqlite3_open_v2((dataDir() / "sandbox.sqlite").c_str(), &db, SQLITE_OPEN_READONLY,
                      nullptr) == SQLITE_OK) {
    sqlite3_busy_timeout(db, 1000);
    sqlite3_stmt* query = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT count(*) FROM events", -1, &query, nullptr) == SQLITE_OK &&
        sqlite3_step(query) == SQLITE_ROW) {
      count = sqlite3_column_int64(query, 0);
    }
    sqlite3_finalize(query);
  }
  sqlite3_close(db);
  return count;
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
