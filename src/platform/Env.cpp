#include "platform/Env.h"

#include <mutex>

#include "support/Reachability.h"
#include "velquin/Bundle.h"
#include "velquin/MainQueue.h"

namespace velquin::platform {
namespace {

// The Linux side of every platform interface. The keychain and the
// defaults are opened on first use, once the host has named its bundle.
class LinuxEnv final : public Env {
 public:
  std::filesystem::path dataDirectory() override { return Bundle::main().dataDirectory(); }
  Keychain& keychain() override { return Keychain::standard(); }
  UserDefaults& userDefaults() override { return UserDefaults::standard(); }
  std::string hardwareMachine() override { return platform::hardwareMachine(); }
  std::string osVersion() override { return platform::osVersion(); }
  std::string localeIdentifier() override { return platform::localeIdentifier(); }
  std::string timeZoneAbbreviation() override { return platform::timeZoneAbbreviation(); }
  std::string timeZoneName() override { return platform::timeZoneName(); }
  std::string deviceBrand() override { return platform::deviceBrand(); }
  std::string macAddress() override { return platform::macAddress(); }
  std::map<std::string, std::string> interfaceAddresses() override {
    return platform::interfaceAddresses();
  }
  std::string firstIPv4Address() override { return platform::firstIPv4Address(); }
  std::string preferredIPAddress(bool preferIPv4) override {
    return platform::preferredIPAddress(preferIPv4);
  }
  bool wirelessInterfaceUp() override { return platform::wirelessInterfaceUp(); }
  std::uint64_t totalMemoryBytes() override { return platform::totalMemoryBytes(); }
  std::uint64_t availableMemoryBytes() override { return platform::availableMemoryBytes(); }
  double batteryLevel() override { return platform::batteryLevel(); }
  std::optional<StorageSizes> storageSizes(const std::filesystem::path& path) override {
    return platform::storageSizes(path);
  }
  std::string vendorIdentifier(const std::string& appId) override {
    return platform::vendorIdentifier(appId);
  }
  std::chrono::system_clock::time_point now() override { return std::chrono::system_clock::now(); }
  MainQueue& mainQueue() override { return MainQueue::shared(); }
  std::unique_ptr<ReachabilityFlagSource> internetFlagSource() override {
    return makeNetworkMonitorSource();
  }
};

}  // namespace

Env& Env::standard() {
  static Env* env = new LinuxEnv();  // lives for the process
  return *env;
}

}  // namespace velquin::platform
