#include "purchases/OVPurchaseImpl.h"

#include <atomic>
#include <filesystem>
#include <utility>

#include "analytics/OVDeviceInfoManager.h"
#include "analytics/OVDeviceInfoManagerHelper.h"
#include "backend/AppToken.h"
#include "backend/GRPCserviceManager.h"
#include "platform/Env.h"
#include "purchases/OVDataCache.h"
#include "purchases/OVProductRequest.h"
#include "purchases/OVReceiptRequest.h"
#include "purchases/OVStoreKitWrapper.h"
#include "purchases/OVUserDataManager.h"
#include "support/Reachability.h"
#include "purchases/SubscriberConversion.h"
#include "support/OVCFunctionToolHelper.h"
#include "support/OVUtils.h"
#include "velquin/Bundle.h"
#include "velquin/MainQueue.h"
#include "velquin/NotificationCenter.h"

namespace velquin {
namespace {

// Whether a VerifyReceipt got an answer from the backend. No answer: the
// backend could not be reached, the connection broke, or the deadline
// passed. A refusal of a call sent before configure() gave the app key is
// no answer about the receipt either. Any other status is the backend's.
bool answeredByBackend(const iap::Subscriber* reply, const std::optional<Error>& error,
                       bool sentWithKey) {
  if (!error) return reply != nullptr;
  if (!sentWithKey) return false;
  return !(error->domain == kGrpcErrorDomain &&
           (error->code == grpc::StatusCode::UNAVAILABLE ||
            error->code == grpc::StatusCode::DEADLINE_EXCEEDED));
}

bool isRestored(const SKPaymentTransaction& transaction) {
  return transaction.transactionState == SKPaymentTransactionState::restored;
}

// The subscriber of a backend answer; the empty subscriber without one.
// The conversion writes the process's activity flag.
OVSubscriber subscriberFrom(const iap::Subscriber* reply) {
  return reply ? subscriberFromReply(*reply) : OVSubscriber{};
}

}  // namespace

std::shared_ptr<OVPurchaseImpl> OVPurchaseImpl::create(platform::Env& env,
                                                       std::shared_ptr<AnalyticsSink> analytics) {
  std::shared_ptr<OVPurchaseImpl> made(new OVPurchaseImpl(env, std::move(analytics)));
  made->attachStore();
  return made;
}

OVPurchaseImpl::OVPurchaseImpl(platform::Env& env, std::shared_ptr<AnalyticsSink> analytics)
    : analytics_(std::move(analytics)) {
  const Bundle& bundle = Bundle::main();
  auto& defaults = env.userDefaults();
  auto& deviceInfo = OVDeviceInfoManager::shared();
  receiptRequest_ = OVReceiptRequest::create();
  networkManager_ = std::make_unique<GRPCserviceManager>(bundle, deviceInfo, env);
  userDataManager_ = std::make_unique<OVUserDataManager>(defaults, deviceInfo);
  productsRequest_ = OVProductRequest::create();
  dataCache_ = std::make_unique<OVDataCache>(defaults);
}

void OVPurchaseImpl::attachStore() {
  // Last, once everything it reports to exists: the queue tells a new
  // observer at once of transactions left unfinished by an earlier run.
  storeKitWrapper_ = OVStoreKitWrapper::create(weak_from_this());
}

OVPurchaseImpl::~OVPurchaseImpl() {
  std::optional<std::uint64_t> watch;
  {
    support::MutexLock lock(slotsMutex_);
    watch = networkWatch_;
  }
  if (watch) NotificationCenter::defaultCenter().removeObserver(*watch);
}

// ---------------------------------------------------------------------------
// Start-up

void OVPurchaseImpl::configureInitSDKWithVelQuinPlist() {
  AppToken token = AppToken::load(Bundle::main());
  // What is wrong with the token file is said once, with the logs on: a
  // start-up that reaches no backend is otherwise silent.
  static std::atomic<bool> told{false};
  if (!token.problems.empty() && OVUtils::shared().isLogEnable && !told.exchange(true)) {
    for (const auto& problem : token.problems) log(problem);
  }
  if (!token.accessToken) return;
  configureSDK(*token.accessToken);
}

void OVPurchaseImpl::registerBigDataGetAccessToken() {
  configureInitSDKWithVelQuinPlist();
}

void OVPurchaseImpl::configureSDK(const std::string& appKey) {
  networkManager_->setAppKey(appKey);
  // Transactions whose verification went out without the key, or got no
  // answer, are tried again now that the key is known.
  verifyUnfinished();
  log("Geting initInfo data from server");
  std::weak_ptr<OVPurchaseImpl> weak = weak_from_this();
  networkManager_->init(
      userDataManager_->userId(),
      [weak](std::optional<iap::GetInitInfoResponse> reply, std::optional<Error>) {
        // An Init failure leaves the tag empty and the chain goes on.
        OVUtils::shared().setVelquinSDkInit_tag(reply ? reply->tag() : std::string());
        auto self = weak.lock();
        if (!self) return;
        if (self->analytics_) self->analytics_->startAnalytics();
        log("Geting subscriber data from server");
        // Only the activity flag takes note of this answer.
        self->networkManager_->getSubscriber(
            self->userDataManager_->userId(),
            [](std::optional<iap::Subscriber> subscriber, std::optional<Error>, std::int64_t) {
              subscriberFrom(subscriber ? &*subscriber : nullptr);
            });
        self->requestAppConfig();
      });
}

void OVPurchaseImpl::requestAppConfig(AppConfigReply then) {
  std::weak_ptr<OVPurchaseImpl> weak = weak_from_this();
  networkManager_->getAppConfig(
      [weak, then = std::move(then)](std::optional<iap::GetAppConfigResponse> reply,
                                     std::optional<Error> error) {
        const iap::GetAppConfigResponse* answer = reply ? &*reply : nullptr;
        if (auto self = weak.lock()) self->handleAppConfig(answer, error);
        if (then) then(answer, error);
      });
}

void OVPurchaseImpl::handleAppConfig(const iap::GetAppConfigResponse* reply,
                                     const std::optional<Error>& error) {
  if (error || !reply) {
    log("getAppConfig fail:" + (error ? error->localizedDescription() : std::string()));
  } else {
    // proto3 strings have no presence: an empty page arrives as empty text.
    dataCache_->setPaywallPage(reply->paywall_page());
    dataCache_->setWelcomePage(reply->welcome_page());
    std::vector<std::string> ids(reply->product_ids().begin(), reply->product_ids().end());
    dataCache_->setProductIdsArray(ids);
    if (!ids.empty()) {
      std::weak_ptr<OVPurchaseImpl> weak = weak_from_this();
      productsRequest_->fetchProducts(
          std::set<std::string>(ids.begin(), ids.end()),
          [weak](std::vector<SKProductPtr> products, std::optional<Error>) {
            auto self = weak.lock();
            if (!self || products.empty()) return;
            self->dataCache_->storeProducts(products);
            self->dataCache_->setLastProductUpdateTime(std::chrono::system_clock::now());
          });
    }
  }
  NotificationCenter::defaultCenter().post(kAppConfigHandledNotification);
}

std::string OVPurchaseImpl::appUserId() const {
  return userDataManager_->userId();
}

void OVPurchaseImpl::enableLog(bool enabled) {
  OVUtils::enableLogs(enabled);
}

bool OVPurchaseImpl::isSandbox() const {
  auto receipt = StoreKit::appStoreReceiptPath();
  return receipt && receipt->filename() == "sandboxReceipt";
}

void OVPurchaseImpl::uploadUserInfo(const std::optional<std::string>& userId,
                                    const nlohmann::json& extraAttribute,
                                    std::function<void(bool, std::optional<Error>)> completion) {
  log("UserInfo data reporting in progress");
  if (userId && !userDataManager_->setUserId(*userId)) {
    if (completion) {
      completion(false, Error{kVelquinErrorDomain,
                              static_cast<std::int64_t>(PurchaseErrorCode::invalidUserId),
                              "The user id must be non-empty, valid UTF-8 text."});
    }
    return;
  }
  auto attribute = OVCFunctionToolHelper::DataTOjsonString(extraAttribute);
  if (!attribute) {
    if (completion) {
      completion(false, Error{kVelquinErrorDomain,
                              static_cast<std::int64_t>(PurchaseErrorCode::invalidText),
                              "The extra attributes hold text that is not valid UTF-8."});
    }
    return;
  }
  networkManager_->uploadUserInfo(userDataManager_->userId(), *attribute, std::move(completion));
}

// ---------------------------------------------------------------------------
// Starting purchases and restores

void OVPurchaseImpl::purchaseSKProduct(const SKProduct& product, TransactionCompletion completion) {
  log("Starting purchase procces. Product id : " + product.productIdentifier);
  {
    support::MutexLock lock(slotsMutex_);
    transactionCompletion_ = std::move(completion);
  }
  storeKitWrapper_->paymentQueue().addPayment(SKPayment(product));
}

void OVPurchaseImpl::purchaseSKProductWithDiscount(
    const SKProduct& product, const SKPaymentDiscount& paymentDiscount,
    const std::optional<std::string>& applicationUsername, TransactionCompletion completion) {
  log("Starting purchase procces. Product id : " + product.productIdentifier);
  {
    support::MutexLock lock(slotsMutex_);
    transactionCompletion_ = std::move(completion);
  }
  SKMutablePayment payment(product);
  payment.setPaymentDiscount(paymentDiscount);
  payment.setApplicationUsername(applicationUsername);
  storeKitWrapper_->paymentQueue().addPayment(payment);
}

void OVPurchaseImpl::purchaseFetchReceiptSKProduct(const SKProduct& product,
                                                   FetchReceiptCompletion completion) {
  log("Starting purchase get fetch receipt procces. Product id : " + product.productIdentifier);
  {
    support::MutexLock lock(slotsMutex_);
    fetchReceiptCompletion_ = std::move(completion);
  }
  storeKitWrapper_->paymentQueue().addPayment(SKPayment(product));
}

void OVPurchaseImpl::addMonitorTransationCompletionHandler(FetchReceiptCompletion completion) {
  support::MutexLock lock(slotsMutex_);
  monitorTransationCompletion_ = std::move(completion);
}

void OVPurchaseImpl::finishTransactions(const std::vector<SKPaymentTransactionPtr>& transactions) {
  finishUnlessPurchasing(transactions);
  support::MutexLock lock(slotsMutex_);
  fetchReceiptCompletion_ = nullptr;
}

void OVPurchaseImpl::finishUnlessPurchasing(
    const std::vector<SKPaymentTransactionPtr>& transactions) {
  for (const auto& transaction : transactions) {
    if (transaction && transaction->transactionState != SKPaymentTransactionState::purchasing) {
      storeKitWrapper_->paymentQueue().finishTransaction(transaction);
    }
  }
}

void OVPurchaseImpl::restorePurchases(SubscriberCompletion completion) {
  log("Starting purchases restore proccess");
  {
    support::MutexLock lock(slotsMutex_);
    restoreCompletion_ = std::move(completion);
  }
  storeKitWrapper_->restore();
}

bool OVPurchaseImpl::canMakePayments() const {
  return storeKitWrapper_->paymentQueue().canMakePayments();
}

// ---------------------------------------------------------------------------
// What the store reports

void OVPurchaseImpl::storeKitWrapperDidUpdateTransaction(
    std::optional<ReceiptData> receipt, const SKPaymentTransactionPtr& transaction,
    const std::vector<SKPaymentTransactionPtr>& transactions) {
  if (isRestored(*transaction)) {
    // The end of the restore is answered by this verification.
    support::MutexLock lock(slotsMutex_);
    ++restoreVerificationsPending_;
  }
  verifyWithReceipt(std::move(receipt), transaction, transactions);
}

void OVPurchaseImpl::verifyWithReceipt(std::optional<ReceiptData> receipt,
                                       const SKPaymentTransactionPtr& transaction,
                                       const std::vector<SKPaymentTransactionPtr>& transactions) {
  if (receipt) {
    verify(*receipt, transaction, transactions);
    return;
  }
  // No receipt file yet: ask the store for one, then verify or give up for
  // now. The transaction stays unfinished: nothing the backend said ended it.
  std::weak_ptr<OVPurchaseImpl> weak = weak_from_this();
  receiptRequest_->refresh([weak, transaction, transactions](std::optional<ReceiptData> fresh,
                                                             std::optional<Error> error) {
    auto self = weak.lock();
    if (!self) return;
    if (fresh) {
      self->verify(*fresh, transaction, transactions);
      return;
    }
    self->reportVerificationError(
        transaction, transactions,
        error.value_or(Error{kVelquinErrorDomain,
                             static_cast<std::int64_t>(PurchaseErrorCode::noReceipt),
                             "There is no store receipt to verify the purchase with."}));
    self->keepUnverified(transaction, transactions);
  });
}

void OVPurchaseImpl::verify(const ReceiptData& receipt, const SKPaymentTransactionPtr& transaction,
                            const std::vector<SKPaymentTransactionPtr>& transactions) {
  std::weak_ptr<OVPurchaseImpl> weak = weak_from_this();
  const bool sentWithKey = !networkManager_->appKey().empty();
  networkManager_->verifyReceipt(
      receipt, userDataManager_->userId(), dataCache_->productInfoList(),
      [weak, transaction, transactions, receipt, sentWithKey](
          std::optional<iap::Subscriber> reply, std::optional<Error> error) {
        if (auto self = weak.lock()) {
          if (error && !sentWithKey && !self->networkManager_->appKey().empty()) {
            // Refused while configure() was giving the key: ask again with it.
            self->verify(receipt, transaction, transactions);
            return;
          }
          const iap::Subscriber* answer = reply ? &*reply : nullptr;
          self->completeVerification(transaction, transactions, receipt, answer, error,
                                     answeredByBackend(answer, error, sentWithKey));
        }
      });
}

void OVPurchaseImpl::completeVerification(const SKPaymentTransactionPtr& transaction,
                                          const std::vector<SKPaymentTransactionPtr>& transactions,
                                          const std::optional<ReceiptData>& receipt,
                                          const iap::Subscriber* reply,
                                          const std::optional<Error>& error, bool answered) {
  const std::string& productId = transaction->payment.productIdentifier();
  log("Purchase completed:" + productId);
  OVSubscriber subscriber = subscriberFrom(reply);
  if (reply) {
    dataCache_->setLastEntitlmentUpdateTime(std::chrono::system_clock::now());
    uploadUserInfo(userDataManager_->userId(), nlohmann::json::object(), nullptr);
  }
  if (isRestored(*transaction)) {
    answerRestore(std::move(subscriber), error, true);
  } else {
    if (auto completion = takeSlot(&OVPurchaseImpl::transactionCompletion_)) {
      completion(transaction, subscriber, error, false);
    }
    if (reply && !error && transaction->transactionState == SKPaymentTransactionState::purchased) {
      reportPurchaseEvent(*transaction);
    }
  }

  FetchReceiptCompletion monitor;
  FetchReceiptCompletion fetchReceipt;
  {
    support::MutexLock lock(slotsMutex_);
    monitor = monitorTransationCompletion_;
    if (transaction->transactionState == SKPaymentTransactionState::purchased) {
      fetchReceipt = std::exchange(fetchReceiptCompletion_, nullptr);
    }
  }
  // Whoever asked for the receipt finishes the transactions itself.
  if (fetchReceipt) fetchReceipt(transaction, transactions, receipt, error);
  if (monitor) monitor(transaction, transactions, receipt, error);
  if (monitor || fetchReceipt) return;
  if (answered) {
    finishUnlessPurchasing(transactions);
  } else {
    // Finishing now would lose a paid purchase the backend never saw.
    keepUnverified(transaction, transactions);
  }
}

void OVPurchaseImpl::keepUnverified(const SKPaymentTransactionPtr& transaction,
                                    const std::vector<SKPaymentTransactionPtr>& transactions) {
  log("Verification got no answer; " + transaction->transactionIdentifier +
      " stays unfinished and is verified again later");
  {
    support::MutexLock lock(slotsMutex_);
    std::erase_if(unverified_, [&](const Unverified& kept) {
      return kept.transaction->transactionIdentifier == transaction->transactionIdentifier;
    });
    unverified_.push_back({transaction, transactions});
  }
  watchNetwork();
}

void OVPurchaseImpl::verifyUnfinished() {
  std::vector<Unverified> again;
  {
    support::MutexLock lock(slotsMutex_);
    again.swap(unverified_);
  }
  for (const auto& kept : again) {
    verifyWithReceipt(readAppStoreReceipt(), kept.transaction, kept.transactions);
  }
}

void OVPurchaseImpl::watchNetwork() {
  {
    support::MutexLock lock(slotsMutex_);
    if (networkWatch_) return;
    std::weak_ptr<OVPurchaseImpl> weak = weak_from_this();
    networkWatch_ = NotificationCenter::defaultCenter().addObserver(
        kNetworkReachabilityChangedNotification, [weak](const Notification&) {
          auto self = weak.lock();
          if (self && OVDeviceInfoManager::shared().objcHelper().isReachable()) {
            self->verifyUnfinished();
          }
        });
  }
  OVDeviceInfoManager::shared().objcHelper().reachability()->startNotifier();
}

void OVPurchaseImpl::reportVerificationError(
    const SKPaymentTransactionPtr& transaction,
    const std::vector<SKPaymentTransactionPtr>& transactions, const Error& error) {
  log("Purchase completed with error:\n" + error.localizedDescription());
  if (isRestored(*transaction)) {
    answerRestore(OVSubscriber{}, error, true);
    return;
  }
  if (auto completion = takeSlot(&OVPurchaseImpl::transactionCompletion_)) {
    completion(transaction, OVSubscriber{}, error, false);
  }
  if (transaction->transactionState == SKPaymentTransactionState::purchased) {
    if (auto fetchReceipt = takeSlot(&OVPurchaseImpl::fetchReceiptCompletion_)) {
      fetchReceipt(transaction, transactions, std::nullopt, error);
    }
  }
}

void OVPurchaseImpl::storeKitWrapperDidFailTransaction(const SKPaymentTransactionPtr& transaction) {
  // Store callbacks already run on the main queue.
  const std::optional<Error>& error = transaction->error;
  bool userCancelled =
      error && error->code == static_cast<std::int64_t>(SKErrorCode::paymentCancelled);
  if (error) log(error->localizedDescription());
  if (auto completion = takeSlot(&OVPurchaseImpl::transactionCompletion_)) {
    completion(transaction, OVSubscriber{}, error, userCancelled);
  }
  if (auto fetchReceipt = takeSlot(&OVPurchaseImpl::fetchReceiptCompletion_)) {
    fetchReceipt(transaction, {transaction}, std::nullopt, error);
  }
  finishUnlessPurchasing({transaction});
}

void OVPurchaseImpl::storeKitWrapperRestoreDidFinish(SKPaymentQueue& /*queue*/) {
  {
    support::MutexLock lock(slotsMutex_);
    // Restored transactions are being verified: their answer closes the
    // restore. Or nobody waits (answered already, or timed out).
    if (restoreVerificationsPending_ > 0 || !restoreCompletion_) return;
  }
  // Nothing came back: answer with what the backend knows of the user.
  log("Geting subscriber data from server");
  std::weak_ptr<OVPurchaseImpl> weak = weak_from_this();
  networkManager_->getSubscriber(
      userDataManager_->userId(),
      [weak](std::optional<iap::Subscriber> reply, std::optional<Error> error, std::int64_t) {
        auto self = weak.lock();
        if (!self) return;
        self->answerRestore(subscriberFrom(reply ? &*reply : nullptr), std::move(error), false);
      });
}

void OVPurchaseImpl::storeKitWrapperRestoreDidFail(const Error& error) {
  log("Purchases restore failed: " + error.localizedDescription());
  answerRestore(OVSubscriber{}, error, false);
}

void OVPurchaseImpl::answerRestore(OVSubscriber subscriber, std::optional<Error> error,
                                   bool fromVerification) {
  SubscriberCompletion completion;
  {
    support::MutexLock lock(slotsMutex_);
    if (fromVerification && restoreVerificationsPending_ > 0) --restoreVerificationsPending_;
    completion = std::exchange(restoreCompletion_, nullptr);
  }
  if (completion) completion(std::move(subscriber), std::move(error));
}

void OVPurchaseImpl::reportPurchaseEvent(const SKPaymentTransaction& transaction) {
  const std::string& productId = transaction.payment.productIdentifier();
  SKProductPtr product = dataCache_->product(productId);
  nlohmann::json params = {
      {"product_id", productId},
      {"price", product ? product->price.doubleValue() : 0.0},
      {"currency", product ? product->priceLocale.currencyCode : std::string()},
      {"transaction_id", transaction.transactionIdentifier},
  };
  if (analytics_) analytics_->recordPurchase(params);
}

std::shared_ptr<OVPromotingObserverProtocol> OVPurchaseImpl::promotingObserver() const {
  support::MutexLock lock(slotsMutex_);
  return promotingObserver_.lock();
}

void OVPurchaseImpl::setPromotingObserver(
    const std::shared_ptr<OVPromotingObserverProtocol>& observer) {
  support::MutexLock lock(slotsMutex_);
  promotingObserver_ = observer;
}

// ---------------------------------------------------------------------------
// Entitlements, products and the paywall

void OVPurchaseImpl::hasActiveSubscription(SubscriberCompletion completion) {
  log("Getting Entitlement from server...");
  log("Geting subscriber data from server");
  std::weak_ptr<OVPurchaseImpl> weak = weak_from_this();
  networkManager_->getSubscriber(
      userDataManager_->userId(),
      [weak, completion = std::move(completion)](std::optional<iap::Subscriber> reply,
                                                 std::optional<Error> error, std::int64_t) {
        log("...Entitlement got from server");
        if (error) {
          log("Failed to get subscriber data from backend. \n" + error->localizedDescription());
        }
        OVSubscriber subscriber = subscriberFrom(reply ? &*reply : nullptr);
        if (reply) {
          if (auto self = weak.lock()) {
            self->dataCache_->setLastEntitlmentUpdateTime(std::chrono::system_clock::now());
          }
        }
        MainQueue::shared().async([completion, subscriber = std::move(subscriber), error] {
          if (completion) completion(subscriber, error);
        });
      });
}

bool OVPurchaseImpl::getUserIsActive() const {
  return OVUtils::shared().isActive;
}

void OVPurchaseImpl::getPurchaseProductIds(ProductIdsCompletion completion) {
  auto cached = dataCache_->productIdsArray();
  if (cached && !cached->empty()) {
    if (completion) completion(std::move(cached), std::nullopt);
    return;
  }
  requestAppConfig([completion = std::move(completion)](const iap::GetAppConfigResponse* reply,
                                                        const std::optional<Error>& error) {
    if (!completion) return;
    std::vector<std::string> ids;
    if (reply) ids.assign(reply->product_ids().begin(), reply->product_ids().end());
    completion(std::move(ids), error);
  });
}

void OVPurchaseImpl::getSkuDetails(const std::set<std::string>& productIds,
                                   SkuDetailsCompletion completion) {
  std::map<std::string, SKProductPtr> found;
  std::set<std::string> missing;
  for (const auto& id : productIds) {
    if (auto product = dataCache_->product(id)) {
      found[id] = std::move(product);
    } else {
      missing.insert(id);
    }
  }
  if (missing.empty()) {
    MainQueue::shared().async([found = std::move(found), completion = std::move(completion)] {
      if (completion) completion(found, std::nullopt);
    });
    return;
  }
  std::weak_ptr<OVPurchaseImpl> weak = weak_from_this();
  productsRequest_->fetchProducts(
      missing, [weak, found = std::move(found), missing, completion = std::move(completion)](
                   std::vector<SKProductPtr> products, std::optional<Error> error) mutable {
        if (auto self = weak.lock(); self && !products.empty()) {
          self->dataCache_->storeProducts(products);
          self->dataCache_->setLastProductUpdateTime(std::chrono::system_clock::now());
        }
        if (!completion) return;
        if (error) return completion(std::nullopt, std::move(error));
        for (const auto& product : products) found[product->productIdentifier] = product;
        if (found.empty()) {
          std::string names;
          for (const auto& id : missing) names += (names.empty() ? "" : ", ") + id;
          return completion(std::nullopt,
                            Error{kVelquinErrorDomain,
                                  static_cast<std::int64_t>(PurchaseErrorCode::productNotFound),
                                  "The store has no product " + names + "."});
        }
        completion(std::move(found), std::nullopt);
      });
}

void OVPurchaseImpl::setPagePresenter(std::shared_ptr<PagePresenter> presenter) {
  support::MutexLock lock(slotsMutex_);
  pagePresenter_ = std::move(presenter);
}

std::shared_ptr<PagePresenter> OVPurchaseImpl::pagePresenter() const {
  support::MutexLock lock(slotsMutex_);
  return pagePresenter_;
}

void OVPurchaseImpl::loadPaywallToPurachase(PaywallCompletion completion) {
  // Every answer comes on the main queue, whichever path gives it.
  auto answer = [completion](bool shown, std::optional<std::string> message) {
    if (!completion) return;
    MainQueue::shared().async(
        [completion, shown, message = std::move(message)] { completion(shown, message); });
  };
  if (auto page = dataCache_->paywallPage()) {
    if (page->empty()) return answer(false, "No paywall data configured");
    showPaywall(*page, std::move(completion));
    return;
  }
  std::weak_ptr<OVPurchaseImpl> weak = weak_from_this();
  fetchPaywallPage([weak, completion = std::move(completion), answer](
                       std::optional<std::string> page, std::optional<Error>) mutable {
    auto self = weak.lock();
    if (self && page && !page->empty()) {
      self->showPaywall(*page, std::move(completion));
      return;
    }
    answer(false, "Data error for re-request paywall");
  });
}

void OVPurchaseImpl::fetchPaywallPage(PageCompletion completion) {
  requestAppConfig([completion = std::move(completion)](const iap::GetAppConfigResponse* reply,
                                                        const std::optional<Error>& error) {
    if (!completion) return;
    if (reply && !error) return completion(reply->paywall_page(), std::nullopt);
    completion(std::nullopt, error);
  });
}

void OVPurchaseImpl::showPaywall(const std::string& html, PaywallCompletion completion) {
  std::weak_ptr<OVPurchaseImpl> weak = weak_from_this();
  MainQueue::shared().async([weak, html, completion = std::move(completion)] {
    std::shared_ptr<PagePresenter> presenter;
    if (auto self = weak.lock()) presenter = self->pagePresenter();
    if (presenter && presenter->presentPaywall(html, completion)) return;
    if (completion) completion(false, "paywall show failed");
  });
}

void OVPurchaseImpl::invalidateCache() {
  dataCache_->invalidateCache();
}

}  // namespace velquin
