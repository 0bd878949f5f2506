#include "analytics/OVDeviceInfoManagerHelper.h"

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

}  // namespace velquin
