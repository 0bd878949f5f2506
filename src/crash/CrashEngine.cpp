#include "crash/CrashEngine.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>

#include "crash/CrashReport.h"
#include "crash/CrashReportFormat.h"
#include "crash/CrashSignalHandler.h"

namespace velquin::crash {
namespace {

void setError(EngineError* error, std::string description) {
  if (error != nullptr) error->description = std::move(description);
}

// The Linux engine. Threads and ownership: see CrashEngine.h; it holds only
// its configuration, which never changes after construction.
class LinuxCrashEngine final : public CrashEngine {
 public:
  explicit LinuxCrashEngine(CrashEngineConfig config)
      : config_(std::move(config)),
        pendingPath_(config_.reportDirectory / format::kPendingFileName) {}

  bool enable(EngineError* error) override {
    try {
      removeAbandonedTemporaryFiles();
      std::string why;
      const HandlerSettings settings{config_.reportDirectory.string(), config_.applicationId,
                                     config_.applicationVersion};
      if (!installCrashSignalHandlers(settings, &why)) {
        setError(error, "Crash capture cannot be enabled: " + why);
        return false;
      }
      return true;
    } catch (const std::exception& e) {
      setError(error, std::string("Crash capture cannot be enabled: ") + e.what());
      return false;
    }
  }

  bool hasPendingCrashReport() override {
    struct stat info = {};
    return ::lstat(pendingPath_.c_str(), &info) == 0 && S_ISREG(info.st_mode);
  }

  std::optional<std::vector<std::byte>> loadPendingCrashReportData(EngineError* error) override {
    // Non-blocking, and only a regular file is read: something else in its
    // place (a pipe, a device) must not stall the start.
    const int fd = ::open(pendingPath_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
      setError(error, errno == ENOENT ? std::string("No crash report is pending.")
                                      : "The pending crash report cannot be opened: " +
                                            std::string(std::strerror(errno)) + ".");
      return std::nullopt;
    }
    struct stat info = {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
      ::close(fd);
      setError(error, "The pending crash report is not a regular file.");
      return std::nullopt;
    }
    std::optional<std::vector<std::byte>> data;
    try {
      data = readAll(fd, error);
    } catch (const std::exception& e) {
      setError(error, std::string("The pending crash report cannot be read: ") + e.what() + ".");
    }
    ::close(fd);
    return data;
  }

  std::shared_ptr<const ParsedCrashReport> parseCrashReport(const std::vector<std::byte>& data,
                                                            EngineError* error) override {
    try {
      auto parsed = parseCrashReportBytes(data.data(), data.size(), error);
      if (!parsed) return nullptr;
      return std::make_shared<const ParsedCrashReport>(std::move(*parsed));
    } catch (const std::exception& e) {
      setError(error, std::string("The crash report cannot be read: ") + e.what());
      return nullptr;
    }
  }

  std::string formatCrashReport(const ParsedCrashReport& report, int textFormat) override {
    if (textFormat != kCrashReportTextFormatiOS) return {};
    try {
      return formatCrashReportText(report, config_.applicationId, config_.applicationVersion);
    } catch (const std::exception&) {
      return {};  // left pending for the next start
    }
  }

  bool purgePendingCrashReport() override {
    return ::unlink(pendingPath_.c_str()) == 0 || errno == ENOENT;
  }

 private:
  static std::optional<std::vector<std::byte>> readAll(int fd, EngineError* error) {
    std::vector<std::byte> data;
    std::byte chunk[16384];
    for (;;) {
      const ssize_t n = ::read(fd, chunk, sizeof chunk);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        setError(error, "The pending crash report cannot be read: " +
                            std::string(std::strerror(errno)) + ".");
        return std::nullopt;
      }
      if (n == 0) return data;
      if (data.size() + static_cast<std::size_t>(n) > format::kMaxReportBytes) {
        setError(error, "The pending crash report is larger than " +
                            std::to_string(format::kMaxReportBytes) + " bytes.");
        return std::nullopt;
      }
      data.insert(data.end(), chunk, chunk + n);
    }
  }

  // A process killed while its handler was writing leaves its temporary
  // file behind; it is removed once that process is gone.
  void removeAbandonedTemporaryFiles() const {
    std::error_code ec;
    const std::string prefix = format::kTempFilePrefix;
    const std::string suffix = format::kTempFileSuffix;
    for (const auto& entry : std::filesystem::directory_iterator(config_.reportDirectory, ec)) {
      const std::string name = entry.path().filename().string();
      if (name.size() <= prefix.size() + suffix.size() ||
          name.compare(0, prefix.size(), prefix) != 0 ||
          name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
        continue;
      }
      const std::string digits =
          name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
      pid_t pid = 0;
      const auto [end, failure] =
          std::from_chars(digits.data(), digits.data() + digits.size(), pid);
      if (failure != std::errc() || end != digits.data() + digits.size() || pid <= 0) continue;
      if (::kill(pid, 0) != 0 && errno == ESRCH) std::filesystem::remove(entry.path(), ec);
    }
  }

  const CrashEngineConfig config_;
  const std::filesystem::path pendingPath_;
};

}  // namespace

std::optional<CrashEngineConfig> CrashEngineConfig::make(int signalHandlerType,
                                                         int symbolicationStrategy) {
  if (signalHandlerType != kSignalHandlerTypeBSD) return std::nullopt;
  CrashEngineConfig config;
  config.signalHandlerType = signalHandlerType;
  config.symbolicationStrategy = symbolicationStrategy;
  return config;
}

std::unique_ptr<CrashEngine> createCrashEngine(const CrashEngineConfig& config) {
  try {
    if (config.signalHandlerType != CrashEngineConfig::kSignalHandlerTypeBSD ||
        config.reportDirectory.empty()) {
      return nullptr;
    }
    std::error_code ec;
    std::filesystem::path directory = std::filesystem::absolute(config.reportDirectory, ec);
    if (ec) return nullptr;
    directory = directory.lexically_normal();
    if (directory.native().size() > 1 && directory.native().back() == '/')
      directory = directory.parent_path();
    // The handler builds "<folder>/<temporary name>" in a PATH_MAX buffer.
    if (directory.native().size() + 64 > PATH_MAX) return nullptr;
    std::filesystem::create_directories(directory, ec);
    if (!std::filesystem::is_directory(directory, ec) ||
        ::access(directory.c_str(), R_OK | X_OK) != 0) {
      return nullptr;
    }
    CrashEngineConfig absolute = config;
    absolute.reportDirectory = directory;
    return std::make_unique<LinuxCrashEngine>(std::move(absolute));
  } catch (const std::exception&) {
    return nullptr;
  }
}

void suppressReportOfCurrentCrash() noexcept {
  setSuppressCurrentCrash();
}

}  // namespace velquin::crash
