// Formats a parsed crash report as readable text. Symbols come from the
// module files the report names, through elfutils' libdwfl, at formatting
// time (never in the signal handler); C++ names are demangled.
#include <cxxabi.h>
#include <elfutils/libdwfl.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "crash/CrashReport.h"
#include "support/Uuid.h"

namespace velquin::crash {
namespace {

struct DwflDeleter {
  void operator()(Dwfl* dwfl) const { dwfl_end(dwfl); }
};

// A module of the report, matched with its file when that file is there and
// still the one that was loaded (same build id).
struct ResolvedModule {
  const ParsedCrashReport::Module* recorded = nullptr;
  Dwfl_Module* file = nullptr;
  std::string name;
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::string buildId;
};

std::string hexAddress(std::uint64_t value) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%016" PRIx64, value);
  return text;
}

std::string hexBytes(const unsigned char* bytes, std::size_t size) {
  std::string text;
  char pair[4];
  for (std::size_t i = 0; i < size; ++i) {
    std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
    text += pair;
  }
  return text;
}

std::string baseName(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The readable name of a symbol: demangled, without a symbol version
// ("__libc_start_main@@GLIBC_2.34").
std::string readableSymbol(const char* symbol) {
  std::string name(symbol);
  if (const auto at = name.find('@'); at != std::string::npos && at > 0) name.resize(at);
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> readable(
      abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status), &std::free);
  return status == 0 && readable ? std::string(readable.get()) : name;
}

std::string padded(std::string text, std::size_t width) {
  if (text.size() < width)
    text.append(width - text.size(), ' ');
  else
    text += ' ';
  return text;
}

std::vector<ResolvedModule> resolveModules(Dwfl* dwfl, const ParsedCrashReport& report) {
  std::vector<ResolvedModule> modules;
  modules.reserve(report.modules.size());
  if (dwfl != nullptr) dwfl_report_begin(dwfl);
  for (const auto& recorded : report.modules) {
    ResolvedModule module;
    module.recorded = &recorded;
    module.name = baseName(recorded.path);
    if (module.name.empty()) module.name = "???";
    module.start = recorded.start;
    module.end = recorded.end;
    module.buildId = hexBytes(recorded.buildId.data(), recorded.buildId.size());
    struct stat info = {};
    // Only regular files: a report names paths, and a device or a pipe must
    // never be opened as a module.
    if (dwfl != nullptr && !recorded.path.empty() && recorded.path.front() == '/' &&
        stat(recorded.path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
      module.file = dwfl_report_elf(dwfl, module.name.c_str(), recorded.path.c_str(), -1,
                                    static_cast<GElf_Addr>(recorded.loadBias), true);
    }
    modules.push_back(std::move(module));
  }
  if (dwfl != nullptr) dwfl_report_end(dwfl, nullptr, nullptr);

  for (auto& module : modules) {
    if (module.file == nullptr) continue;
    const unsigned char* bits = nullptr;
    GElf_Addr noteAddress = 0;
    const int length = dwfl_module_build_id(module.file, &bits, &noteAddress);
    const std::string fileBuildId =
        length > 0 ? hexBytes(bits, static_cast<std::size_t>(length)) : "";
    if (!module.buildId.empty() && fileBuildId != module.buildId) {
      module.file = nullptr;  // replaced since the crash: its symbols would lie
      continue;
    }
    if (module.buildId.empty()) module.buildId = fileBuildId;
    if (module.start == 0 && module.end == 0) {
      Dwarf_Addr low = 0, high = 0;
      dwfl_module_info(module.file, nullptr, &low, &high, nullptr, nullptr, nullptr, nullptr);
      module.start = low;
      module.end = high;
    }
  }
  return modules;
}

const ResolvedModule* moduleAt(Dwfl* dwfl, const std::vector<ResolvedModule>& modules,
                               std::uint64_t address) {
  if (dwfl != nullptr) {
    if (Dwfl_Module* file = dwfl_addrmodule(dwfl, address)) {
      for (const auto& module : modules) {
        if (module.file == file) return &module;
      }
    }
  }
  for (const auto& module : modules) {
    if (module.start <= address && address < module.end) return &module;
  }
  return nullptr;
}

std::string frameLine(std::size_t index, std::uint64_t address, Dwfl* dwfl,
                      const std::vector<ResolvedModule>& modules) {
  // A return address points after the call; look up the call itself.
  const std::uint64_t lookup = index == 0 || address == 0 ? address : address - 1;
  const ResolvedModule* module = moduleAt(dwfl, modules, lookup);
  std::string line = padded(std::to_string(index), 4);
  line += padded(module != nullptr ? module->name : "???", 28);
  line += hexAddress(address);
  if (module != nullptr && module->file != nullptr) {
    GElf_Off offset = 0;
    GElf_Sym symbol = {};
    if (const char* name = dwfl_module_addrinfo(module->file, lookup, &offset, &symbol, nullptr,
                                                nullptr, nullptr)) {
      return line + " " + readableSymbol(name) + " + " +
             std::to_string(offset + (address - lookup));
    }
  }
  if (module != nullptr && module->start <= address) {
    return line + " " + module->name + " + " + std::to_string(address - module->start);
  }
  return line;
}

struct RegisterName {
  int index;
  const char* name;
};

// The x86_64 mcontext_t.gregs order is r8..r15, rdi, rsi, rbp, rbx, rdx,
// rax, rcx, rsp, rip, eflags, csgsfs, err, trapno, oldmask, cr2; printed in
// the usual reading order.
constexpr RegisterName kX86Registers[] = {
    {13, "rax"},      {11, "rbx"}, {14, "rcx"},    {12, "rdx"}, {8, "rdi"},  {9, "rsi"},
    {10, "rbp"},      {15, "rsp"}, {0, "r8"},      {1, "r9"},   {2, "r10"},  {3, "r11"},
    {4, "r12"},       {5, "r13"},  {6, "r14"},     {7, "r15"},  {16, "rip"}, {17, "rflags"},
    {18, "cs/gs/fs"}, {19, "err"}, {20, "trapno"}, {22, "cr2"}};

void appendRegisters(std::string& text, const ParsedCrashReport& report) {
  std::vector<std::pair<std::string, std::uint64_t>> named;
  const char* title = nullptr;
  if (report.registerSet == format::RegisterSet::x86_64 && report.registers.size() >= 23) {
    title = "X86-64";
    for (const auto& r : kX86Registers)
      named.emplace_back(r.name, report.registers[static_cast<std::size_t>(r.index)]);
  } else if (report.registerSet == format::RegisterSet::aarch64 && report.registers.size() >= 34) {
    title = "ARM-64";
    for (std::size_t i = 0; i < 29; ++i)
      named.emplace_back("x" + std::to_string(i), report.registers[i]);
    const char* tail[] = {"fp", "lr", "sp", "pc", "cpsr"};
    for (std::size_t i = 0; i < 5; ++i) named.emplace_back(tail[i], report.registers[29 + i]);
  }
  if (title == nullptr) return;
  text += "Thread 0 crashed with " + std::string(title) + " Thread State:\n";
  for (std::size_t i = 0; i < named.size(); ++i) {
    std::string label = named[i].first + ":";
    text += std::string(label.size() < 12 ? 12 - label.size() : 1, ' ') + label + " " +
            hexAddress(named[i].second);
    if (i % 4 == 3 || i + 1 == named.size()) text += "\n";
  }
  text += "\n";
}

std::string crashTime(const ParsedCrashReport& report) {
  const time_t seconds = static_cast<time_t>(report.timeSeconds);
  tm local = {};
  if (localtime_r(&seconds, &local) == nullptr) return std::to_string(report.timeSeconds);
  char date[64];
  char zone[16];
  std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
  std::strftime(zone, sizeof zone, "%z", &local);
  char text[112];
  std::snprintf(text, sizeof text, "%s.%03d %s", date,
                static_cast<int>(report.timeNanoseconds / 1000000), zone);
  return text;
}

std::string exceptionCodes(const ParsedCrashReport& report) {
  std::string text = signalCodeName(report.signal, report.code);
  if (report.code <= 0) {
    return report.senderPid != 0 ? text + " from pid " + std::to_string(report.senderPid) : text;
  }
  return text + " at " + hexAddress(report.faultAddress);
}

std::string header(const std::string& label, const std::string& value) {
  return padded(label + ":", 21) + value + "\n";
}

}  // namespace

std::string signalName(int signal) {
  if (const char* abbreviation = sigabbrev_np(signal)) return std::string("SIG") + abbreviation;
  return "signal " + std::to_string(signal);
}

std::string signalCodeName(int signal, int code) {
  switch (code) {
    case SI_USER:
      return "SI_USER";
    case SI_KERNEL:
      return "SI_KERNEL";
    case SI_QUEUE:
      return "SI_QUEUE";
    case SI_TKILL:
      return "SI_TKILL";
    default:
      break;
  }
  struct Name {
    int signal;
    int code;
    const char* name;
  };
  static constexpr Name kNames[] = {
      {SIGSEGV, SEGV_MAPERR, "SEGV_MAPERR"}, {SIGSEGV, SEGV_ACCERR, "SEGV_ACCERR"},
      {SIGSEGV, SEGV_BNDERR, "SEGV_BNDERR"}, {SIGSEGV, SEGV_PKUERR, "SEGV_PKUERR"},
      {SIGBUS, BUS_ADRALN, "BUS_ADRALN"},    {SIGBUS, BUS_ADRERR, "BUS_ADRERR"},
      {SIGBUS, BUS_OBJERR, "BUS_OBJERR"},    {SIGBUS, BUS_MCEERR_AR, "BUS_MCEERR_AR"},
      {SIGILL, ILL_ILLOPC, "ILL_ILLOPC"},    {SIGILL, ILL_ILLOPN, "ILL_ILLOPN"},
      {SIGILL, ILL_ILLADR, "ILL_ILLADR"},    {SIGILL, ILL_ILLTRP, "ILL_ILLTRP"},
      {SIGILL, ILL_PRVOPC, "ILL_PRVOPC"},    {SIGILL, ILL_PRVREG, "ILL_PRVREG"},
      {SIGILL, ILL_COPROC, "ILL_COPROC"},    {SIGILL, ILL_BADSTK, "ILL_BADSTK"},
      {SIGFPE, FPE_INTDIV, "FPE_INTDIV"},    {SIGFPE, FPE_INTOVF, "FPE_INTOVF"},
      {SIGFPE, FPE_FLTDIV, "FPE_FLTDIV"},    {SIGFPE, FPE_FLTOVF, "FPE_FLTOVF"},
      {SIGFPE, FPE_FLTUND, "FPE_FLTUND"},    {SIGFPE, FPE_FLTRES, "FPE_FLTRES"},
      {SIGFPE, FPE_FLTINV, "FPE_FLTINV"},    {SIGFPE, FPE_FLTSUB, "FPE_FLTSUB"},
      {SIGTRAP, TRAP_BRKPT, "TRAP_BRKPT"},   {SIGTRAP, TRAP_TRACE, "TRAP_TRACE"},
  };
  for (const auto& n : kNames) {
    if (n.signal == signal && n.code == code) return n.name;
  }
  return "code " + std::to_string(code);
}

std::string formatCrashReportText(const ParsedCrashReport& report,
                                  const std::string& fallbackApplicationId,
                                  const std::string& fallbackApplicationVersion) {
  static const Dwfl_Callbacks kCallbacks = {
      .find_elf = dwfl_build_id_find_elf,
      .find_debuginfo = dwfl_standard_find_debuginfo,
      .section_address = dwfl_offline_section_address,
      .debuginfo_path = nullptr,
  };
  std::unique_ptr<Dwfl, DwflDeleter> dwfl(dwfl_begin(&kCallbacks));
  const std::vector<ResolvedModule> modules = resolveModules(dwfl.get(), report);

  const bool mainThread = report.threadId == static_cast<std::uint64_t>(report.pid);
  std::string text;
  text +=
      header("Incident Identifier",
             report.incidentIdentifier.empty() ? support::randomUuid() : report.incidentIdentifier);
  text += header("Process", report.processName + " [" + std::to_string(report.pid) + "]");
  text += header("Identifier",
                 report.applicationId.empty() ? fallbackApplicationId : report.applicationId);
  text += header("Version", report.applicationVersion.empty() ? fallbackApplicationVersion
                                                              : report.applicationVersion);
  text += header("Date/Time", crashTime(report));
  text += header("OS Version", "Linux " + report.osRelease);
  text += "\n";
  text += header("Exception Type", signalName(report.signal));
  text += header("Exception Codes", exceptionCodes(report));
  text += header("Crashed Thread", "0 (thread id " + std::to_string(report.threadId) +
                                       (mainThread ? ", the main thread)" : ")"));
  text += "\n";
  text += "Thread 0 Crashed:\n";
  for (std::size_t i = 0; i < report.frames.size(); ++i) {
    text += frameLine(i, report.frames[i], dwfl.get(), modules) + "\n";
  }
  text += "\n";
  appendRegisters(text, report);
  text += "Binary Images:\n";
  for (const auto& module : modules) {
    text += hexAddress(module.start) + " - " + hexAddress(module.end) + " " + module.name + " <" +
            (module.buildId.empty() ? "no build id" : module.buildId) + "> " +
            module.recorded->path + "\n";
  }
  return text;
}

}  // namespace velquin::crash
