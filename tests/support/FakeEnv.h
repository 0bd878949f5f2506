// A platform environment for tests: the real Linux one, except for a
// keychain in a file the test names and a vendor id the test chooses.
// Derive further (from platform::EnvWrapper) to fake anything else.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Env.h"
#include "platform/Keychain.h"

namespace velquin::testing {

class FakeEnv : public platform::EnvWrapper {
 public:
  // Without a vendor id the machine's is asked, as on a real device.
  explicit FakeEnv(std::filesystem::path keychainFile,
                   std::optional<std::string> vendorId = std::nullopt)
      : EnvWrapper(platform::Env::standard()),
        keychain_(std::move(keychainFile)),
        vendorId_(std::move(vendorId)) {}

  platform::Keychain& keychain() override { return keychain_; }
  std::string vendorIdentifier(const std::string& appId) override {
    vendorAsked.push_back(appId);
    return vendorId_ ? *vendorId_ : target().vendorIdentifier(appId);
  }
  void setVendorId(std::optional<std::string> id) { vendorId_ = std::move(id); }

  // The application ids the vendor id was asked for, in order.
  std::vector<std::string> vendorAsked;

 private:
  platform::FileKeychain keychain_;
  std::optional<std::string> vendorId_;
};

}  // namespace velquin::testing
