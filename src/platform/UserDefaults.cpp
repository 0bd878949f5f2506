#include "platform/UserDefaults.h"

#include <chrono>

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
