#include "analytics/OVDeviceInfoManagerHelper.h"

#include "platform/Env.h"
#include "support/Reachability.h"

namespace velquin {

OVDeviceInfoManagerHelper& OVDeviceInfoManagerHelper::sharedManager() {
  static auto* helper = new OVDeviceInfoManagerHelper(platform::Env::standard());  // process-wide
  return *helper;
}

OVDeviceInfoManagerHelper::OVDeviceInfoManagerHelper(platform::Env& env) : env_(env) {}

std::string OVDeviceInfoManagerHelper::appKey() const {
  support::MutexLock lock(mutex_);
  return appKey_;
}

std::string OVDeviceInfoManagerHelper::tag() const {
  support::MutexLock lock(mutex_);
  return tag_;
}

void OVDeviceInfoManagerHelper::setNewAppKey(const std::string& appKey) {
  support::MutexLock lock(mutex_);
  appKey_ = appKey;
}

void OVDeviceInfoManagerHelper::setTag(const std::string& tag) {
  support::MutexLock lock(mutex_);
  tag_ = tag;
}

std::string OVDeviceInfoManagerHelper::getMacAddress() const {
  return env_.macAddress();
}

std::shared_ptr<Reachability> OVDeviceInfoManagerHelper::reachability() {
  support::MutexLock lock(mutex_);
  if (!reachability_)
    reachability_ = Reachability::reachabilityWithSource(env_.internetFlagSource());
  return reachability_;
}

void OVDeviceInfoManagerHelper::setReachability(std::shared_ptr<Reachability> reachability) {
  support::MutexLock lock(mutex_);
  reachability_ = std::move(reachability);
}

bool OVDeviceInfoManagerHelper::isReachable() {
  return reachability()->currentReachabilityStatus() != NotReachable;
}

std::uint64_t OVDeviceInfoManagerHelper::getTotalMemorySize() const {
  return env_.totalMemoryBytes();
}

std::uint64_t OVDeviceInfoManagerHelper::getAvailableMemory() const {
  return env_.availableMemoryBytes();
}

double OVDeviceInfoManagerHelper::getCurrentBatteryLevel() const {
  return env_.batteryLevel();
}

std::string OVDeviceInfoManagerHelper::getIPAddress(bool preferIPv4) const {
  std::string address = env_.preferredIPAddress(preferIPv4);
  return address.empty() ? "0.0.0.0" : address;
}

std::map<std::string, std::string> OVDeviceInfoManagerHelper::getIPAddresses() const {
  return env_.interfaceAddresses();
}

std::string OVDeviceInfoManagerHelper::getDataNetworkItemView() {
  switch (reachability()->currentReachabilityStatus()) {
    case NotReachable:
      return "none";
    case ReachableViaWWAN:
      return "cellular";
    case ReachableViaWiFi:
      break;
  }
  return env_.wirelessInterfaceUp() ? "wifi" : "wired";
}

}  // namespace velquin
