// The in-memory cache the orchestrator owns: the store products fetched so
// far with the product information sent along with receipts, the
// server-configured product ids and the paywall and welcome pages. Only the
// welcome page also goes to disk, under "VelQuinWelcomHtmlData". Entries stay
// until the process ends (replaced by id); cacheTimeInSeconds is declared
// and deliberately never compared against.
//
// Ownership and threads: owned by OVPurchase (its dataCache). Written from
// gRPC callback threads and the main queue, read from anywhere: every field
// sits behind one mutex.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "SubscriberRoot.pb.h"
#include "support/Mutex.h"
#include "velquin/OVPurchase.h"
#include "velquin/StoreKit.h"

namespace velquin {
namespace platform {
class UserDefaults;
}

class OVDataCache {
 public:
  static constexpr const char* kWelcomePageKey = "VelQuinWelcomHtmlData";
  static constexpr const char* kWelcomePageNotification = "VelQuinWelcomPageDateName";
  using TimePoint = std::chrono::system_clock::time_point;

  explicit OVDataCache(platform::UserDefaults& defaults);

  static constexpr double cacheTimeInSeconds = 300;

  std::optional<std::vector<std::string>> productIdsArray() const;
  void setProductIdsArray(std::optional<std::vector<std::string>> ids);
  std::optional<std::string> paywallPage() const;
  void setPaywallPage(std::optional<std::string> page);
  std::optional<std::string> welcomePage() const;
  // The page text stored under "VelQuinWelcomHtmlData" by an earlier
  // answer (this run's or a previous one's); absent when none was stored.
  std::optional<std::string> storedWelcomePage() const;
  // Stores the page; a text that differs from the stored one is written to
  // user defaults and announced with "VelQuinWelcomPageDateName".
  void setWelcomePage(std::optional<std::string> page);

  // Merges fetched products in the order given: each gets its product
  // information, its map entry, its place in skProducts (replaced by id) and
  // its id in productIDs. An empty list does nothing.
  void storeProducts(const std::vector<SKProductPtr>& products);
  // The product information of one store product: its id, currency code,
  // price (also sent as the introductory price) and promotional offers.
  static iap::ProductInfo productInfoFor(const SKProduct& product);

  std::map<std::string, iap::ProductInfo> productInfo() const;
  // Every value of productInfo(), in id order: what VerifyReceipt carries.
  std::vector<iap::ProductInfo> productInfoList() const;
  std::map<std::string, SKProductPtr> productSKProduct() const;
  SKProductPtr product(const std::string& productId) const;
  std::set<std::string> productIDs() const;
  std::vector<SKProductPtr> skProducts() const;

  std::optional<OVProduct> productIMProduct() const;
  void setProductIMProduct(std::optional<OVProduct> product);
  std::optional<TimePoint> lastEntitlmentUpdateTime() const;
  void setLastEntitlmentUpdateTime(std::optional<TimePoint> time);
  std::optional<TimePoint> lastProductUpdateTime() const;
  void setLastProductUpdateTime(std::optional<TimePoint> time);

  // Clears the time stamps and the product record and logs "Cache cleared";
  // products, product information, ids and pages stay.
  void invalidateCache();

 private:
  platform::UserDefaults& defaults_;
  mutable support::Mutex mutex_;
  std::optional<std::vector<std::string>> productIdsArray_ GUARDED_BY(mutex_);
  std::optional<std::string> paywallPage_ GUARDED_BY(mutex_);
  std::optional<std::string> welcomePage_ GUARDED_BY(mutex_);
  std::map<std::string, iap::ProductInfo> productInfo_ GUARDED_BY(mutex_);
  std::map<std::string, SKProductPtr> productSKProduct_ GUARDED_BY(mutex_);
  std::set<std::string> productIDs_ GUARDED_BY(mutex_);
  std::vector<SKProductPtr> skProducts_ GUARDED_BY(mutex_);
  std::optional<OVProduct> productIMProduct_ GUARDED_BY(mutex_);
  std::optional<TimePoint> lastEntitlmentUpdateTime_ GUARDED_BY(mutex_);
  std::optional<TimePoint> lastProductUpdateTime_ GUARDED_BY(mutex_);
};

}  // namespace velquin
