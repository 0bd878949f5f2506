#include "analytics/OVDeviceInfoManagerHelper.h"

#include "platform/SystemInfo.h"
#include "support/Reachability.h"

namespace velquin {

OVDeviceInfoManagerHelper& OVDeviceInfoManagerHelper::sharedManager() {
  static OVDeviceInfoManagerHelper* helper = new OVDeviceInfoManagerHelper();  // process-wide
  return *helper;
}

std::string OVDeviceInfoManagerHelper::appKey() const {
  std::lock_guard lock(mutex_);
  return appKey_;
}

std::string OVDeviceInfoManagerHelper::tag() const {
  std::lock_guard lock(mutex_);
  return tag_;
}

void OVDeviceInfoManagerHelper::setNewAppKey(const std::string& appKey) {
  std::lock_guard lock(mutex_);
  appKey_ = appKey;
}

void OVDeviceInfoManagerHelper::setTag(const std::string& tag) {
  std::lock_guard lock(mutex_);
  tag_ = tag;
}

std::string OVDeviceInfoManagerHelper::getMacAddress() const { return platform::macAddress(); }

std::shared_ptr<Reachability> OVDeviceInfoManagerHelper::reachability() {
  std::lock_guard lock(mutex_);
  if (!reachability_) reachability_ = Reachability::reachabilityForInternetConnection();
  return reachability_;
}

void OVDeviceInfoManagerHelper::setReachability(std::shared_ptr<Reachability> reachability) {
  std::lock_guard lock(mutex_);
  reachability_ = std::move(reachability);
}

bool OVDeviceInfoManagerHelper::isReachable() {
  return reachability()->currentReachabilityStatus() != NotReachable;
}

std::uint64_t OVDeviceInfoManagerHelper::getTotalMemorySize() const {
  return platform::totalMemoryBytes();
}

std::uint64_t OVDeviceInfoManagerHelper::getAvailableMemory() const {
  return platform::availableMemoryBytes();
}

double OVDeviceInfoManagerHelper::getCurrentBatteryLevel() const { return platform::batteryLevel(); }

std::string OVDeviceInfoManagerHelper::getIPAddress(bool preferIPv4) const {
  std::string address = platform::preferredIPAddress(preferIPv4);
  return address.empty() ? "0.0.0.0" : address;
}

std::map<std::string, std::string> OVDeviceInfoManagerHelper::getIPAddresses() const {
  return platform::interfaceAddresses();
}

std::string OVDeviceInfoManagerHelper::getDataNetworkItemView() {
  switch (reachability()->currentReachabilityStatus()) {
    case NotReachable: return "none";
    case ReachableViaWWAN: return "cellular";
    case ReachableViaWiFi: break;
  }
  return platform::wirelessInterfaceUp() ? "wifi" : "wired";
}

}  // namespace velquin
