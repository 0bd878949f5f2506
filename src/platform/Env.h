// Everything the library asks of the machine, behind one interface: the
// keychain, user defaults, facts about the system, the wall clock, the main
// queue, the network monitor and the application's folders.
//
// Env::standard() is the Linux implementation. EnvWrapper forwards every
// call to another Env, so a test's fake derives from it and overrides only
// what it tests (a keychain that fails, a fixed locale, a clock it moves).
// Components take an Env& in their constructors; the composition root hands
// them Env::standard().
//
// Ownership and threads: standard() lives for the process and creates its
// keychain and defaults on first use; every member may be called from any
// thread. An Env must outlive the components given it.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/Keychain.h"
#include "platform/SystemInfo.h"
#include "platform/UserDefaults.h"
#include "support/Reachability.h"

namespace velquin {
class MainQueue;
}  // namespace velquin

namespace velquin::platform {

class Env {
 public:
  virtual ~Env() = default;
  static Env& standard();

  // ---- Storage: the application's folders and stores.
  // $XDG_DATA_HOME/<bundle id> (database, keychain file, store files).
  virtual std::filesystem::path dataDirectory() = 0;
  virtual Keychain& keychain() = 0;
  virtual UserDefaults& userDefaults() = 0;

  // ---- System facts (see SystemInfo.h for what each reads).
  virtual std::string hardwareMachine() = 0;
  virtual std::string osVersion() = 0;
  virtual std::string localeIdentifier() = 0;
  virtual std::string timeZoneAbbreviation() = 0;
  virtual std::string timeZoneName() = 0;
  virtual std::string deviceBrand() = 0;
  virtual std::string macAddress() = 0;
  virtual std::map<std::string, std::string> interfaceAddresses() = 0;
  virtual std::string firstIPv4Address() = 0;
  virtual std::string preferredIPAddress(bool preferIPv4) = 0;
  virtual bool wirelessInterfaceUp() = 0;
  virtual std::uint64_t totalMemoryBytes() = 0;
  virtual std::uint64_t availableMemoryBytes() = 0;
  virtual double batteryLevel() = 0;
  virtual std::optional<StorageSizes> storageSizes(const std::filesystem::path& path) = 0;
  // The app-specific machine id for `appId` as upper-case UUID text; empty
  // when the machine has none.
  virtual std::string vendorIdentifier(const std::string& appId) = 0;

  // ---- Time and the network.
  virtual std::chrono::system_clock::time_point now() = 0;
  virtual MainQueue& mainQueue() = 0;
  // The flags of the internet connection (GNetworkMonitor on Linux).
  virtual std::unique_ptr<ReachabilityFlagSource> internetFlagSource() = 0;
};

// Forwards every call to `target`, which must outlive the wrapper.
class EnvWrapper : public Env {
 public:
  explicit EnvWrapper(Env& target) : target_(target) {}
  Env& target() const { return target_; }

  std::filesystem::path dataDirectory() override { return target_.dataDirectory(); }
  Keychain& keychain() override { return target_.keychain(); }
  UserDefaults& userDefaults() override { return target_.userDefaults(); }
  std::string hardwareMachine() override { return target_.hardwareMachine(); }
  std::string osVersion() override { return target_.osVersion(); }
  std::string localeIdentifier() override { return target_.localeIdentifier(); }
  std::string timeZoneAbbreviation() override { return target_.timeZoneAbbreviation(); }
  std::string timeZoneName() override { return target_.timeZoneName(); }
  std::string deviceBrand() override { return target_.deviceBrand(); }
  std::string macAddress() override { return target_.macAddress(); }
  std::map<std::string, std::string> interfaceAddresses() override {
    return target_.interfaceAddresses();
  }
  std::string firstIPv4Address() override { return target_.firstIPv4Address(); }
  std::string preferredIPAddress(bool preferIPv4) override {
    return target_.preferredIPAddress(preferIPv4);
  }
  bool wirelessInterfaceUp() override { return target_.wirelessInterfaceUp(); }
  std::uint64_t totalMemoryBytes() override { return target_.totalMemoryBytes(); }
  std::uint64_t availableMemoryBytes() override { return target_.availableMemoryBytes(); }
  double batteryLevel() override { return target_.batteryLevel(); }
  std::optional<StorageSizes> storageSizes(const std::filesystem::path& path) override {
    return target_.storageSizes(path);
  }
  std::string vendorIdentifier(const std::string& appId) override {
    return target_.vendorIdentifier(appId);
  }
  std::chrono::system_clock::time_point now() override { return target_.now(); }
  MainQueue& mainQueue() override { return target_.mainQueue(); }
  std::unique_ptr<ReachabilityFlagSource> internetFlagSource() override {
    return target_.internetFlagSource();
  }

 private:
  Env& target_;
};

}  // namespace velquin::platform
