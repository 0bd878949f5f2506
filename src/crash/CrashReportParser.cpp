// Reads a pending report's bytes back (format: crash/CrashReportFormat.h).
// Every read is bounds-checked; anything short, long or inconsistent is a
// parse error naming what is wrong.
#include <algorithm>
#include <cstring>
#include <optional>
#include <string>

#include "crash/CrashReport.h"

namespace velquin::crash {
namespace {

class Reader {
 public:
  Reader(const std::byte* data, std::size_t size) : data_(data), left_(size) {}

  std::size_t left() const { return left_; }

  template <typename T>
  bool get(T& out) {
    if (left_ < sizeof(T)) return false;
    std::memcpy(&out, data_, sizeof(T));
    data_ += sizeof(T);
    left_ -= sizeof(T);
    return true;
  }
  bool take(std::size_t size, Reader& part) {
    if (left_ < size) return false;
    part = Reader(data_, size);
    data_ += size;
    left_ -= size;
    return true;
  }
  std::string rest() {
    std::string text(reinterpret_cast<const char*>(data_), left_);
    data_ += left_;
    left_ = 0;
    return text;
  }

 private:
  const std::byte* data_;
  std::size_t left_;
};

struct Failure {
  std::string why;
};

const char* tagName(std::uint32_t tag) {
  switch (tag) {
    case format::kSignal:
      return "signal";
    case format::kThread:
      return "thread";
    case format::kTime:
      return "time";
    case format::kProcess:
      return "process";
    case format::kOsRelease:
      return "OS release";
    case format::kAppId:
      return "application id";
    case format::kAppVersion:
      return "application version";
    case format::kRegisters:
      return "registers";
    case format::kFrame:
      return "frame";
    case format::kModule:
      return "module";
    case format::kHandlerTime:
      return "handler time";
    case format::kIncident:
      return "incident identifier";
    default:
      return "unknown";
  }
}

std::optional<Failure> readRecord(std::uint32_t tag, Reader payload, ParsedCrashReport& report) {
  const std::size_t size = payload.left();
  const auto wrongSize = [&] {
    return Failure{std::string("its ") + tagName(tag) + " record has a wrong length (" +
                   std::to_string(size) + " bytes)"};
  };
  const auto readText = [&](std::string& into) -> std::optional<Failure> {
    if (size > format::kMaxTextBytes) return wrongSize();
    into = payload.rest();
    return std::nullopt;
  };
  switch (tag) {
    case format::kSignal: {
      std::int32_t signal = 0, code = 0, sender = 0;
      std::uint64_t address = 0;
      if (size != 20 || !payload.get(signal) || !payload.get(code) || !payload.get(address) ||
          !payload.get(sender)) {
        return wrongSize();
      }
      if (signal <= 0 || signal >= 65)
        return Failure{"its signal number " + std::to_string(signal) + " is invalid"};
      report.signal = signal;
      report.code = code;
      report.faultAddress = address;
      report.senderPid = sender;
      return std::nullopt;
    }
    case format::kThread:
      if (size != 8 || !payload.get(report.threadId)) return wrongSize();
      return std::nullopt;
    case format::kTime:
      if (size != 16 || !payload.get(report.timeSeconds) || !payload.get(report.timeNanoseconds)) {
        return wrongSize();
      }
      if (report.timeNanoseconds < 0 || report.timeNanoseconds >= 1000000000) {
        return Failure{"its crash time is invalid"};
      }
      return std::nullopt;
    case format::kProcess: {
      std::int32_t pid = 0;
      if (size < 4 || size > 4 + format::kMaxTextBytes || !payload.get(pid)) return wrongSize();
      report.pid = pid;
      report.processName = payload.rest();
      return std::nullopt;
    }
    case format::kOsRelease:
      return readText(report.osRelease);
    case format::kAppId:
      return readText(report.applicationId);
    case format::kAppVersion:
      return readText(report.applicationVersion);
    case format::kIncident:
      return readText(report.incidentIdentifier);
    case format::kRegisters: {
      std::uint32_t set = 0, count = 0;
      if (size < 8 || !payload.get(set) || !payload.get(count) || count > format::kMaxRegisters ||
          payload.left() != std::size_t{count} * 8) {
        return wrongSize();
      }
      if (set != static_cast<std::uint32_t>(format::RegisterSet::x86_64) &&
          set != static_cast<std::uint32_t>(format::RegisterSet::aarch64)) {
        return Failure{"its register set " + std::to_string(set) + " is unknown"};
      }
      report.registerSet = static_cast<format::RegisterSet>(set);
      report.registers.resize(count);
      for (auto& value : report.registers) payload.get(value);
      return std::nullopt;
    }
    case format::kFrame: {
      std::uint64_t address = 0;
      if (size != 8 || !payload.get(address)) return wrongSize();
      if (report.frames.size() >= format::kMaxFrames) return Failure{"it has too many frames"};
      report.frames.push_back(address);
      return std::nullopt;
    }
    case format::kModule: {
      ParsedCrashReport::Module module;
      std::uint32_t buildIdLength = 0;
      if (!payload.get(module.loadBias) || !payload.get(module.start) || !payload.get(module.end) ||
          !payload.get(buildIdLength) || buildIdLength > format::kMaxBuildIdBytes ||
          payload.left() < buildIdLength ||
          payload.left() - buildIdLength > format::kMaxTextBytes) {
        return wrongSize();
      }
      if (module.end < module.start) return Failure{"a module's address range is invalid"};
      if (report.modules.size() >= format::kMaxModules) return Failure{"it has too many modules"};
      module.buildId.resize(buildIdLength);
      for (auto& byte : module.buildId) payload.get(byte);
      module.path = payload.rest();
      report.modules.push_back(std::move(module));
      return std::nullopt;
    }
    case format::kHandlerTime: {
      std::uint64_t nanoseconds = 0;
      if (size != 8 || !payload.get(nanoseconds)) return wrongSize();
      report.handlerNanoseconds = nanoseconds;
      return std::nullopt;
    }
    default:
      return std::nullopt;  // a record a later writer added: skipped
  }
}

bool singleRecord(std::uint32_t tag) {
  return tag != format::kFrame && tag != format::kModule;
}

}  // namespace

std::optional<ParsedCrashReport> parseCrashReportBytes(const std::byte* data, std::size_t size,
                                                       EngineError* error) {
  const auto fail = [error](const std::string& why) -> std::optional<ParsedCrashReport> {
    if (error != nullptr) error->description = "The crash report cannot be read: " + why + ".";
    return std::nullopt;
  };
  if (size > format::kMaxReportBytes)
    return fail("it is larger than " + std::to_string(format::kMaxReportBytes) + " bytes");
  const std::size_t magicBytes = std::min(size, sizeof format::kMagic);
  if (data == nullptr || std::memcmp(data, format::kMagic, magicBytes) != 0 || size == 0) {
    return size == 0 ? fail("it is empty") : fail("it is not a crash report (wrong magic)");
  }
  Reader reader(data, size);
  Reader magic(nullptr, 0);
  std::uint32_t version = 0;
  if (!reader.take(sizeof format::kMagic, magic) || !reader.get(version)) {
    return fail("it is truncated (" + std::to_string(size) + " bytes)");
  }
  if (version != format::kVersion)
    return fail("its format version " + std::to_string(version) + " is not supported");

  ParsedCrashReport report;
  std::uint64_t seen = 0;  // bit per single-occurrence tag
  bool ended = false;
  while (!ended) {
    std::uint32_t tag = 0, length = 0;
    Reader payload(nullptr, 0);
    if (!reader.get(tag) || !reader.get(length) || !reader.take(length, payload)) {
      return fail("it is truncated (" + std::to_string(size) + " bytes, no end record)");
    }
    if (tag == format::kEnd) {
      if (length != 0) return fail("its end record is not empty");
      if (reader.left() != 0) return fail("data follows its end record");
      ended = true;
      break;
    }
    if (singleRecord(tag) && tag < 64) {
      const std::uint64_t bit = std::uint64_t{1} << tag;
      if ((seen & bit) != 0) return fail(std::string("it has two ") + tagName(tag) + " records");
      seen |= bit;
    }
    if (auto failure = readRecord(tag, payload, report)) return fail(failure->why);
  }
  for (std::uint32_t required :
       {format::kSignal, format::kThread, format::kTime, format::kProcess}) {
    if ((seen & (std::uint64_t{1} << required)) == 0) {
      return fail(std::string("it has no ") + tagName(required) + " record");
    }
  }
  return report;
}

}  // namespace velquin::crash
