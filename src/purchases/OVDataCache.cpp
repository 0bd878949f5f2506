#include "purchases/OVDataCache.h"

#include "platform/UserDefaults.h"
#include "velquin/NotificationCenter.h"

namespace velquin {

OVDataCache::OVDataCache(platform::UserDefaults& defaults) : defaults_(defaults) {}

std::optional<std::vector<std::string>> OVDataCache::productIdsArray() const {
  std::lock_guard lock(mutex_);
  return productIdsArray_;
}

void OVDataCache::setProductIdsArray(std::optional<std::vector<std::string>> ids) {
  std::lock_guard lock(mutex_);
  productIdsArray_ = std::move(ids);
}

std::optional<std::string> OVDataCache::paywallPage() const {
  std::lock_guard lock(mutex_);
  return paywallPage_;
}

void OVDataCache::setPaywallPage(std::optional<std::string> page) {
  std::lock_guard lock(mutex_);
  paywallPage_ = std::move(page);
}

std::optional<std::string> OVDataCache::welcomePage() const {
  std::lock_guard lock(mutex_);
  return welcomePage_;
}

void OVDataCache::setWelcomePage(std::optional<std::string> page) {
  {
    std::lock_guard lock(mutex_);
    welcomePage_ = page;
  }
  auto stored = defaults_.dataForKey(kWelcomePageKey);
  if (stored && page && std::string(stored->begin(), stored->end()) == *page) return;
  if (!page) return;
  defaults_.setData(kWelcomePageKey, platform::Bytes(page->begin(), page->end()));
  NotificationCenter::defaultCenter().post(kWelcomePageNotification);
}

}  // namespace velquin
