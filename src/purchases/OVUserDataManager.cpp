#include "purchases/OVUserDataManager.h"

#include "analytics/OVDeviceInfoManager.h"
#include "platform/UserDefaults.h"
#include "support/Console.h"
#include "support/OVUtils.h"
#include "support/Uuid.h"
#include "support/Utf8.h"

namespace velquin {
namespace {
std::string newUuid() { return support::randomUuid(); }

// A user id travels in every request and in JSON texts: it must be valid
// UTF-8 and not empty.
bool usableUserId(const std::string& id) {
  return !id.empty() && support::isValidUtf8(id);
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

void OVUserDataManager::resolveUserId(const std::optional<std::string>& wanted) {
  support::MutexLock lock(mutex_);
  auto stored = defaults_.stringForKey(kUserIdKey);
  if (stored && !usableUserId(*stored)) {
    // Written by an earlier version without checks: replaced below.
    support::warn("the stored user id is not valid UTF-8; it is replaced");
    stored.reset();
  }
  std::optional<std::string> requested = wanted;
  if (requested && !usableUserId(*requested)) {
    support::warn("user id refused: it must be non-empty, valid UTF-8");
    requested.reset();
  }
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
  // First start: processes starting together on a fresh folder agree on
  // one id (decided under the defaults file's lock).
  userId_ = defaults_.stringForKeyOrCreate(kUserIdKey, usableUserId, newUuid);
  log("set new user id: " + userId_);
}

bool OVUserDataManager::setUserId(const std::string& id) {
  if (!usableUserId(id)) {
    support::warn("user id refused: it must be non-empty, valid UTF-8");
    return false;
  }
  {
    support::MutexLock lock(mutex_);
    userId_ = id;
    defaults_.setString(kUserIdKey, id);
  }
  deviceInfo_.setUserId(id);
  return true;
}

}  // namespace velquin
