#include "crash/CrashEngine.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>

#include "crash/CrashReport.h"
#include "crash/CrashReportFormat.h"
#include "crash/CrashSignalHandler.h"
#include "platform/SafeFile.h"

namespace velquin::crash {
namespace {

void setError(EngineError* error, std::string description) {
  if (error != nullptr) error->description = std::move(description);
}

// The Linux engine. Threads and ownership: see CrashEngine.h; it holds its
// configuration, which never changes after construction, and the report it
// has claimed (used on the thread that starts crash capture only).
class LinuxCrashEngine final : public CrashEngine {
 public:
  explicit LinuxCrashEngine(CrashEngineConfig config) : config_(std::move(config)) {}

  bool enable(EngineError* error) override {
    try {
      removeAbandonedTemporaryFiles();
      const bool roomLeft = pendingReportNames().size() < format::kMaxPendingReports;
      std::string why;
      const HandlerSettings settings{config_.reportDirectory.string(), config_.applicationId,
                                     config_.applicationVersion, roomLeft,
                                     config_.chainHostHandlerFirst};
      if (!installCrashSignalHandlers(settings, &why)) {
        setError(error, "Crash capture cannot be enabled: " + why);
        return false;
      }
      if (auto problem = unwritableFolder()) {
        setError(error, "Crash reports cannot be written to " + config_.reportDirectory.string() +
                            ": " + *problem);
        return false;
      }
      if (!roomLeft) {
        setError(error, config_.reportDirectory.string() + " already holds " +
                            std::to_string(format::kMaxPendingReports) +
                            " undelivered crash reports; a crash of this run is not reported");
        return false;
      }
      return true;
    } catch (const std::exception& e) {
      setError(error, std::string("Crash capture cannot be enabled: ") + e.what());
      return false;
    }
  }

  bool hasPendingCrashReport() override {
    try {
      takeOverAbandonedClaims();
      return !pendingReportNames().empty();
    } catch (const std::exception&) {
      return false;
    }
  }

  std::optional<std::vector<std::byte>> loadPendingCrashReportData(EngineError* error) override {
    try {
      if (!claimed_) claimNext(error);
      if (!claimed_) return std::nullopt;
      return readClaimed(error);
    } catch (const std::exception& e) {
      setError(error, std::string("The pending crash report cannot be read: ") + e.what() + ".");
      return std::nullopt;
    }
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
    if (!claimed_) return true;
    const bool removed = ::unlink(claimPath(*claimed_).c_str()) == 0 || errno == ENOENT;
    claimed_.reset();
    return removed;
  }

  void releasePendingCrashReport() override {
    if (!claimed_) return;
    ::rename(claimPath(*claimed_).c_str(), (config_.reportDirectory / *claimed_).c_str());
    claimed_.reset();
  }

 private:
  static bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
  }

  std::filesystem::path claimPath(const std::string& reportName) const {
    return config_.reportDirectory /
           (format::kClaimPrefix + std::to_string(::getpid()) + "-" + reportName);
  }

  // The names of the pending reports, oldest first (the name carries the
  // time); an older version's single report name is one of them.
  std::vector<std::string> pendingReportNames() const {
    std::vector<std::string> names;
    std::error_code ec;
    const std::string prefix = format::kPendingFileName;
    for (const auto& entry : std::filesystem::directory_iterator(config_.reportDirectory, ec)) {
      std::string name = entry.path().filename().string();
      if (!startsWith(name, prefix)) continue;
      if (name.size() != prefix.size() && name[prefix.size()] != '-') continue;
      std::error_code statError;
      if (!std::filesystem::is_regular_file(entry.symlink_status(statError))) continue;
      names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
      // "...-<pid>-<time>": compare the time, then the whole name.
      const auto ta = a.substr(a.find_last_of('-') + 1);
      const auto tb = b.substr(b.find_last_of('-') + 1);
      return ta.size() != tb.size() ? ta.size() < tb.size() : (ta != tb ? ta < tb : a < b);
    });
    return names;
  }

  // A claim whose process is gone (it died while delivering) is pending
  // again; processes racing for it are told apart by rename, which only one
  // of them wins.
  void takeOverAbandonedClaims() const {
    std::error_code ec;
    const std::string prefix = format::kClaimPrefix;
    for (const auto& entry : std::filesystem::directory_iterator(config_.reportDirectory, ec)) {
      const std::string name = entry.path().filename().string();
      if (!startsWith(name, prefix)) continue;
      const std::size_t dash = name.find('-', prefix.size());
      if (dash == std::string::npos) continue;
      pid_t pid = 0;
      const auto [end, failure] =
          std::from_chars(name.data() + prefix.size(), name.data() + dash, pid);
      if (failure != std::errc() || end != name.data() + dash || pid <= 0) continue;
      if (::kill(pid, 0) == 0 || errno != ESRCH) continue;
      const std::string report = name.substr(dash + 1);
      if (!startsWith(report, format::kPendingFileName)) continue;
      ::rename(entry.path().c_str(), (config_.reportDirectory / report).c_str());
    }
  }

  // Renames the oldest pending report to this process's claim. Another
  // process that renamed it first makes this one try the next.
  void claimNext(EngineError* error) {
    for (const std::string& name : pendingReportNames()) {
      if (::rename((config_.reportDirectory / name).c_str(), claimPath(name).c_str()) == 0) {
        claimed_ = name;
        return;
      }
      if (errno == ENOENT) continue;
      setError(error, "The pending crash report cannot be claimed: " +
                          std::string(std::strerror(errno)) + ".");
      return;
    }
    setError(error, "No crash report is pending.");
    if (error != nullptr) error->nonePending = true;
  }

  std::optional<std::vector<std::byte>> readClaimed(EngineError* error) const {
    // Non-blocking, and only a regular file is read: something else in its
    // place (a pipe, a device) must not stall the start.
    const int fd =
        ::open(claimPath(*claimed_).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
      setError(error, "The pending crash report cannot be opened: " +
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

  // Why the folder cannot take a report, found by creating this process's
  // temporary report file (as the handler would) and removing it again.
  std::optional<std::string> unwritableFolder() const {
    const auto probe = config_.reportDirectory / (format::kTempFilePrefix +
                                                  std::to_string(::getpid()) +
                                                  format::kTempFileSuffix);
    const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return std::string(std::strerror(errno));
    ::close(fd);
    ::unlink(probe.c_str());
    return std::nullopt;
  }

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
  // The name of the report this engine claimed and has not purged or
  // released yet.
  std::optional<std::string> claimed_;
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
    // Reports hold the process's memory addresses and names: the folder is
    // the user's alone.
    platform::makePrivateDirectories(directory);
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
