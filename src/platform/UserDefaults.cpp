#include "platform/UserDefaults.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "platform/SafeFile.h"
#include "support/Console.h"
#include "velquin/Bundle.h"

namespace velquin::platform {

UserDefaults& UserDefaults::standard() {
  static UserDefaults* defaults =  // lives for the process
      new UserDefaults(Bundle::main().configDirectory() / "defaults.plist");
  return *defaults;
}

UserDefaults::UserDefaults(std::filesystem::path file) : file_(std::move(file)) {
  PropertyList::LoadError error{};
  if (auto loaded = PropertyList::load(file_, &error)) {
    values_ = std::move(*loaded);
    return;
  }
  if (error == PropertyList::LoadError::missing) return;
  // Keep the damaged file for inspection and start afresh.
  auto stamp = std::chrono::duration_cast<std::chrono::seconds>(
                   std::chrono::system_clock::now().time_since_epoch())
                   .count();
  auto aside = file_;
  aside += ".corrupt-" + std::to_string(stamp);
  std::error_code ec;
  std::filesystem::rename(file_, aside, ec);
  support::warn("user defaults file " + file_.string() + " could not be read; " +
                (ec ? "left in place" : "moved to " + aside.string()) +
                " and a new one is started");
}

std::optional<std::string> UserDefaults::stringForKey(const std::string& key) const {
  support::MutexLock lock(mutex_);
  return values_.string(key);
}

bool UserDefaults::boolForKey(const std::string& key) const {
  support::MutexLock lock(mutex_);
  return values_.boolean(key).value_or(false);
}

std::optional<Bytes> UserDefaults::dataForKey(const std::string& key) const {
  support::MutexLock lock(mutex_);
  return values_.data(key);
}

void UserDefaults::setString(const std::string& key, const std::string& value) {
  setValue(key, value);
}

void UserDefaults::setBool(const std::string& key, bool value) {
  setValue(key, value);
}

void UserDefaults::setData(const std::string& key, const Bytes& value) {
  setValue(key, value);
}

void UserDefaults::removeObjectForKey(const std::string& key) {
  support::MutexLock lock(mutex_);
  values_.remove(key);
  persistLocked();
}

std::string UserDefaults::stringForKeyOrCreate(
    const std::string& key, const std::function<bool(const std::string&)>& accept,
    const std::function<std::string()>& make) {
  support::MutexLock lock(mutex_);
  int lockFd = -1;
  if (makePrivateDirectories(file_.parent_path())) {
    lockFd = ::open((file_.string() + ".lock").c_str(),
                    O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    while (lockFd >= 0 && ::flock(lockFd, LOCK_EX) != 0 && errno == EINTR) {
    }
  }
  // Another process may have decided since this one read the file.
  auto onDisk = PropertyList::load(file_);
  std::string value;
  if (onDisk && onDisk->string(key) && accept(*onDisk->string(key))) {
    value = *onDisk->string(key);
  } else {
    value = make();
    PropertyList updated = onDisk ? std::move(*onDisk) : values_;
    updated.set(key, value);
    std::string error;
    if (!updated.saveAtomically(file_, &error)) support::warn("user defaults not saved: " + error);
  }
  values_.set(key, value);
  if (lockFd >= 0) ::close(lockFd);  // releases the lock
  return value;
}

void UserDefaults::setValue(const std::string& key, PlistValue value) {
  support::MutexLock lock(mutex_);
  values_.set(key, std::move(value));
  persistLocked();
}

void UserDefaults::persistLocked() {
  std::string error;
  if (!values_.saveAtomically(file_, &error)) {
    // The value stays in memory for this process; the next write tries again.
    support::warn("user defaults not saved: " + error);
  }
}

}  // namespace velquin::platform
