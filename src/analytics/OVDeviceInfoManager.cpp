#include "analytics/OVDeviceInfoManager.h"

#include <openssl/evp.h>
#include <systemd/sd-id128.h>
#include <uuid/uuid.h>

#include <array>

#include "platform/Keychain.h"
#include "velquin/Bundle.h"

namespace velquin {

OVDeviceInfoManager& OVDeviceInfoManager::shared() {
  static OVDeviceInfoManager* manager =  // lives for the process
      new OVDeviceInfoManager(platform::Keychain::standard(), Bundle::main().bundleIdentifier());
  return *manager;
}

OVDeviceInfoManager::OVDeviceInfoManager(platform::Keychain& keychain,
                                         std::string bundleIdentifier)
    : keychain_(keychain), bundleIdentifier_(std::move(bundleIdentifier)) {}

std::string OVDeviceInfoManager::userId() const {
  std::lock_guard lock(mutex_);
  return userId_;
}

void OVDeviceInfoManager::setUserId(const std::string& userId) {
  std::lock_guard lock(mutex_);
  userId_ = userId;
}

std::string OVDeviceInfoManager::idfa() const {
  std::lock_guard lock(mutex_);
  return idfa_;
}

void OVDeviceInfoManager::setIdfa(const std::string& idfa) {
  std::lock_guard lock(mutex_);
  idfa_ = idfa;
}

std::string OVDeviceInfoManager::extranetIp() const {
  std::lock_guard lock(mutex_);
  return extranetIp_;
}

std::string OVDeviceInfoManager::deviceIdentifier() {
  std::lock_guard lock(mutex_);
  if (deviceId_) return *deviceId_;
  const std::string key =
      (bundleIdentifier_.empty() ? kFallbackKeychainName : bundleIdentifier_) + ".deviceID";
  if (auto stored = keychain_.load(key)) {
    deviceId_ = *stored;
    return *deviceId_;
  }
  std::string id = vendorIdentifier(bundleIdentifier_.empty() ? kFallbackKeychainName
                                                               : bundleIdentifier_);
  if (id.empty()) id = kFallbackVendorId;
  keychain_.save(key, id);
  deviceId_ = id;
  return id;
}

std::optional<std::string> OVDeviceInfoManager::advertisingIdentifier() const {
  AdvertisingIdProvider provider;
  {
    std::lock_guard lock(mutex_);
    provider = advertisingIdProvider_;
  }
  if (!provider) return std::nullopt;
  auto id = provider();
  if (!id || id->empty() || *id == kZeroAdvertisingId) return std::nullopt;
  return id;
}

void OVDeviceInfoManager::setAdvertisingIdProvider(AdvertisingIdProvider provider) {
  std::lock_guard lock(mutex_);
  advertisingIdProvider_ = std::move(provider);
}

std::string vendorIdentifier(const std::string& appId) {
  // The application id for sd_id128_get_machine_app_specific is 128 bits: the
  // first 16 bytes of the SHA-256 of the bundle identifier.
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_Digest(appId.data(), appId.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
    return "";
  }
  sd_id128_t app{};
  std::copy_n(digest.begin(), sizeof app.bytes, app.bytes);
  sd_id128_t machine{};
  if (sd_id128_get_machine_app_specific(app, &machine) < 0) return "";
  uuid_t uuid;
  std::copy_n(machine.bytes, sizeof uuid, uuid);
  char text[37];
  uuid_unparse_upper(uuid, text);
  return text;
}

}  // namespace velquin
