// A crash report read back from its file: the parser of the pending report's
// bytes and the text formatter.
//
// Threads: plain values and pure functions; any thread. Ownership: a
// ParsedCrashReport owns copies of everything it holds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "crash/CrashEngine.h"
#include "crash/CrashReportFormat.h"

namespace velquin::crash {

class ParsedCrashReport {
 public:
  struct Module {
    std::uint64_t loadBias = 0;
    // 0 and 0 when the handler only knew the module from the loader's list;
    // the formatter then takes the range from the file.
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    std::vector<std::uint8_t> buildId;
    std::string path;
  };

  int signal = 0;
  int code = 0;
  std::uint64_t faultAddress = 0;
  int senderPid = 0;
  std::uint64_t threadId = 0;
  std::int64_t timeSeconds = 0;
  std::int64_t timeNanoseconds = 0;
  int pid = 0;
  std::string processName;
  std::string osRelease;
  std::string applicationId;
  std::string applicationVersion;
  std::string incidentIdentifier;
  format::RegisterSet registerSet = format::RegisterSet::none;
  std::vector<std::uint64_t> registers;
  std::vector<std::uint64_t> frames;
  std::vector<Module> modules;
  // How long the handler took to write the report, when it said.
  std::optional<std::uint64_t> handlerNanoseconds;
};

// The report in `data`, or nullopt with `error` set (never throws, never
// reads outside `data`).
std::optional<ParsedCrashReport> parseCrashReportBytes(const std::byte* data, std::size_t size,
                                                       EngineError* error);

// The report as readable text (text format 0); symbols are looked up in the
// module files named by the report. `fallbackApplicationId/Version` name the
// application when the report carries none.
std::string formatCrashReportText(const ParsedCrashReport& report,
                                  const std::string& fallbackApplicationId,
                                  const std::string& fallbackApplicationVersion);

// "SIGSEGV", or "signal 42" for a number without a name.
std::string signalName(int signal);
// "SEGV_MAPERR", "SI_TKILL", ... or the number as text.
std::string signalCodeName(int signal, int code);

}  // namespace velquin::crash
