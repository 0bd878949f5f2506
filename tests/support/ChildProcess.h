// A program run as a child process by a test: its standard output (with
// standard error, when asked) through a pipe, and how it ended. Every wait is
// bounded; a child still running at the limit is killed.
//
// Ownership and threads: a ChildProcess owns its pipe and reaps its child
// (killing it first if it still runs) when destroyed. Use from one thread.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

extern char** environ;

namespace velquin::testing {

struct ChildRun {
  bool finished = false;  // false: still running at the limit, then killed
  int signal = 0;         // the signal that ended it, 0 when it exited
  int exitCode = -1;      // its exit status, when it exited
  std::string output;
};

class ChildProcess {
 public:
  // Standard error joins the output with `withStderr`, else goes to /dev/null.
  ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
               bool withStderr = false) {
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    if (withStderr)
      posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
    else
      posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    if (posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ) != 0)
      pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    out_ = fds[0];
  }
  ~ChildProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) close(out_);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }

  // Reads the output until it closes, or until a whole first line came with
  // `firstLineOnly`; at most until `limit` has passed.
  std::string read(std::chrono::milliseconds limit, bool firstLineOnly = false) {
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (out_ >= 0 && !(firstLineOnly && text.find('\n') != std::string::npos)) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) break;
      pollfd pfd{out_, POLLIN, 0};
      const int ready = poll(&pfd, 1, static_cast<int>(left.count()));
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0) break;
      char buffer[4096];
      const ssize_t n = ::read(out_, buffer, sizeof buffer);
      if (n <= 0) break;
      text.append(buffer, static_cast<std::size_t>(n));
    }
    return text;
  }

  // Waits at most `limit` for the child to end, killing it after that.
  ChildRun wait(std::chrono::milliseconds limit) {
    ChildRun result;
    if (pid_ <= 0) return result;
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    if (pidfd >= 0) {
      pollfd exited{pidfd, POLLIN, 0};
      int ready;
      while ((ready = poll(&exited, 1, static_cast<int>(limit.count()))) < 0 && errno == EINTR) {
      }
      close(pidfd);
      if (ready != 1) return result;  // the destructor kills it
    }
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    result.finished = true;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
  }

  // Runs the program to its end: reads all its output, then waits.
  static ChildRun run(const std::string& program, const std::vector<std::string>& arguments,
                      std::chrono::milliseconds limit, bool withStderr = false) {
    ChildProcess child(program, arguments, withStderr);
    std::string output = child.read(limit);
    ChildRun result = child.wait(limit);
    result.output = std::move(output);
    return result;
  }

 private:
  pid_t pid_ = -1;
  int out_ = -1;  // read end of the child's standard output
};

}  // namespace velquin::testing
