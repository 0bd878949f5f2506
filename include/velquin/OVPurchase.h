// The purchase orchestrator: start-up, the user id, backend queries, and
// (with the store) purchases, restores and receipt verification.
//
// Ownership and threads: one instance for the process (shared()), created by
// Velquin::shared() and never torn down. It owns the store transaction
// wrapper, the receipt refresher, the backend client, the user data manager,
// the product catalogue and the cache. Calls may come from any thread;
// completions run on gRPC callback threads or the main queue as each member
// says. Backend and store callbacks hold the orchestrator weakly.
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
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "velquin/Error.h"
#include "velquin/Export.h"
#include "velquin/Models.h"
#include "velquin/StoreKit.h"
#include "velquin/Subscriber.h"

namespace velquin {
namespace iap {
class GetAppConfigResponse;
class Subscriber;
}
class GRPCserviceManager;
class OVUserDataManager;
class OVDataCache;
class OVStoreKitWrapper;
class OVReceiptRequest;
class OVProductRequest;

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

// What the store transaction wrapper tells its owner. Every call runs on the
// main queue.
class VELQUIN_EXPORT StoreKitWrapperDelegate {
 public:
  virtual ~StoreKitWrapperDelegate() = default;
  // The newest transaction of a batch was purchased or restored. `receipt` is
  // the receipt file as it is on disk (absent without a readable file).
  virtual void storeKitWrapperDidUpdateTransaction(
      std::optional<ReceiptData> receipt, const SKPaymentTransactionPtr& transaction,
      const std::vector<SKPaymentTransactionPtr>& transactions) = 0;
  virtual void storeKitWrapperDidFailTransaction(const SKPaymentTransactionPtr& transaction) = 0;
  virtual void storeKitWrapperRestoreDidFinish(SKPaymentQueue& queue) = 0;
  // A store restore error, or the restore time-out.
  virtual void storeKitWrapperRestoreDidFail(const Error& error) = 0;
  // The host's promoted-purchase observer, when one is installed and alive.
  virtual std::shared_ptr<OVPromotingObserverProtocol> promotingObserver() const = 0;
};

class VELQUIN_EXPORT OVPurchase : public StoreKitWrapperDelegate,
                                  public std::enable_shared_from_this<OVPurchase> {
 public:
  // Posted (no object) each time a GetAppConfig answer, reply or error, has
  // been handled by start-up.
  static constexpr const char* kAppConfigHandledNotification = "VelquinAppConfigHandled";

  using TransactionCompletion = std::function<void(
      SKPaymentTransactionPtr transaction, OVSubscriber subscriber, std::optional<Error> error,
      bool userCancelled)>;
  using FetchReceiptCompletion = std::function<void(
      SKPaymentTransactionPtr transaction, std::vector<SKPaymentTransactionPtr> transactions,
      std::optional<ReceiptData> receipt, std::optional<Error> error)>;
  using SubscriberCompletion = std::function<void(OVSubscriber, std::optional<Error>)>;
  using ProductIdsCompletion =
      std::function<void(std::optional<std::vector<std::string>>, std::optional<Error>)>;
  using SkuDetailsCompletion = std::function<void(
      std::optional<std::map<std::string, SKProductPtr>>, std::optional<Error>)>;
  using PaywallCompletion = std::function<void(bool shown, std::optional<std::string> message)>;
  // Shows the paywall page on the main queue. Returns false when it cannot
  // (no window to show it in); otherwise the page reports through the
  // completion later, exactly once.
  using PaywallPresenter =
      std::function<bool(const std::string& html, PaywallCompletion completion)>;

  static OVPurchase& shared();
  static std::shared_ptr<OVPurchase> sharedPointer();
  ~OVPurchase() override;

  // Both names run start-up from the bundle's token file; without a file or
  // a text "access_token" they return silently.
  void configureInitSDKWithVelQuinPlist();
  void registerBigDataGetAccessToken();
  // Start-up with the caller's app key: Init, analytics start,
  // GetSubscriber and GetAppConfig (whose product ids are then fetched from
  // the store into the cache).
  void configureSDK(const std::string& appKey);

  void enableLog(bool enabled);
  // True when the store receipt location ends in "sandboxReceipt".
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
  // Shows the server's paywall page through the installed presenter.
  void loadPaywallToPurachase(PaywallCompletion completion);
  // Installs the page presenter (libvelquin-gtk does); without one the
  // paywall answers (false, "paywall show failed").
  void setPaywallPresenter(PaywallPresenter presenter);
  // Clears the cache's time stamps and product record; products stay.
  void invalidateCache();

  // The host's observer of promoted purchases, held weakly.
  void setPromotingObserver(const std::shared_ptr<OVPromotingObserverProtocol>& observer);
  std::shared_ptr<OVPromotingObserverProtocol> promotingObserver() const override;

  // Optionally makes `userId` current, then sends UploadUserInfo with the
  // attribute map as compact JSON.
  void uploadUserInfo(const std::optional<std::string>& userId,
                      const nlohmann::json& extraAttribute,
                      std::function<void(bool, std::optional<Error>)> completion);

  // The user id the SDK reports to the backend (kept in user defaults).
  std::string appUserId() const;

  GRPCserviceManager& networkManager() { return *networkManager_; }
  OVUserDataManager& userDataManager() { return *userDataManager_; }
  OVDataCache& dataCache() { return *dataCache_; }
  OVStoreKitWrapper& storeKitWrapper() { return *storeKitWrapper_; }
  OVProductRequest& productsRequest() { return *productsRequest_; }
  OVReceiptRequest& receiptRequest() { return *receiptRequest_; }

  // Stores the pages and product ids of a GetAppConfig answer (or logs the
  // error), starts fetching the products, and posts
  // kAppConfigHandledNotification.
  void handleAppConfig(const iap::GetAppConfigResponse* reply, const std::optional<Error>& error);

  // StoreKitWrapperDelegate (main queue).
  void storeKitWrapperDidUpdateTransaction(
      std::optional<ReceiptData> receipt, const SKPaymentTransactionPtr& transaction,
      const std::vector<SKPaymentTransactionPtr>& transactions) override;
  void storeKitWrapperDidFailTransaction(const SKPaymentTransactionPtr& transaction) override;
  void storeKitWrapperRestoreDidFinish(SKPaymentQueue& queue) override;
  void storeKitWrapperRestoreDidFail(const Error& error) override;

 private:
  OVPurchase();
  // The store objects need the orchestrator's shared pointer.
  void attachStore();

  void verify(const ReceiptData& receipt, const SKPaymentTransactionPtr& transaction,
              const std::vector<SKPaymentTransactionPtr>& transactions);
  void completeVerification(const SKPaymentTransactionPtr& transaction,
                            const std::vector<SKPaymentTransactionPtr>& transactions,
                            const std::optional<ReceiptData>& receipt,
                            const iap::Subscriber* reply, const std::optional<Error>& error);
  void reportVerificationError(const SKPaymentTransactionPtr& transaction,
                               const std::vector<SKPaymentTransactionPtr>& transactions,
                               const Error& error);
  void finishUnlessPurchasing(const std::vector<SKPaymentTransactionPtr>& transactions);
  void answerRestore(OVSubscriber subscriber, std::optional<Error> error, bool fromVerification);
  void reportPurchaseEvent(const SKPaymentTransaction& transaction);
  void showPaywall(const std::string& html, PaywallCompletion completion);

  // The owned objects are made once, by the constructor and attachStore()
  // (before shared() returns), and are read-only pointers from then on; each
  // guards its own state.
  std::shared_ptr<OVStoreKitWrapper> storeKitWrapper_;
  std::shared_ptr<OVReceiptRequest> receiptRequest_;
  std::unique_ptr<GRPCserviceManager> networkManager_;
  std::unique_ptr<OVUserDataManager> userDataManager_;
  std::shared_ptr<OVProductRequest> productsRequest_;
  std::unique_ptr<OVDataCache> dataCache_;

  mutable std::mutex slotsMutex_;
  TransactionCompletion transactionCompletion_;         // guarded by slotsMutex_
  FetchReceiptCompletion fetchReceiptCompletion_;       // guarded by slotsMutex_
  FetchReceiptCompletion monitorTransationCompletion_;  // guarded by slotsMutex_
  SubscriberCompletion restoreCompletion_;              // guarded by slotsMutex_
  // Restored transactions whose verification has not answered yet; while
  // there are any, the end of a restore leaves the answer to them.
  int restoreVerificationsPending_ = 0;  // guarded by slotsMutex_
  std::weak_ptr<OVPromotingObserverProtocol> promotingObserver_;  // guarded by slotsMutex_
  PaywallPresenter paywallPresenter_;                             // guarded by slotsMutex_
};

}  // namespace velquin
