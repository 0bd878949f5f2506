// User defaults: typed values kept in one property-list file per application
// ($XDG_CONFIG_HOME/<bundle id>/defaults.plist), rewritten atomically on
// every change.
//
// Ownership and threads: standard() lives for the process; every member may
// be called from any thread (one mutex). A file that cannot be parsed is
// renamed aside (never deleted), reported on stderr, and replaced.
#pragma once

#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "platform/PropertyList.h"
#include "support/Mutex.h"

namespace velquin::platform {

class UserDefaults {
 public:
  static UserDefaults& standard();

  explicit UserDefaults(std::filesystem::path file);

  std::optional<std::string> stringForKey(const std::string& key) const;
  // False when missing or not a boolean.
  bool boolForKey(const std::string& key) const;
  std::optional<Bytes> dataForKey(const std::string& key) const;

  void setString(const std::string& key, const std::string& value);
  void setBool(const std::string& key, bool value);
  void setData(const std::string& key, const Bytes& value);
  void removeObjectForKey(const std::string& key);
  // The text under `key`, decided once for all processes sharing the file:
  // under a lock between them (flock on "<file>.lock"), the value on disk
  // when it is text that `accept` takes, else `make()`, written to the file.
  std::string stringForKeyOrCreate(const std::string& key,
                                   const std::function<bool(const std::string&)>& accept,
                                   const std::function<std::string()>& make);

  const std::filesystem::path& file() const { return file_; }

 private:
  void setValue(const std::string& key, PlistValue value);
  void persistLocked() REQUIRES(mutex_);

  const std::filesystem::path file_;
  mutable support::Mutex mutex_;
  PropertyList values_ GUARDED_BY(mutex_);
};

}  // namespace velquin::platform
