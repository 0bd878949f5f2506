// The uncaught-exception hook in child processes that really terminate: the
// record it stores for a std::exception and for a terminate with no exception
// at all, and a host's own earlier terminate handler still running after the
// record is stored. (Another thrown type goes the whole road in CrashRoadTest.)
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "crash/OVUncaughtExceptionHandler.h"
#include "support/TempEnvironment.h"

namespace velquin::testing {

// Out of line and named, so the record's stack can be checked for it.
[[gnu::noinline]] void throwForTheHook() {
  throw std::runtime_error("disk \"full\"\nretry \xff");
}

namespace {

// Where the child's writer puts the record; set by each test before it
// forks its child.
std::filesystem::path recordFile;

bool writeRecord(const std::string& record) noexcept {
  std::ofstream out(recordFile, std::ios::binary);
  out << record;
  return static_cast<bool>(out.flush());
}

// Throws on a thread with nothing above it that catches: terminate runs with
// the throwing frames still on the stack.
void* throwOnThread(void*) {
  throwForTheHook();
  return nullptr;
}

[[noreturn]] void terminateUncaught() {
  OVUncaughtExceptionHandler::install(&writeRecord);
  pthread_t thread;
  pthread_create(&thread, nullptr, throwOnThread, nullptr);
  pthread_join(thread, nullptr);
  std::_Exit(99);
}

std::string readRecord() {
  std::ifstream in(recordFile, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class ExceptionHookTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Forked children share this process's temporary folder.
    GTEST_FLAG_SET(death_test_style, "fast");
    // The children abort on purpose: no core files.
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    recordFile = env.root() / "record.txt";
  }
  TempEnvironment env;
};

TEST_F(ExceptionHookTest, AStdExceptionIsRecordedWithNameReasonAndStackThenAborts) {
  EXPECT_EXIT(terminateUncaught(), ::testing::KilledBySignal(SIGABRT), "");
  const std::string record = readRecord();
  // The labels are crossed: the name follows the reason label.
  const std::string head =
      "Exception reason\uFF1AOptional(\"std::runtime_error\")\n"
      " Exception name\uFF1AOptional(\"disk \\\"full\\\"\\nretry \uFFFD\")\n"
      "Exception stack\uFF1A[\"0 ";
  EXPECT_EQ(record.substr(0, head.size()), head) << record;
  EXPECT_NE(record.find("velquin::testing::throwForTheHook() + "), std::string::npos) << record;
  EXPECT_EQ(record.back(), ']');
  EXPECT_EQ(record.find('\n', head.size()), std::string::npos) << "one line per value";
}

TEST_F(ExceptionHookTest, ATerminateWithNoExceptionStillHasEveryLabel) {
  EXPECT_EXIT(
      {
        OVUncaughtExceptionHandler::install(&writeRecord);
        std::terminate();
      },
      ::testing::KilledBySignal(SIGABRT), "");
  EXPECT_EQ(readRecord(),
            "Exception reason\uFF1Anil\n Exception name\uFF1Anil\nException stack\uFF1Anil");
}

// The host's handler ends the process its own way: 7 when the record was
// already stored when it ran, 8 otherwise.
void hostTerminateHandler() {
  std::_Exit(std::filesystem::exists(recordFile) ? 7 : 8);
}

TEST_F(ExceptionHookTest, TheHostsEarlierHandlerRunsAfterTheRecordIsStored) {
  EXPECT_EXIT(
      {
        std::set_terminate(hostTerminateHandler);
        if (!OVUncaughtExceptionHandler::install(&writeRecord)) std::_Exit(2);
        if (OVUncaughtExceptionHandler::install(&writeRecord)) std::_Exit(3);  // once only
        terminateUncaught();
      },
      ::testing::ExitedWithCode(7), "");
  EXPECT_NE(readRecord().find("std::runtime_error"), std::string::npos);
}

}  // namespace
}  // namespace velquin::testing
