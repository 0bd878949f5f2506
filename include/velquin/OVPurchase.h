// The purchase orchestrator: start-up, the user id, backend queries, and
// (with the store) purchases, restores and receipt verification.
//
// Ownership and threads: one instance for the process (shared()), created
// first by Velquin::shared() and never torn down; behind it sit the store
// transaction wrapper, the receipt refresher, the backend client, the user
// data manager, the product catalogue and the cache. Calls may come from any
// thread; completions run on gRPC callback threads or the main queue as each
// member says. Backend and store callbacks hold the orchestrator weakly.
//
// Completion slots: transactionCompletion, FetchReceiptCompletion,
// monitorTransationCompletion and restoreCompletion each hold one completion.
// Storing a new one replaces the waiting one WITHOUT calling it; that is the
// one case in which an operation's completion is never called. Apart from the
// monitor (called for every verified transaction until replaced), a slot is
// emptied when it answers, so a late second store report calls nothing.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "velquin/Export.h"
#include "velquin/Error.h"
#include "velquin/Models.h"
#include "velquin/PagePresenter.h"
#include "velquin/StoreKit.h"
#include "velquin/Subscriber.h"

namespace velquin {
class OVPurchaseImpl;
class Velquin;

using ReceiptData = std::vector<std::uint8_t>;

// A store product as the SDK hands it out.
struct VELQUIN_EXPORT OVProduct {
  std::string id;
  SKProductPtr product;
};

// Errors the orchestrator reports itself (domain kVelquinErrorDomain).
enum class PurchaseErrorCode : std::int64_t {
  noReceipt = 101,        // no receipt file, and refreshing it gave none
  productNotFound = 102,  // the store knows none of the requested products
  invalidUserId = 103,    // a user id that is empty or not valid UTF-8
  invalidText = 104,      // an argument (or JSON within one) that is not valid UTF-8
};

// Told when the store front starts a purchase of one of the app's products
// (a promoted purchase). Called on the main queue. With status proceed the
// store goes on at once; with the other statuses the app adds the payment
// itself later (for example with purchaseSKProduct(product)).
class VELQUIN_EXPORT OVPromotingObserverProtocol {
 public:
  virtual ~OVPromotingObserverProtocol() = default;
  virtual void ovPromotingAddStorePaymentWithStatus(OVPromotingInAppPurchaseStatus status,
                                                    const SKPayment& payment,
                                                    const SKProductPtr& product) = 0;
};

class VELQUIN_EXPORT OVPurchase {
 public:
  // Posted (no object) each time a GetAppConfig answer, reply or error, has
  // been handled by start-up.
  static constexpr const char* kAppConfigHandledNotification = "VelquinAppConfigHandled";

  using TransactionCompletion =
      std::function<void(SKPaymentTransactionPtr transaction, OVSubscriber subscriber,
                         std::optional<Error> error, bool userCancelled)>;
  using FetchReceiptCompletion = std::function<void(
      SKPaymentTransactionPtr transaction, std::vector<SKPaymentTransactionPtr> transactions,
      std::optional<ReceiptData> receipt, std::optional<Error> error)>;
  using SubscriberCompletion = std::function<void(OVSubscriber, std::optional<Error>)>;
  using ProductIdsCompletion =
      std::function<void(std::optional<std::vector<std::string>>, std::optional<Error>)>;
  using SkuDetailsCompletion =
      std::function<void(std::optional<std::map<std::string, SKProductPtr>>, std::optional<Error>)>;
  using PaywallCompletion = PagePresenter::PaywallCompletion;

  static OVPurchase& shared();
  ~OVPurchase();
  OVPurchase(const OVPurchase&) = delete;
  OVPurchase& operator=(const OVPurchase&) = delete;

  // Both names run start-up from the bundle's token file; without a file or
  // a text "access_token" they return silently.
  void configureInitSDKWithVelQuinPlist();
  void registerBigDataGetAccessToken();
  // Start-up with the caller's app key: Init, analytics start,
  // GetSubscriber and GetAppConfig (whose product ids are then fetched from
  // the store into the cache).
  void configureSDK(const std::string& appKey);

  void enableLog(bool enabled);
  // True when the installed store's receipt location ends in "sandboxReceipt".
  bool isSandbox() const;

  // ---- Purchases. Completions of successful transactions run on a gRPC
  // thread (after VerifyReceipt); those of failed transactions on the main
  // queue.

  // Adds a payment for `product`; the outcome, verified with the backend,
  // goes to transactionCompletion.
  void purchaseSKProduct(const SKProduct& product, TransactionCompletion completion);
  // The same with a promotional offer and an optional account name.
  void purchaseSKProductWithDiscount(const SKProduct& product,
                                     const SKPaymentDiscount& paymentDiscount,
                                     const std::optional<std::string>& applicationUsername,
                                     TransactionCompletion completion);
  // Adds a payment whose outcome goes to FetchReceiptCompletion with the
  // receipt; the host then finishes the transactions with finishTransactions.
  void purchaseFetchReceiptSKProduct(const SKProduct& product, FetchReceiptCompletion completion);
  // Called for every verified transaction, after verification, with the
  // transaction's batch and the receipt; while it is set nothing is finished
  // by the SDK: the host calls finishTransactions.
  void addMonitorTransationCompletionHandler(FetchReceiptCompletion completion);
  // Finishes every transaction that is not purchasing; empties
  // FetchReceiptCompletion.
  void finishTransactions(const std::vector<SKPaymentTransactionPtr>& transactions);
  // Asks the store to restore; the subscriber (from the restored
  // transactions' verification, or GetSubscriber when none came back) or the
  // store's error (restore time-out: "com.apple.restore", 113) goes to
  // restoreCompletion.
  void restorePurchases(SubscriberCompletion completion);
  bool canMakePayments() const;

  // ---- Entitlements and products.

  // GetSubscriber; the completion runs on the main queue.
  void hasActiveSubscription(SubscriberCompletion completion);
  // The activity flag of the last subscriber answer; no call is made.
  bool getUserIsActive() const;
  // The server's product ids: the cached list, or GetAppConfig's.
  void getPurchaseProductIds(ProductIdsCompletion completion);
  // The store products of `productIds`, from the cache or the store; runs
  // the completion on the main queue. Unknown ids are left out; when none is
  // known the answer is an error.
  void getSkuDetails(const std::set<std::string>& productIds, SkuDetailsCompletion completion);
  // Shows the server's paywall page through the installed presenter. The
  // completion runs once, always on the main queue: (true, none) when the
  // paywall is on screen, otherwise false and the reason.
  void loadPaywallToPurachase(PaywallCompletion completion);
  // Installs the page presenter (libvelquin-gtk does); without one the
  // paywall answers (false, "paywall show failed"). Held for the process.
  void setPagePresenter(std::shared_ptr<PagePresenter> presenter);
  // Clears the cache's time stamps and product record; products stay.
  void invalidateCache();

  // The host's observer of promoted purchases, held weakly.
  void setPromotingObserver(const std::shared_ptr<OVPromotingObserverProtocol>& observer);
  std::shared_ptr<OVPromotingObserverProtocol> promotingObserver() const;

  // Optionally makes `userId` current, then sends UploadUserInfo with the
  // attribute map as compact JSON.
  void uploadUserInfo(const std::optional<std::string>& userId,
                      const nlohmann::json& extraAttribute,
                      std::function<void(bool, std::optional<Error>)> completion);

  // The user id the SDK reports to the backend (kept in user defaults).
  std::string appUserId() const;

  // What start-up's GetAppConfig answer left in the cache: the server's
  // product ids, the paywall page and the welcome page (absent until an
  // answer came).
  std::optional<std::vector<std::string>> cachedProductIds() const;
  std::optional<std::string> cachedPaywallPage() const;
  std::optional<std::string> cachedWelcomePage() const;

 private:
  friend class Velquin;
  explicit OVPurchase(std::shared_ptr<OVPurchaseImpl> impl);
  const std::shared_ptr<OVPurchaseImpl> impl_;  // immutable; guards its own state
};

}  // namespace velquin
