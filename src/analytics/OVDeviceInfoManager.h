// Facts about the device and the user that requests carry: the app user id,
// the request counter, the delivery log switch, the device and advertising
// identifiers.
//
// Ownership and threads: one instance for the process (shared()); any thread.
// Text fields sit behind one mutex, the counter and the flag are atomics.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace velquin {
namespace platform {
class Keychain;
}

class OVDeviceInfoManager {
 public:
  // Used when the bundle has no identifier.
  static constexpr const char* kFallbackKeychainName = "com.velquin.sdk";
  // Used when the machine gives no vendor identifier.
  static constexpr const char* kFallbackVendorId = "E621E7F8-0000-0000-0000-0C247A3E6E5F";
  static constexpr const char* kZeroAdvertisingId = "00000000-0000-0000-0000-000000000000";

  static OVDeviceInfoManager& shared();
  OVDeviceInfoManager(platform::Keychain& keychain, std::string bundleIdentifier);

  std::string userId() const;
  void setUserId(const std::string& userId);
  std::string idfa() const;
  void setIdfa(const std::string& idfa);
  std::string extranetIp() const;

  // One stable text per installation, kept in the keychain under
  // "<bundle id>.deviceID"; made from the app-specific machine id at first use.
  std::string deviceIdentifier();
  // The advertising identifier, when the host installed a provider that
  // reports tracking as authorised; the all-zero text counts as none.
  std::optional<std::string> advertisingIdentifier() const;
  using AdvertisingIdProvider = std::function<std::optional<std::string>()>;
  void setAdvertisingIdProvider(AdvertisingIdProvider provider);

  // Increments the request counter and returns the new value.
  std::int64_t nextRequestNumber() { return ++num; }

  std::atomic<std::int64_t> num{0};
  std::atomic<bool> log{false};  // delivery and analytics log switch

 private:
  platform::Keychain& keychain_;
  const std::string bundleIdentifier_;
  mutable std::mutex mutex_;
  std::string userId_;                       // guarded by mutex_
  std::string idfa_;                         // guarded by mutex_
  std::string extranetIp_;                   // guarded by mutex_
  std::optional<std::string> deviceId_;      // guarded by mutex_
  AdvertisingIdProvider advertisingIdProvider_;  // guarded by mutex_
};

// The app-specific machine id for `appId` as upper-case UUID text, or empty
// when the machine has no id.
std::string vendorIdentifier(const std::string& appId);

}  // namespace velquin
