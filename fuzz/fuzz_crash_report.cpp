// Reads arbitrary bytes as a pending crash report: the parser must reject
// anything that is not a whole report with an error, never crash or read
// out of bounds. A report it accepts is formatted too, without its module
// list, so that the fuzzer never makes the formatter open files it names.
#include <cstddef>
#include <cstdint>

#include "crash/CrashReport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  velquin::crash::EngineError error;
  auto report =
      velquin::crash::parseCrashReportBytes(reinterpret_cast<const std::byte*>(data), size, &error);
  if (!report) {
    if (error.description.empty()) __builtin_trap();
    return 0;
  }
  report->modules.clear();
  const std::string text =
      velquin::crash::formatCrashReportText(*report, "com.example.fuzz", "1.0");
  if (text.find("Thread 0 Crashed:") == std::string::npos) __builtin_trap();
  return 0;
}
