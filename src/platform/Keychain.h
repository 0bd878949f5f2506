// Secrets kept across reinstalls of the application: the device identifier.
//
// Ownership and threads: standard() lives for the process and picks the
// Secret Service (libsecret) when the session bus offers one, otherwise a
// 0600 property-list file under $XDG_DATA_HOME/<bundle id>/. Implementations
// are safe to call from any thread.
#pragma once

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

#include "support/Mutex.h"

namespace velquin::platform {

class Keychain {
 public:
  virtual ~Keychain() = default;
  static Keychain& standard();

  virtual std::optional<std::string> load(const std::string& key) = 0;
  virtual bool save(const std::string& key, const std::string& value) = 0;
};

class FileKeychain final : public Keychain {
 public:
  explicit FileKeychain(std::filesystem::path file);
  std::optional<std::string> load(const std::string& key) override;
  bool save(const std::string& key, const std::string& value) override;

 private:
  const std::filesystem::path file_;
  support::Mutex mutex_;  // serialises read-modify-write of file_
};

}  // namespace velquin::platform
