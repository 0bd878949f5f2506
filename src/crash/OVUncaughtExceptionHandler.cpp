#include "crash/OVUncaughtExceptionHandler.h"

#define UNW_LOCAL_ONLY
#include <cxxabi.h>
#include <dlfcn.h>
#include <libunwind.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <typeinfo>
#include <vector>

#include "crash/CrashEngine.h"
#include "support/Utf8.h"

namespace velquin {
namespace {

// Frames beyond this many are left out of the record.
constexpr int kMaxFrames = 128;

// Set once by install(), read by the handler on any thread.
std::atomic<bool> installed{false};
std::atomic<OVUncaughtExceptionHandler::Writer> recordWriter{nullptr};
std::atomic<std::terminate_handler> previousHandler{nullptr};
// True from the moment one thread started recording its crash.
std::atomic<bool> recording{false};

std::string demangle(const char* name) {
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> plain(
      abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);
  return status == 0 && plain ? std::string(plain.get()) : std::string(name);
}

// The value as a quoted literal: '"' and '\' escaped, line breaks as \n.
std::string quoted(const std::string& value) {
  std::string text = "\"";
  for (char c : value) {
    switch (c) {
      case '"':
        text += "\\\"";
        break;
      case '\\':
        text += "\\\\";
        break;
      case '\n':
        text += "\\n";
        break;
      case '\r':
        text += "\\r";
        break;
      case '\t':
        text += "\\t";
        break;
      default:
        text += c;
    }
  }
  return text + "\"";
}

std::string optionalText(const std::optional<std::string>& value) {
  return value ? "Optional(" + quoted(*value) + ")" : "nil";
}

std::string listText(const std::optional<std::vector<std::string>>& lines) {
  if (!lines) return "nil";
  std::string text = "[";
  for (std::size_t i = 0; i < lines->size(); ++i) {
    if (i > 0) text += ", ";
    text += quoted((*lines)[i]);
  }
  return text + "]";
}

// The calling thread's frames, innermost first, from the caller of the
// terminate handler on (the hook's own frames are left out when the handler
// is found on the stack): "N   module  0xADDRESS  symbol + offset" ("???"
// for what is unknown).
std::vector<std::string> currentStack() {
  std::vector<std::string> lines;
  unw_context_t context;
  unw_cursor_t cursor;
  if (unw_getcontext(&context) != 0 || unw_init_local(&cursor, &context) != 0) return lines;
  const auto handlerStart = reinterpret_cast<unw_word_t>(&uncaughtExceptionHandler);
  do {
    unw_word_t ip = 0;
    if (unw_get_reg(&cursor, UNW_REG_IP, &ip) != 0) break;
    unw_proc_info_t procedure{};
    if (unw_get_proc_info(&cursor, &procedure) == 0 && procedure.start_ip == handlerStart) {
      lines.clear();  // everything so far is the hook's own work
      continue;
    }
    std::string module = "???";
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(ip), &info) != 0 && info.dli_fname) {
      const char* slash = std::strrchr(info.dli_fname, '/');
      module = slash ? slash + 1 : info.dli_fname;
    }
    std::string symbol = "???";
    char name[1024];
    unw_word_t offset = 0;
    const int found = unw_get_proc_name(&cursor, name, sizeof name, &offset);
    if (found == 0 || found == -UNW_ENOMEM) {  // ENOMEM: a truncated name
      symbol = demangle(name) + " + " + std::to_string(offset);
    }
    char head[96];
    std::snprintf(head, sizeof head, "%-3zu %-24s 0x%016" PRIxPTR " ", lines.size(), module.c_str(),
                  static_cast<std::uintptr_t>(ip));
    lines.push_back(head + symbol);
  } while (lines.size() < static_cast<std::size_t>(kMaxFrames) && unw_step(&cursor) > 0);
  return lines;
}

void writeAll(int fd, const std::string& text) {
  const char* data = text.data();
  std::size_t left = text.size();
  while (left > 0) {
    const ssize_t written = ::write(fd, data, left);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    data += written;
    left -= static_cast<std::size_t>(written);
  }
}

}  // namespace

bool OVUncaughtExceptionHandler::install(Writer writer) {
  bool expected = false;
  if (!installed.compare_exchange_strong(expected, true)) return false;
  recordWriter.store(writer);
  // A terminate between these two lines finds no previous handler and
  // aborts, which is what the runtime's own handler would have done.
  previousHandler.store(std::set_terminate(uncaughtExceptionHandler));
  return true;
}

std::string OVUncaughtExceptionHandler::describeCurrentException() {
  std::optional<std::string> name;
  std::optional<std::string> reason;
  std::optional<std::vector<std::string>> stack;
  if (const std::type_info* type = abi::__cxa_current_exception_type()) {
    name = demangle(type->name());
    if (auto active = std::current_exception()) {
      try {
        std::rethrow_exception(active);
      } catch (const std::exception& error) {
        // The record travels as JSON and protocol-buffer text: UTF-8 only.
        reason = support::makeValidUtf8(error.what());
      } catch (...) {  // any other type carries no reason
      }
    }
    stack = currentStack();
  }
  // The name goes behind the reason label and the reason behind the name
  // label: the backend reads the labels this way round.
  return "Exception reason\uFF1A" + optionalText(name) + "\n Exception name\uFF1A" +
         optionalText(reason) + "\nException stack\uFF1A" + listText(stack);
}

void uncaughtExceptionHandler() noexcept {
  bool expected = false;
  if (recording.compare_exchange_strong(expected, true)) {
    bool stored = false;
    try {
      const std::string record = OVUncaughtExceptionHandler::describeCurrentException();
      writeAll(STDOUT_FILENO, record + "\n");
      if (auto writer = recordWriter.load()) stored = writer(record);
    } catch (...) {  // out of memory while building the record: the engine reports the abort
    }
    if (stored) crash::suppressReportOfCurrentCrash();
    const std::terminate_handler previous = previousHandler.load();
    if (previous && previous != &uncaughtExceptionHandler) previous();
  }
  std::abort();
}

}  // namespace velquin
