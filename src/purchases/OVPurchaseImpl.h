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

  // The operations of the public OVPurchase, documented there.
  void configureInitSDKWithVelQuinPlist();
  void registerBigDataGetAccessToken();
  void configureSDK(const std::string& appKey);
  void enableLog(bool enabled);
  bool isSandbox() const;
  void purchaseSKProduct(const SKProduct& product, TransactionCompletion completion);
  void purchaseSKProductWithDiscount(const SKProduct& product,
                                     const SKPaymentDiscount& paymentDiscount,
                                     const std::optional<std::string>& applicationUsername,
                                     TransactionCompletion completion);
  void purchaseFetchReceiptSKProduct(const SKProduct& product, FetchReceiptCompletion completion);
  void addMonitorTransationCompletionHandler(FetchReceiptCompletion completion);
  void finishTransactions(const std::vector<SKPaymentTransactionPtr>& transactions);
  void restorePurchases(SubscriberCompletion completion);
  bool canMakePayments() const;
  void hasActiveSubscription(SubscriberCompletion completion);
  bool getUserIsActive() const;
  void getPurchaseProductIds(ProductIdsCompletion completion);
  void getSkuDetails(const std::set<std::string>& productIds, SkuDetailsCompletion completion);
  void loadPaywallToPurachase(PaywallCompletion completion);
  // GetAppConfig, handled as at start-up; the completion gets its paywall
  // page (absent without a reply) and the error, once, on a gRPC thread.
  using PageCompletion = std::function<void(std::optional<std::string>, std::optional<Error>)>;
  void fetchPaywallPage(PageCompletion completion);
  void setPagePresenter(std::shared_ptr<PagePresenter> presenter);
  std::shared_ptr<PagePresenter> pagePresenter() const;
  void invalidateCache();
  void setPromotingObserver(const std::shared_ptr<OVPromotingObserverProtocol>& observer);
  std::shared_ptr<OVPromotingObserverProtocol> promotingObserver() const override;
  void uploadUserInfo(const std::optional<std::string>& userId,
                      const nlohmann::json& extraAttribute,
                      std::function<void(bool, std::optional<Error>)> completion);
  std::string appUserId() const;

  GRPCserviceManager& networkManager() { return *networkManager_; }
  OVDataCache& dataCache() { return *dataCache_; }

  // Sends GetAppConfig; every answer is handled (handleAppConfig) before
  // `then` sees it (reply null on failure), on the RPC callback thread.
  using AppConfigReply =
      std::function<void(const iap::GetAppConfigResponse* reply, const std::optional<Error>& error)>;
  void requestAppConfig(AppConfigReply then = nullptr);
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

  // Verifies with `receipt`, or with a refreshed receipt when it is absent.
  void verifyWithReceipt(std::optional<ReceiptData> receipt,
                         const SKPaymentTransactionPtr& transaction,
                         const std::vector<SKPaymentTransactionPtr>& transactions);
  void verify(const ReceiptData& receipt, const SKPaymentTransactionPtr& transaction,
              const std::vector<SKPaymentTransactionPtr>& transactions);
  // Keeps a transaction whose verification got no answer from the backend
  // unfinished, for verifyUnfinished(); starts watching the network.
  void keepUnverified(const SKPaymentTransactionPtr& transaction,
                      const std::vector<SKPaymentTransactionPtr>& transactions);
  // Verifies again every kept transaction (after configure() and when the
  // network comes back).
  void verifyUnfinished();
  void watchNetwork();
  void completeVerification(const SKPaymentTransactionPtr& transaction,
                            const std::vector<SKPaymentTransactionPtr>& transactions,
                            const std::optional<ReceiptData>& receipt, const iap::Subscriber* reply,
                            const std::optional<Error>& error, bool answered);
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
  // Bought or restored transactions left unfinished because their
  // verification got no answer from the backend, each with its batch.
  struct Unverified {
    SKPaymentTransactionPtr transaction;
    std::vector<SKPaymentTransactionPtr> transactions;
  };
  std::vector<Unverified> unverified_ GUARDED_BY(slotsMutex_);
  // The observer of network changes, once one is registered.
  std::optional<std::uint64_t> networkWatch_ GUARDED_BY(slotsMutex_);
  std::shared_ptr<PagePresenter> pagePresenter_ GUARDED_BY(slotsMutex_);
};

}  // namespace velquin
