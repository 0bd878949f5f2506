#include "support/Console.h"

#include <cstdio>
#include <mutex>

namespace velquin::support {
namespace {
std::mutex& outputMutex() {
  static std::mutex mutex;
  return mutex;
}
}  // namespace

void printLine(std::string_view line) {
  std::lock_guard lock(outputMutex());
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void warn(std::string_view line) {
  std::lock_guard lock(outputMutex());
  std::fputs("[Velquin] ", stderr);
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fputc('\n', stderr);
  std::fflush(stderr);
}

}  // namespace velquin::support
