// The purchase orchestrator behind the public OVPurchase: start-up, the
// user id, backend queries, purchases, restores and receipt verification.
//
// Ownership and threads: shared() is made by the composition root and lives
// for the process; create() makes private instances for tests. It owns the
// store transaction wrapper, the receipt refresher, the backend client, the
// user data manager, the product catalogue and the cache (made in that
// order). Calls may come from any thread; completions run on gRPC callback
// threads or the main queue as each member says. Backend and store callbacks
// hold the orchestrator weakly. The completion slots follow the rules
// written on the public OVPurchase.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "SubscriberRoot.pb.h"
#include "purchases/AnalyticsSink.h"
#include "purchases/OVStoreKitWrapper.h"
#include "support/Mutex.h"
#include "velquin/OVPurchase.h"
#include "velquin/PagePresenter.h"

namespace velquin {
namespace platform {
class Env;
}
class GRPCserviceManager;
class OVUserDataManager;
class OVDataCache;
class OVReceiptRequest;
class OVProductRequest;

class OVPurchaseImpl final : public StoreKitWrapperDelegate,
                             public std::enable_shared_from_this<OVPurchaseImpl> {
 public:
  static constexpr const char* kAppConfigHandledNotification =
      OVPurchase::kAppConfigHandledNotification;

  using TransactionCompletion = OVPurchase::TransactionCompletion;
  using FetchReceiptCompletion = OVPurchase::FetchReceiptCompletion;
  using SubscriberCompletion = OVPurchase::SubscriberCompletion;
  using ProductIdsCompletion = OVPurchase::ProductIdsCompletion;
  using SkuDetailsCompletion = OVPurchase::SkuDetailsCompletion;
  using PaywallCompletion = OVPurchase::PaywallCompletion;

  // The process's orchestrator, made and wired by the composition root.
  static OVPurchaseImpl& shared();
  static std::shared_ptr<OVPurchaseImpl> sharedPointer();
  // Makes an orchestrator over the process's store queue and `env` (its
  // user defaults and the facts requests carry; must outlive it);
  // `analytics` (may be null) hears of analytics start and purchases.
  static std::shared_ptr<OVPurchaseImpl> create(platform::Env& env,
                                                std::shared_ptr<AnalyticsSink> analytics);
  ~OVPurchaseImpl() override;

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
  // Shows the server's paywall page through the installed presenter.
  void loadPaywallToPurachase(PaywallCompletion completion);
  // Installs the page presenter (libvelquin-gtk does); without one the
  // paywall answers (false, "paywall show failed").
  void setPagePresenter(std::shared_ptr<PagePresenter> presenter);
  std::shared_ptr<PagePresenter> pagePresenter() const;
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
  OVDataCache& dataCache() { return *dataCache_; }

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
  OVPurchaseImpl(platform::Env& env, std::shared_ptr<AnalyticsSink> analytics);
  // The store objects need the orchestrator's shared pointer.
  void attachStore();

  void verify(const ReceiptData& receipt, const SKPaymentTransactionPtr& transaction,
              const std::vector<SKPaymentTransactionPtr>& transactions);
  void completeVerification(const SKPaymentTransactionPtr& transaction,
                            const std::vector<SKPaymentTransactionPtr>& transactions,
                            const std::optional<ReceiptData>& receipt, const iap::Subscriber* reply,
                            const std::optional<Error>& error);
  void reportVerificationError(const SKPaymentTransactionPtr& transaction,
                               const std::vector<SKPaymentTransactionPtr>& transactions,
                               const Error& error);
  // Empties a completion slot and hands back what it held.
  template <class Completion>
  Completion takeSlot(Completion OVPurchaseImpl::*slot) {
    support::MutexLock lock(slotsMutex_);
    return std::exchange(this->*slot, nullptr);
  }
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
  const std::shared_ptr<AnalyticsSink> analytics_;  // immutable; may be null

  mutable support::Mutex slotsMutex_;
  TransactionCompletion transactionCompletion_ GUARDED_BY(slotsMutex_);
  FetchReceiptCompletion fetchReceiptCompletion_ GUARDED_BY(slotsMutex_);
  FetchReceiptCompletion monitorTransationCompletion_ GUARDED_BY(slotsMutex_);
  SubscriberCompletion restoreCompletion_ GUARDED_BY(slotsMutex_);
  // Restored transactions whose verification has not answered yet; while
  // there are any, the end of a restore leaves the answer to them.
  int restoreVerificationsPending_ GUARDED_BY(slotsMutex_) = 0;
  std::weak_ptr<OVPromotingObserverProtocol> promotingObserver_ GUARDED_BY(slotsMutex_);
  std::shared_ptr<PagePresenter> pagePresenter_ GUARDED_BY(slotsMutex_);
};

}  // namespace velquin
