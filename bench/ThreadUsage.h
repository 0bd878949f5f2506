// CPU time and context switches of this process's threads, grouped by
// thread name, read from /proc/self/task. The difference of two snapshots
// shows which threads a piece of work kept busy.
#pragma once

#include <map>
#include <string>

namespace velquin::bench {

struct ThreadCost {
  double cpuSeconds = 0;
  long long switches = 0;  // voluntary and involuntary
  int threads = 0;
};

class ThreadUsage {
 public:
  static ThreadUsage now();
  // Per thread name: what was used between `before` and this snapshot.
  std::map<std::string, ThreadCost> since(const ThreadUsage& before) const;
  // The calling thread's name as /proc shows it (at most 15 characters).
  static void nameThisThread(const char* name);

 private:
  struct Sample {
    std::string name;
    double cpuSeconds = 0;
    long long switches = 0;
  };
  std::map<int, Sample> threads_;  // by thread id
};

}  // namespace velquin::bench
