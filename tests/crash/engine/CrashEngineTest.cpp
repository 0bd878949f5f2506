// The crash report engine end to end: a child process (crash_victim) enables
// the engine and really crashes; the test then loads, parses, formats and
// purges the report it left, as the next start of an application would.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "crash/CrashEngine.h"
#include "crash/CrashReport.h"
#include "support/ChildProcess.h"
#include "support/TempEnvironment.h"

namespace velquin::crash {
namespace {

namespace fs = std::filesystem;

using Outcome = velquin::testing::ChildRun;

// Runs crash_victim and waits for it, at most 60 s (a hang fails the test
// instead of stalling the suite).
Outcome runVictim(const std::vector<std::string>& arguments) {
  return velquin::testing::ChildProcess::run((velquin::testing::binDir() / "crash_victim").string(),
                                             arguments, std::chrono::seconds(60), true);
}

struct Delivered {
  ParsedCrashReport report;
  std::string text;
  std::size_t bytes = 0;
};

std::string framesOf(const std::string& text) {
  const auto begin = text.find("Thread 0 Crashed:\n");
  if (begin == std::string::npos) return {};
  return text.substr(begin, text.find("\n\n", begin) - begin);
}

// The crashed thread's header line and its frame 0.
std::string firstFrameOf(const std::string& text) {
  const std::string frames = framesOf(text);
  return frames.substr(0, frames.find('\n', frames.find("\n0 ") + 1));
}

std::vector<std::string> filesIn(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder))
    names.push_back(entry.path().filename().string());
  return names;
}

class CrashEngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "crash-engine-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    root_ = pattern;
    folder_ = root_ / "reports";
  }
  void TearDown() override {
    std::error_code ignored;
    fs::permissions(folder_, fs::perms::owner_all, ignored);
    fs::remove_all(root_, ignored);
  }

  std::unique_ptr<CrashEngine> engine() {
    auto config = CrashEngineConfig::make(CrashEngineConfig::kSignalHandlerTypeBSD,
                                          CrashEngineConfig::kSymbolicationStrategyRuntime);
    if (!config) return nullptr;
    config->reportDirectory = folder_;
    config->applicationId = "com.example.reader";
    config->applicationVersion = "9.9";
    return createCrashEngine(*config);
  }

  // Loads, parses, formats and purges the pending report, as a start does.
  std::optional<Delivered> deliver() {
    auto reader = engine();
    if (!reader || !reader->hasPendingCrashReport()) {
      ADD_FAILURE() << "no crash report is pending";
      return std::nullopt;
    }
    EngineError error;
    auto data = reader->loadPendingCrashReportData(&error);
    if (!data) {
      ADD_FAILURE() << error.description;
      return std::nullopt;
    }
    auto parsed = reader->parseCrashReport(*data, &error);
    if (!parsed) {
      ADD_FAILURE() << error.description;
      return std::nullopt;
    }
    Delivered delivered{*parsed, reader->formatCrashReport(*parsed, kCrashReportTextFormatiOS),
                        data->size()};
    EXPECT_FALSE(delivered.text.empty());
    EXPECT_TRUE(reader->purgePendingCrashReport());
    EXPECT_FALSE(reader->hasPendingCrashReport());
    return delivered;
  }

  static void printFigures(const std::string& what, const Delivered& delivered) {
    std::printf("crash handler (%s): %.3f ms to write the report, %zu bytes\n", what.c_str(),
                static_cast<double>(delivered.report.handlerNanoseconds.value_or(0)) / 1e6,
                delivered.bytes);
  }

  fs::path root_;
  fs::path folder_;
};

struct FatalSignalCase {
  const char* way;
  int signal;
  const char* exceptionType;
  const char* crashingFunction;
};

class FatalSignalTest : public CrashEngineTest,
                        public ::testing::WithParamInterface<FatalSignalCase> {};

TEST_P(FatalSignalTest,
       TheProcessDiesByItsSignalAndTheNextStartReadsAReportNamingTheCrashingFunction) {
  const FatalSignalCase& c = GetParam();
  const Outcome outcome = runVictim({folder_.string(), c.way});
  ASSERT_TRUE(outcome.finished) << "the crashing process hung";
  ASSERT_NE(outcome.signal, 0) << "exit code " << outcome.exitCode << ": " << outcome.output;
  EXPECT_EQ(outcome.signal, c.signal);

  const auto delivered = deliver();
  ASSERT_TRUE(delivered);
  const ParsedCrashReport& report = delivered->report;
  EXPECT_EQ(report.signal, c.signal);
  EXPECT_EQ(report.threadId, static_cast<std::uint64_t>(report.pid))
      << "crashed on the main thread";
  EXPECT_FALSE(report.frames.empty());
  EXPECT_TRUE(report.handlerNanoseconds) << "the handler times itself";

  const std::string& text = delivered->text;
  EXPECT_NE(text.find("Exception Type:      " + std::string(c.exceptionType) + "\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("Process:             crash_victim [" + std::to_string(report.pid) + "]\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("Identifier:          com.example.crashvictim\n"), std::string::npos) << text;
  EXPECT_NE(text.find("Version:             7.1\n"), std::string::npos) << text;
  EXPECT_NE(text.find("OS Version:          Linux "), std::string::npos) << text;
  EXPECT_NE(framesOf(text).find(c.crashingFunction), std::string::npos) << text;
  // The program's own image is listed with its build id.
  EXPECT_NE(text.find(" crash_victim <"), std::string::npos) << text;
  EXPECT_EQ(text.find(" crash_victim <no build id>"), std::string::npos) << text;
  printFigures(c.way, *delivered);
}

INSTANTIATE_TEST_SUITE_P(
    EachSignal, FatalSignalTest,
    ::testing::Values(
        FatalSignalCase{"segv", SIGSEGV, "SIGSEGV", "victim::writeThroughBadPointer()"},
        FatalSignalCase{"bus", SIGBUS, "SIGBUS", "victim::readPastTruncatedFile()"},
        FatalSignalCase{"ill", SIGILL, "SIGILL", "victim::executeUndefinedInstruction()"},
        FatalSignalCase{"fpe", SIGFPE, "SIGFPE", "victim::divideByZero()"},
        FatalSignalCase{"abrt", SIGABRT, "SIGABRT", "victim::abortNow()"},
        FatalSignalCase{"trap", SIGTRAP, "SIGTRAP", "victim::hitBreakpoint()"}),
    [](const ::testing::TestParamInfo<FatalSignalCase>& param) {
      return std::string(param.param.way);
    });

TEST_F(CrashEngineTest, ReportsTheFaultAddressTheCodeAndTheTimeOfTheFault) {
  const std::time_t before = std::time(nullptr);
  ASSERT_EQ(runVictim({folder_.string(), "segv"}).signal, SIGSEGV);
  const std::time_t after = std::time(nullptr);
  // The report keeps its identifier however often it is formatted.
  {
    auto reader = engine();
    EngineError error;
    const auto parsed =
        reader->parseCrashReport(*reader->loadPendingCrashReportData(&error), &error);
    ASSERT_TRUE(parsed) << error.description;
    const std::string once = reader->formatCrashReport(*parsed, kCrashReportTextFormatiOS);
    const std::string twice = reader->formatCrashReport(*parsed, kCrashReportTextFormatiOS);
    ASSERT_EQ(once.rfind("Incident Identifier: ", 0), 0u) << once;
    EXPECT_EQ(once.substr(0, once.find('\n')), twice.substr(0, twice.find('\n')));
    reader->releasePendingCrashReport();  // pending again, for the delivery below
  }
  const auto delivered = deliver();
  ASSERT_TRUE(delivered);
  EXPECT_GE(delivered->report.timeSeconds, before);
  EXPECT_LE(delivered->report.timeSeconds, after);
  const std::string& text = delivered->text;
  EXPECT_NE(text.find("Exception Codes:     SEGV_MAPERR at 0x0000000000000001\n"),
            std::string::npos)
      << text;
  // The first frame is the faulting instruction itself, and the registers
  // say where it is.
  EXPECT_NE(firstFrameOf(text).find("victim::writeThroughBadPointer()"), std::string::npos) << text;
#if defined(__x86_64__)
  EXPECT_NE(text.find("Thread 0 crashed with X86-64 Thread State:"), std::string::npos) << text;
  char rip[40];
  std::snprintf(rip, sizeof rip, "rip: 0x%016llx",
                static_cast<unsigned long long>(delivered->report.frames[0]));
  EXPECT_NE(text.find(rip), std::string::npos) << text;
#endif
  // A report is delivered once: after the purge nothing is pending.
  EXPECT_FALSE(engine()->hasPendingCrashReport());
}

TEST_F(CrashEngineTest, ReportsACrashOnAThreadOtherThanTheMainOne) {
  const Outcome outcome = runVictim({folder_.string(), "thread"});
  ASSERT_TRUE(outcome.finished);
  EXPECT_EQ(outcome.signal, SIGSEGV);
  const auto delivered = deliver();
  ASSERT_TRUE(delivered);
  EXPECT_NE(delivered->report.threadId, static_cast<std::uint64_t>(delivered->report.pid));
  const std::string frames = framesOf(delivered->text);
  EXPECT_NE(frames.find("victim::writeThroughBadPointer()"), std::string::npos) << delivered->text;
  EXPECT_NE(frames.find("victim::crashOnWorkerThread()"), std::string::npos) << delivered->text;
}

TEST_F(CrashEngineTest, ReportsAStackOverflowOnAThreadWithTheAlternateStack) {
  const Outcome outcome = runVictim({folder_.string(), "overflow"});
  ASSERT_TRUE(outcome.finished);
  EXPECT_EQ(outcome.signal, SIGSEGV);
  const auto delivered = deliver();
  ASSERT_TRUE(delivered);
  EXPECT_NE(framesOf(delivered->text).find("victim::overflowStack(int)"), std::string::npos)
      << delivered->text;
  // The unwinder stops at the frame limit instead of walking the whole stack.
  EXPECT_EQ(delivered->report.frames.size(), format::kMaxFrames);

  // Another thread that asked for an alternate stack is covered too.
  ASSERT_EQ(runVictim({folder_.string(), "thread-overflow"}).signal, SIGSEGV);
  const auto onThread = deliver();
  ASSERT_TRUE(onThread);
  EXPECT_NE(onThread->report.threadId, static_cast<std::uint64_t>(onThread->report.pid));
  EXPECT_NE(framesOf(onThread->text).find("victim::overflowStack(int)"), std::string::npos)
      << onThread->text;
}

TEST_F(CrashEngineTest, NamesALibraryLoadedAfterEnableAndItsSymbols) {
  const Outcome outcome = runVictim({folder_.string(), "plugin", CRASH_VICTIM_PLUGIN});
  ASSERT_TRUE(outcome.finished);
  ASSERT_EQ(outcome.signal, SIGSEGV) << "exit code " << outcome.exitCode;
  const auto delivered = deliver();
  ASSERT_TRUE(delivered);
  const std::string plugin = fs::path(CRASH_VICTIM_PLUGIN).filename().string();
  const std::string firstLine = firstFrameOf(delivered->text);
  EXPECT_NE(firstLine.find(plugin), std::string::npos) << delivered->text;
  EXPECT_NE(firstLine.find("plugin::crashInsidePlugin()"), std::string::npos) << delivered->text;
  // Its image line has an address range and the build id read from the file.
  const auto image = delivered->text.find(" " + plugin + " <");
  ASSERT_NE(image, std::string::npos) << delivered->text;
  const auto lineStart = delivered->text.rfind('\n', image) + 1;
  const std::string line =
      delivered->text.substr(lineStart, delivered->text.find('\n', image) - lineStart);
  EXPECT_EQ(line.find("0x0000000000000000 - "), std::string::npos) << line;
  EXPECT_EQ(line.find("<no build id>"), std::string::npos) << line;
}

TEST_F(CrashEngineTest, ChainsTheHandlerInstalledBeforeItAndStillDies) {
  const fs::path marker = root_ / "earlier-handler-ran";
  const Outcome outcome = runVictim({folder_.string(), "chain", marker.string()});
  ASSERT_TRUE(outcome.finished);
  EXPECT_EQ(outcome.signal, SIGSEGV);
  ASSERT_TRUE(fs::exists(marker)) << "the earlier handler was not called";
  const auto delivered = deliver();
  ASSERT_TRUE(delivered);
  // The earlier handler runs after the report is renamed into place: the
  // time since the crash it wrote covers the whole report writing.
  std::ifstream in(marker);
  long long elapsed = 0;
  in >> elapsed;
  std::printf(
      "crash handler: %.3f ms from the fault to the chained handler (report written and renamed)\n",
      static_cast<double>(elapsed) / 1e6);
}

TEST_F(CrashEngineTest, ASecondFaultWhileWritingNeitherHangsNorLoops) {
  // The chained earlier handler aborts: the handler is entered again on the
  // same thread, writes nothing more and lets the abort end the process.
  Outcome outcome = runVictim({folder_.string(), "chain-crash"});
  ASSERT_TRUE(outcome.finished) << "hung";
  EXPECT_EQ(outcome.signal, SIGABRT);
  const auto first = deliver();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->report.signal, SIGSEGV) << "the report of the first fault was replaced";
  // Two threads fault at the same moment: one report, one death.
  outcome = runVictim({folder_.string(), "two-threads"});
  ASSERT_TRUE(outcome.finished) << "hung";
  EXPECT_EQ(outcome.signal, SIGSEGV);
  const auto delivered = deliver();
  ASSERT_TRUE(delivered);
  EXPECT_NE(framesOf(delivered->text).find("victim::crashTogether()"), std::string::npos)
      << delivered->text;
  EXPECT_EQ(filesIn(folder_), std::vector<std::string>{});
}

TEST_F(CrashEngineTest, TheSuppressionHookWritesNothingButTheProcessStillDies) {
  // Temporary files: one a process that no longer exists left behind (removed
  // at enable), one of a process still running (kept).
  fs::create_directories(folder_);
  const std::string live = ".crash-report-" + std::to_string(getpid()) + ".tmp";
  std::ofstream(folder_ / ".crash-report-2147483646.tmp") << "half a report";
  std::ofstream(folder_ / live) << "being written";

  const Outcome outcome = runVictim({folder_.string(), "suppress"});
  ASSERT_TRUE(outcome.finished);
  EXPECT_EQ(outcome.signal, SIGABRT);
  EXPECT_FALSE(engine()->hasPendingCrashReport());
  EXPECT_EQ(filesIn(folder_), std::vector<std::string>{live});
}

TEST_F(CrashEngineTest, AReadOnlyFolderAtCrashTimeLeavesNoReportAndTheProcessStillDies) {
  const Outcome outcome = runVictim({folder_.string(), "readonly"});
  ASSERT_TRUE(outcome.finished) << "hung";
  EXPECT_EQ(outcome.signal, SIGSEGV) << "exit code " << outcome.exitCode;
  EXPECT_FALSE(engine()->hasPendingCrashReport());
  EXPECT_EQ(filesIn(folder_), std::vector<std::string>{});
}

TEST_F(CrashEngineTest, EveryCrashKeepsItsOwnReportAndEachIsClaimedByOneReaderOnly) {
  ASSERT_EQ(runVictim({folder_.string(), "segv"}).signal, SIGSEGV);
  ASSERT_EQ(runVictim({folder_.string(), "abrt"}).signal, SIGABRT);
  const auto signalOf = [](CrashEngine& reader) -> int {
    EngineError error;
    auto data = reader.loadPendingCrashReportData(&error);
    if (!data) return error.nonePending ? 0 : -1;
    auto parsed = reader.parseCrashReport(*data, &error);
    return parsed ? parsed->signal : -1;
  };
  // Two readers (as two processes starting at once would): each claims its
  // own report, the oldest first.
  auto first = engine();
  auto second = engine();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(signalOf(*first), SIGSEGV);
  // A crash landing while the first reader holds its claim is neither
  // replaced nor removed by that reader's purge.
  ASSERT_EQ(runVictim({folder_.string(), "fpe"}).signal, SIGFPE);
  EXPECT_TRUE(first->purgePendingCrashReport());
  EXPECT_EQ(signalOf(*second), SIGABRT);
  EXPECT_TRUE(second->purgePendingCrashReport());
  EXPECT_EQ(signalOf(*first), SIGFPE);
  EXPECT_TRUE(first->purgePendingCrashReport());
  EXPECT_EQ(signalOf(*second), 0) << "nothing is left";
  EXPECT_FALSE(second->hasPendingCrashReport());

  // A claim whose process died before purging is taken over.
  ASSERT_EQ(runVictim({folder_.string(), "segv"}).signal, SIGSEGV);
  auto names = filesIn(folder_);
  ASSERT_EQ(names.size(), 1u);
  fs::rename(folder_ / names[0], folder_ / (".claimed-2147483646-" + names[0]));
  EXPECT_TRUE(second->hasPendingCrashReport());
  EXPECT_EQ(signalOf(*second), SIGSEGV);
  EXPECT_TRUE(second->purgePendingCrashReport());
  EXPECT_EQ(filesIn(folder_), std::vector<std::string>{});
}

TEST_F(CrashEngineTest, ALoaderListDamagedByTheCrashStillLeavesAReport) {
  const Outcome outcome = runVictim({folder_.string(), "damaged-modules"});
  ASSERT_TRUE(outcome.finished) << "hung";
  EXPECT_EQ(outcome.signal, SIGSEGV);
  const auto delivered = deliver();
  ASSERT_TRUE(delivered);
  EXPECT_EQ(delivered->report.signal, SIGSEGV);
  EXPECT_FALSE(delivered->report.modules.empty());
}

TEST_F(CrashEngineTest, AFolderThatCannotTakeAReportIsSaidAtEnable) {
  const Outcome outcome = runVictim({folder_.string(), "unwritable"});
  ASSERT_TRUE(outcome.finished);
  EXPECT_EQ(outcome.exitCode, 5) << outcome.output;
  EXPECT_NE(outcome.output.find("cannot be written"), std::string::npos) << outcome.output;
}

TEST_F(CrashEngineTest, WithTheHostHandlerFirstAHandledFaultIsNoCrash) {
  // The host's runtime moves the faulting thread on: it lives, no report.
  Outcome outcome = runVictim({folder_.string(), "first-recovers"});
  ASSERT_TRUE(outcome.finished) << "hung";
  EXPECT_EQ(outcome.signal, 0) << outcome.output;
  EXPECT_EQ(outcome.exitCode, 0) << outcome.output;
  EXPECT_NE(outcome.output.find("recovered"), std::string::npos) << outcome.output;
  EXPECT_FALSE(engine()->hasPendingCrashReport());

  // An SA_SIGINFO handler that returns without handling it: the fault comes
  // back, and is reported once, and the host dies of it.
  const fs::path marker = root_ / "host-handler-ran";
  outcome = runVictim({folder_.string(), "first-gives-up", marker.string()});
  ASSERT_TRUE(outcome.finished) << "hung";
  EXPECT_EQ(outcome.signal, SIGSEGV) << outcome.output;
  EXPECT_TRUE(fs::exists(marker));
  const auto delivered = deliver();
  ASSERT_TRUE(delivered);
  EXPECT_EQ(delivered->report.signal, SIGSEGV);
  EXPECT_EQ(filesIn(folder_), std::vector<std::string>{});
}

TEST_F(CrashEngineTest, DamagedReportsAreParseErrors) {
  ASSERT_EQ(runVictim({folder_.string(), "segv"}).signal, SIGSEGV);
  auto reader = engine();
  EngineError error;
  const auto whole = reader->loadPendingCrashReportData(&error);
  ASSERT_TRUE(whole) << error.description;
  ASSERT_TRUE(reader->parseCrashReport(*whole, &error));

  // Cut short anywhere.
  for (std::size_t size = 0; size < whole->size(); ++size) {
    std::vector<std::byte> cut(whole->begin(), whole->begin() + static_cast<std::ptrdiff_t>(size));
    EngineError cutError;
    ASSERT_EQ(reader->parseCrashReport(cut, &cutError), nullptr) << "accepted " << size << " bytes";
    ASSERT_FALSE(cutError.description.empty());
  }
  const auto rejects = [&](std::vector<std::byte> bytes, const std::string& expected) {
    EngineError e;
    EXPECT_EQ(reader->parseCrashReport(bytes, &e), nullptr);
    EXPECT_NE(e.description.find(expected), std::string::npos) << e.description;
  };
  auto changed = *whole;
  changed[0] = std::byte{'X'};
  rejects(changed, "wrong magic");
  changed = *whole;
  changed[8] = std::byte{2};
  rejects(changed, "version 2");
  changed = *whole;
  changed.push_back(std::byte{0});
  rejects(changed, "follows its end record");
  std::vector<std::byte> garbage(4096);
  for (std::size_t i = 0; i < garbage.size(); ++i)
    garbage[i] = std::byte(static_cast<unsigned char>(i * 131 + 7));
  rejects(garbage, "wrong magic");
  // A record length that runs past the end, right after a valid header.
  std::vector<std::byte> header(whole->begin(), whole->begin() + 12);
  const std::uint32_t hugeRecord[2] = {format::kFrame, 0xFFFFFFF0u};
  const auto* raw = reinterpret_cast<const std::byte*>(hugeRecord);
  header.insert(header.end(), raw, raw + sizeof hugeRecord);
  rejects(header, "truncated");

  // A garbage file where the report belongs: loaded, not parsed, purged.
  ASSERT_TRUE(reader->purgePendingCrashReport());
  std::ofstream(folder_ / format::kPendingFileName, std::ios::binary)
      << "not a crash report at all";
  ASSERT_TRUE(reader->hasPendingCrashReport());
  const auto bytes = reader->loadPendingCrashReportData(&error);
  ASSERT_TRUE(bytes);
  EXPECT_EQ(reader->parseCrashReport(*bytes, &error), nullptr);
  EXPECT_NE(error.description.find("not a crash report"), std::string::npos) << error.description;
  EXPECT_TRUE(reader->purgePendingCrashReport());
  EXPECT_FALSE(reader->hasPendingCrashReport());
  EXPECT_FALSE(reader->loadPendingCrashReportData(&error));

  // A pipe where the report belongs is no report and never blocks the reader.
  ASSERT_EQ(mkfifo((folder_ / format::kPendingFileName).c_str(), 0600), 0);
  EXPECT_FALSE(reader->hasPendingCrashReport());
  EXPECT_FALSE(reader->loadPendingCrashReportData(&error));
  EXPECT_TRUE(error.nonePending) << error.description;
  EXPECT_TRUE(reader->purgePendingCrashReport());
}

TEST_F(CrashEngineTest, ConfigurationAndCreation) {
  EXPECT_FALSE(CrashEngineConfig::make(1, 2));
  const auto config = CrashEngineConfig::make(0, 2);
  ASSERT_TRUE(config);
  EXPECT_EQ(config->symbolicationStrategy, 2);

  // The folder is made when missing; a folder that cannot be made gives none.
  auto made = *config;
  made.reportDirectory = folder_ / "deeper" / "still";
  EXPECT_NE(createCrashEngine(made), nullptr);
  EXPECT_TRUE(fs::is_directory(made.reportDirectory));
  std::ofstream(root_ / "plain-file") << "x";
  auto blocked = *config;
  blocked.reportDirectory = root_ / "plain-file" / "reports";
  EXPECT_EQ(createCrashEngine(blocked), nullptr);
  blocked.reportDirectory.clear();
  EXPECT_EQ(createCrashEngine(blocked), nullptr);
  // Nothing pending in a fresh folder; purging nothing is no failure.
  auto fresh = engine();
  ASSERT_NE(fresh, nullptr);
  EXPECT_FALSE(fresh->hasPendingCrashReport());
  EXPECT_TRUE(fresh->purgePendingCrashReport());
}

}  // namespace
}  // namespace velquin::crash
