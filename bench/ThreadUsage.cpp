#include "ThreadUsage.h"

#include <pthread.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace velquin::bench {

ThreadUsage ThreadUsage::now() {
  ThreadUsage usage;
  const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task", ec)) {
    Sample sample;
    std::ifstream stat(entry.path() / "stat");
    std::string line;
    if (!std::getline(stat, line)) continue;
    // "tid (name) state ..." : the name may hold blanks, so split at the
    // last parenthesis; utime and stime are fields 14 and 15.
    auto open = line.find('(');
    auto close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos) continue;
    sample.name = line.substr(open + 1, close - open - 1);
    std::istringstream rest(line.substr(close + 2));
    std::string field;
    double utime = 0, stime = 0;
    for (int index = 3; rest >> field; ++index) {
      if (index == 14) utime = std::stod(field);
      if (index == 15) {
        stime = std::stod(field);
        break;
      }
    }
    sample.cpuSeconds = (utime + stime) / tick;
    std::ifstream status(entry.path() / "status");
    while (std::getline(status, line)) {
      if (line.starts_with("voluntary_ctxt_switches:") ||
          line.starts_with("nonvoluntary_ctxt_switches:")) {
        sample.switches += std::stoll(line.substr(line.find(':') + 1));
      }
    }
    usage.threads_[std::stoi(entry.path().filename().string())] = sample;
  }
  return usage;
}

std::map<std::string, ThreadCost> ThreadUsage::since(const ThreadUsage& before) const {
  std::map<std::string, ThreadCost> costs;
  for (const auto& [tid, sample] : threads_) {
    Sample start;
    if (auto found = before.threads_.find(tid); found != before.threads_.end()) start = found->second;
    ThreadCost& cost = costs[sample.name];
    cost.cpuSeconds += sample.cpuSeconds - start.cpuSeconds;
    cost.switches += sample.switches - start.switches;
    ++cost.threads;
  }
  return costs;
}

void ThreadUsage::nameThisThread(const char* name) { pthread_setname_np(pthread_self(), name); }

}  // namespace velquin::bench
