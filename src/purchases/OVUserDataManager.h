// Decides which user id the SDK reports as appUserId and keeps it in user
// defaults under "ORVENT_ANALYTICS_USER_ID".
//
// Ownership and threads: owned by OVPurchase (its userDataManager). Any
// thread; the current id sits behind a mutex.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "support/Mutex.h"

namespace velquin {
class OVDeviceInfoManager;
namespace platform {
class UserDefaults;
}

class OVUserDataManager {
 public:
  static constexpr const char* kUserIdKey = "ORVENT_ANALYTICS_USER_ID";

  // Resolves the id with no requested one: the stored id, or a new UUID.
  OVUserDataManager(platform::UserDefaults& defaults, OVDeviceInfoManager& deviceInfo);

  // Always present after construction.
  std::string userId() const;
  // A stored id that is empty or not valid UTF-8 (from an earlier version)
  // counts as none and is replaced; so is such a requested id.
  void resolveUserId(const std::optional<std::string>& requested);
  // Makes `id` current, stores it, and copies it to the device information.
  // An empty or non-UTF-8 id is refused (false, logged, nothing changed).
  bool setUserId(const std::string& id);

 private:
  platform::UserDefaults& defaults_;
  OVDeviceInfoManager& deviceInfo_;
  mutable support::Mutex mutex_;
  std::string userId_ GUARDED_BY(mutex_);
};

}  // namespace velquin
