#include "purchases/OVUserDataManager.h"

#include "analytics/OVDeviceInfoManager.h"
#include "platform/UserDefaults.h"
#include "support/OVUtils.h"
#include "support/Uuid.h"

namespace velquin {
namespace {
std::string newUuid() {
  return support::randomUuid();
}
}  // namespace

OVUserDataManager::OVUserDataManager(platform::UserDefaults& defaults,
                                     OVDeviceInfoManager& deviceInfo)
    : defaults_(defaults), deviceInfo_(deviceInfo) {
  resolveUserId(std::nullopt);
}

std::string OVUserDataManager::userId() const {
  support::MutexLock lock(mutex_);
  return userId_;
}

void OVUserDataManager::resolveUserId(const std::optional<std::string>& requested) {
  support::MutexLock lock(mutex_);
  auto stored = defaults_.stringForKey(kUserIdKey);
  if (stored && (!requested || *requested == *stored)) {
    userId_ = *stored;
    return;
  }
  if (requested) {
    log("set new user id: " + *requested);
    defaults_.setString(kUserIdKey, *requested);
    userId_ = *requested;
    return;
  }
  userId_ = newUuid();
  defaults_.setString(kUserIdKey, userId_);
  log("set new user id: " + userId_);
}

void OVUserDataManager::setUserId(const std::string& id) {
  {
    support::MutexLock lock(mutex_);
    userId_ = id;
    defaults_.setString(kUserIdKey, id);
  }
  deviceInfo_.setUserId(id);
}

}  // namespace velquin
