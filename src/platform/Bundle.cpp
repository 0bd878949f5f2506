#include "velquin/Bundle.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>

#include "platform/PropertyList.h"
#include "support/Console.h"

namespace velquin {
namespace {

std::filesystem::path executableDirectory() {
  std::error_code ec;
  auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return std::filesystem::current_path(ec);
  return exe.parent_path();
}

std::filesystem::path xdgDirectory(const char* variable, const char* fallbackUnderHome) {
  const char* value = std::getenv(variable);
  if (value && *value == '/') return value;
  const char* home = std::getenv("HOME");
  return std::filesystem::path(home && *home ? home : "/tmp") / fallbackUnderHome;
}

std::atomic<const Bundle*> mainBundle{nullptr};

}  // namespace

const Bundle& Bundle::main() {
  const Bundle* bundle = mainBundle.load();
  if (bundle) return *bundle;
  auto* created = new Bundle(executableDirectory());  // lives for the process
  if (mainBundle.compare_exchange_strong(bundle, created)) return *created;
  delete created;
  return *bundle;
}

void Bundle::setMainBundlePath(const std::filesystem::path& dir) {
  // Earlier bundles stay alive: callers may still hold references to them.
  mainBundle.store(new Bundle(dir));
}

// A reverse-DNS name: letters, digits, '.' and '-', dot-separated parts
// that are not empty. The identifier names folders, so anything path-like
// ("..", "/") must never get through.
static bool isReverseDnsName(const std::string& name) {
  if (name.empty() || name.size() > 255 || name.front() == '.' || name.back() == '.') return false;
  char previous = 0;
  for (char c : name) {
    const bool letterOrDigit =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!letterOrDigit && c != '.' && c != '-') return false;
    if (c == '.' && previous == '.') return false;
    previous = c;
  }
  return true;
}

Bundle::Bundle(std::filesystem::path dir) : dir_(std::move(dir)) {
  std::error_code ec;
  if (!dir_.empty() && !std::filesystem::is_directory(dir_, ec)) {
    support::warn("bundle folder " + dir_.string() +
                  " does not exist; its token file and Info.plist are missing");
  }
  platform::PropertyList::LoadError error{};
  auto info = platform::PropertyList::load(dir_ / "Info.plist", &error);
  if (!info && error != platform::PropertyList::LoadError::missing) {
    support::warn("Info.plist in " + dir_.string() +
                  " cannot be read (not a regular property-list file of at most " +
                  std::to_string(platform::PropertyList::kMaxFileBytes) + " bytes); ignored");
  }
  if (info) {
    identifier_ = info->string("CFBundleIdentifier").value_or("");
    if (!identifier_.empty() && !isReverseDnsName(identifier_)) {
      support::warn("Info.plist: CFBundleIdentifier \"" + identifier_ +
                    "\" is not a reverse-DNS name (letters, digits, '.', '-'); using "
                    "\"velquin.app\" instead");
      identifier_.clear();
    }
    shortVersion_ = info->string("CFBundleShortVersionString").value_or("");
    version_ = info->string("CFBundleVersion").value_or("");
  }
}

std::optional<std::filesystem::path> Bundle::pathForResource(const std::string& name,
                                                             const std::string& type) const {
  auto file = dir_ / (type.empty() ? name : name + "." + type);
  std::error_code ec;
  if (std::filesystem::is_regular_file(file, ec)) return file;
  return std::nullopt;
}

std::optional<std::filesystem::path> Bundle::appStoreReceiptPath() const {
  return dataDirectory() / "StoreKit" / "sandboxReceipt";
}

std::filesystem::path Bundle::configDirectory() const {
  return xdgDirectory("XDG_CONFIG_HOME", ".config") /
         (identifier_.empty() ? "velquin.app" : identifier_);
}

std::filesystem::path Bundle::dataDirectory() const {
  return xdgDirectory("XDG_DATA_HOME", ".local/share") /
         (identifier_.empty() ? "velquin.app" : identifier_);
}

}  // namespace velquin
