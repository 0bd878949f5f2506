#include "purchases/OVDataCache.h"

#include <algorithm>

#include "platform/UserDefaults.h"
#include "support/OVUtils.h"
#include "velquin/NotificationCenter.h"

namespace velquin {

OVDataCache::OVDataCache(platform::UserDefaults& defaults) : defaults_(defaults) {}

std::optional<std::vector<std::string>> OVDataCache::productIdsArray() const {
  support::MutexLock lock(mutex_);
  return productIdsArray_;
}

void OVDataCache::setProductIdsArray(std::optional<std::vector<std::string>> ids) {
  support::MutexLock lock(mutex_);
  productIdsArray_ = std::move(ids);
}

std::optional<std::string> OVDataCache::paywallPage() const {
  support::MutexLock lock(mutex_);
  return paywallPage_;
}

void OVDataCache::setPaywallPage(std::optional<std::string> page) {
  support::MutexLock lock(mutex_);
  paywallPage_ = std::move(page);
}

std::optional<std::string> OVDataCache::welcomePage() const {
  support::MutexLock lock(mutex_);
  return welcomePage_;
}

std::optional<std::string> OVDataCache::storedWelcomePage() const {
  auto bytes = defaults_.dataForKey(kWelcomePageKey);
  if (!bytes) return std::nullopt;
  return std::string(bytes->begin(), bytes->end());
}

void OVDataCache::setWelcomePage(std::optional<std::string> page) {
  {
    support::MutexLock lock(mutex_);
    welcomePage_ = page;
  }
  if (!page || storedWelcomePage() == page) return;
  defaults_.setData(kWelcomePageKey, platform::Bytes(page->begin(), page->end()));
  NotificationCenter::defaultCenter().post(kWelcomePageNotification);
}

}  // namespace velquin

namespace velquin {

iap::ProductInfo OVDataCache::productInfoFor(const SKProduct& product) {
  iap::ProductInfo info;
  info.set_product_id(product.productIdentifier);
  info.set_currency(product.priceLocale.currencyCode);
  auto price = static_cast<float>(product.price.doubleValue());
  info.set_regular_price(price);
  // The plain price, not the store's introductory offer.
  info.set_introductory_price(price);
  for (const auto& discount : product.discounts) {
    auto* entry = info.add_discounts();
    entry->set_discount_id(discount.identifier);
    entry->set_discount_price(static_cast<float>(discount.price.doubleValue()));
  }
  return info;
}

void OVDataCache::storeProducts(const std::vector<SKProductPtr>& products) {
  support::MutexLock lock(mutex_);
  for (const auto& product : products) {
    if (!product) continue;
    const std::string& id = product->productIdentifier;
    productInfo_[id] = productInfoFor(*product);
    productSKProduct_[id] = product;
    auto same = std::find_if(skProducts_.begin(), skProducts_.end(),
                             [&](const SKProductPtr& p) { return p->productIdentifier == id; });
    if (same != skProducts_.end()) {
      *same = product;
    } else {
      skProducts_.push_back(product);
    }
    productIDs_.insert(id);
  }
}

std::map<std::string, iap::ProductInfo> OVDataCache::productInfo() const {
  support::MutexLock lock(mutex_);
  return productInfo_;
}

std::vector<iap::ProductInfo> OVDataCache::productInfoList() const {
  support::MutexLock lock(mutex_);
  std::vector<iap::ProductInfo> list;
  for (const auto& [id, info] : productInfo_) list.push_back(info);
  return list;
}

std::map<std::string, SKProductPtr> OVDataCache::productSKProduct() const {
  support::MutexLock lock(mutex_);
  return productSKProduct_;
}

SKProductPtr OVDataCache::product(const std::string& productId) const {
  support::MutexLock lock(mutex_);
  auto it = productSKProduct_.find(productId);
  return it == productSKProduct_.end() ? nullptr : it->second;
}

std::set<std::string> OVDataCache::productIDs() const {
  support::MutexLock lock(mutex_);
  return productIDs_;
}

std::vector<SKProductPtr> OVDataCache::skProducts() const {
  support::MutexLock lock(mutex_);
  return skProducts_;
}

std::optional<OVProduct> OVDataCache::productIMProduct() const {
  support::MutexLock lock(mutex_);
  return productIMProduct_;
}

void OVDataCache::setProductIMProduct(std::optional<OVProduct> product) {
  support::MutexLock lock(mutex_);
  productIMProduct_ = std::move(product);
}

std::optional<OVDataCache::TimePoint> OVDataCache::lastEntitlmentUpdateTime() const {
  support::MutexLock lock(mutex_);
  return lastEntitlmentUpdateTime_;
}

void OVDataCache::setLastEntitlmentUpdateTime(std::optional<TimePoint> time) {
  support::MutexLock lock(mutex_);
  lastEntitlmentUpdateTime_ = time;
}

std::optional<OVDataCache::TimePoint> OVDataCache::lastProductUpdateTime() const {
  support::MutexLock lock(mutex_);
  return lastProductUpdateTime_;
}

void OVDataCache::setLastProductUpdateTime(std::optional<TimePoint> time) {
  support::MutexLock lock(mutex_);
  lastProductUpdateTime_ = time;
}

void OVDataCache::invalidateCache() {
  {
    support::MutexLock lock(mutex_);
    productIMProduct_.reset();
    lastProductUpdateTime_.reset();
    lastEntitlmentUpdateTime_.reset();
  }
  log("Cache cleared");
}

}  // namespace velquin
