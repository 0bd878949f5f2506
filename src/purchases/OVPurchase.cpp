#include "velquin/OVPurchase.h"

#include "purchases/OVDataCache.h"
#include "purchases/OVPurchaseImpl.h"

namespace velquin {

OVPurchase::OVPurchase(std::shared_ptr<OVPurchaseImpl> impl) : impl_(std::move(impl)) {}

OVPurchase::~OVPurchase() = default;

void OVPurchase::configureInitSDKWithVelQuinPlist() {
  impl_->configureInitSDKWithVelQuinPlist();
}

void OVPurchase::registerBigDataGetAccessToken() {
  impl_->registerBigDataGetAccessToken();
}

void OVPurchase::configureSDK(const std::string& appKey) {
  impl_->configureSDK(appKey);
}

void OVPurchase::enableLog(bool enabled) {
  impl_->enableLog(enabled);
}

bool OVPurchase::isSandbox() const {
  return impl_->isSandbox();
}

void OVPurchase::purchaseSKProduct(const SKProduct& product, TransactionCompletion completion) {
  impl_->purchaseSKProduct(product, std::move(completion));
}

void OVPurchase::purchaseSKProductWithDiscount(
    const SKProduct& product, const SKPaymentDiscount& paymentDiscount,
    const std::optional<std::string>& applicationUsername, TransactionCompletion completion) {
  impl_->purchaseSKProductWithDiscount(product, paymentDiscount, applicationUsername,
                                       std::move(completion));
}

void OVPurchase::purchaseFetchReceiptSKProduct(const SKProduct& product,
                                               FetchReceiptCompletion completion) {
  impl_->purchaseFetchReceiptSKProduct(product, std::move(completion));
}

void OVPurchase::addMonitorTransationCompletionHandler(FetchReceiptCompletion completion) {
  impl_->addMonitorTransationCompletionHandler(std::move(completion));
}

void OVPurchase::finishTransactions(const std::vector<SKPaymentTransactionPtr>& transactions) {
  impl_->finishTransactions(transactions);
}

void OVPurchase::restorePurchases(SubscriberCompletion completion) {
  impl_->restorePurchases(std::move(completion));
}

bool OVPurchase::canMakePayments() const {
  return impl_->canMakePayments();
}

void OVPurchase::hasActiveSubscription(SubscriberCompletion completion) {
  impl_->hasActiveSubscription(std::move(completion));
}

bool OVPurchase::getUserIsActive() const {
  return impl_->getUserIsActive();
}

void OVPurchase::getPurchaseProductIds(ProductIdsCompletion completion) {
  impl_->getPurchaseProductIds(std::move(completion));
}

void OVPurchase::getSkuDetails(const std::set<std::string>& productIds,
                               SkuDetailsCompletion completion) {
  impl_->getSkuDetails(productIds, std::move(completion));
}

void OVPurchase::loadPaywallToPurachase(PaywallCompletion completion) {
  impl_->loadPaywallToPurachase(std::move(completion));
}

void OVPurchase::setPagePresenter(std::shared_ptr<PagePresenter> presenter) {
  impl_->setPagePresenter(std::move(presenter));
}

void OVPurchase::invalidateCache() {
  impl_->invalidateCache();
}

void OVPurchase::setPromotingObserver(
    const std::shared_ptr<OVPromotingObserverProtocol>& observer) {
  impl_->setPromotingObserver(observer);
}

std::shared_ptr<OVPromotingObserverProtocol> OVPurchase::promotingObserver() const {
  return impl_->promotingObserver();
}

void OVPurchase::uploadUserInfo(const std::optional<std::string>& userId,
                                const nlohmann::json& extraAttribute,
                                std::function<void(bool, std::optional<Error>)> completion) {
  impl_->uploadUserInfo(userId, extraAttribute, std::move(completion));
}

std::string OVPurchase::appUserId() const {
  return impl_->appUserId();
}

std::optional<std::vector<std::string>> OVPurchase::cachedProductIds() const {
  return impl_->dataCache().productIdsArray();
}

std::optional<std::string> OVPurchase::cachedPaywallPage() const {
  return impl_->dataCache().paywallPage();
}

std::optional<std::string> OVPurchase::cachedWelcomePage() const {
  return impl_->dataCache().welcomePage();
}

}  // namespace velquin
