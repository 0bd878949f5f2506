// Facts about the device and the user that requests carry: the app user id,
// the request counter, the delivery log switch, the device and advertising
// identifiers, the addresses, and the device facts of every event.
//
// Creating the shared instance starts the public-address lookup: one HTTP GET
// of "<ip_lookup_address>/cityjson?ie=utf-8" (the token file's key; no
// lookup when it is unset) on a background thread, whose "cip" becomes
// extranetIp(). A failed lookup is not repeated.
//
// Ownership and threads: one instance for the process (shared()); tests make
// their own. Any thread. Text fields and providers sit behind one mutex, the
// counter and the flag are atomics. The object owns its lookup thread and
// stops and joins it when destroyed.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "backend/DeviceSource.h"
#include "delivery/EventRequestBuilder.h"
#include "support/Mutex.h"

namespace velquin {
namespace platform {
class Env;
}
class OVDeviceInfoManagerHelper;

class OVDeviceInfoManager final : public DeviceSource {
 public:
  // Used when the bundle has no identifier.
  static constexpr const char* kFallbackKeychainName = "com.velquin.sdk";
  // Used when the machine gives no vendor identifier.
  static constexpr const char* kFallbackVendorId = "E621E7F8-0000-0000-0000-0C247A3E6E5F";

  using AdvertisingIdProvider = std::function<std::optional<std::string>()>;
  using CarrierProvider = std::function<std::optional<std::string>()>;

  // Over Env::standard() and the main bundle's identifier; starts the
  // public-address lookup.
  static OVDeviceInfoManager& shared();
  // `env` (keychain, vendor id, system facts) must outlive the manager.
  OVDeviceInfoManager(platform::Env& env, std::string bundleIdentifier);
  ~OVDeviceInfoManager() override;
  OVDeviceInfoManager(const OVDeviceInfoManager&) = delete;
  OVDeviceInfoManager& operator=(const OVDeviceInfoManager&) = delete;

  std::string userId() const override;
  void setUserId(const std::string& userId);
  // The application key; empty until analytics start hands it over.
  std::string appKey() const;
  void setAppKey(const std::string& appKey);
  std::string idfa() const override;
  void setIdfa(const std::string& idfa);
  std::string appsflyer_device_id() const;
  void setAppsflyer_device_id(const std::string& id);
  // The public address; empty until a lookup succeeded.
  std::string extranetIp() const;
  // The device's own address: the first IPv4 address of a non-loopback
  // interface that is up; empty when none.
  std::string ipAddress() const;
  // The helper; its isReachable() is the delivery's reachability test.
  OVDeviceInfoManagerHelper& objcHelper() const;

  // One stable text per installation, kept in the keychain under
  // "<bundle id>.deviceID"; made from the vendor identifier at first use.
  std::string deviceIdentifier() override;
  // The advertising identifier, when the host installed a provider that
  // reports tracking as authorised; the all-zero text counts as none.
  std::optional<std::string> advertisingIdentifier() const override;
  void setAdvertisingIdProvider(AdvertisingIdProvider provider);

  // The facts an event carries, read now. Versions come from the main bundle.
  DeviceFacts deviceFacts() const;
  // The host's carrier name source (none by default).
  void setCarrierProvider(CarrierProvider provider);
  // The provider's carrier name; absent without a provider or a name.
  std::optional<std::string> carrierName() const override;
  // The main screen in points and its scale, reported by the GTK host.
  void setScreen(std::int32_t width, std::int32_t height, double density);

  // Starts the public-address lookup against `address` (a host[:port],
  // fetched over https, or a URL with its own http:// or https:// prefix).
  // False, and no lookup, when `address` is absent or empty or a lookup was
  // already started.
  bool startPublicAddressLookup(const std::optional<std::string>& address);
  // Waits until a started lookup has finished.
  void waitForPublicAddressLookup();

  // Increments the request counter and returns the new value.
  std::int64_t nextRequestNumber() { return ++num; }
  // Milliseconds since 1970.
  static double getCurrentMSimestamp();

  std::atomic<std::int64_t> num{0};
  std::atomic<bool> log{false};  // delivery and analytics log switch

 private:
  void lookUpPublicAddress(const std::string& url);

  platform::Env& env_;
  const std::string bundleIdentifier_;
  mutable support::Mutex mutex_;
  std::string userId_ GUARDED_BY(mutex_);
  std::string appKey_ GUARDED_BY(mutex_);
  std::string idfa_ GUARDED_BY(mutex_);
  std::string appsflyerDeviceId_ GUARDED_BY(mutex_);
  std::string extranetIp_ GUARDED_BY(mutex_);
  AdvertisingIdProvider advertisingIdProvider_ GUARDED_BY(mutex_);
  CarrierProvider carrierProvider_ GUARDED_BY(mutex_);
  std::int32_t screenWidth_ GUARDED_BY(mutex_) = 0;
  std::int32_t screenHeight_ GUARDED_BY(mutex_) = 0;
  double screenDensity_ GUARDED_BY(mutex_) = 0;
  support::Mutex deviceIdMutex_;
  std::optional<std::string> deviceId_ GUARDED_BY(deviceIdMutex_);
  std::thread lookupThread_ GUARDED_BY(lookupMutex_);
  support::Mutex lookupMutex_;
  std::atomic<bool> stopLookup_{false};  // set by the destructor, read by the lookup
};

}  // namespace velquin
