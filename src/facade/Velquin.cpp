#include "velquin/Velquin.h"

#include "AttributionRoot.pb.h"
#include "analytics/OVDeviceInfoManager.h"
#include "backend/GRPCserviceManager.h"
#include "facade/OVUtils.h"
#include "platform/UserDefaults.h"
#include "support/OVCFunctionToolHelper.h"
#include "velquin/OVAnalytics.h"
#include "velquin/OVPurchase.h"

namespace velquin {

Velquin& Velquin::shared() {
  static Velquin* facade = new Velquin();  // lives for the process
  return *facade;
}

Velquin::Velquin() : purchases_(OVPurchase::shared()), analytics_(std::make_unique<OVAnalytics>()) {}

void Velquin::configure() { purchases_.configureInitSDKWithVelQuinPlist(); }

void Velquin::setPurchasesLogs(bool enabled) { OVUtils::enableLogs(enabled); }

void Velquin::setAnalyticsLogs(bool enabled) { OVDeviceInfoManager::shared().log = !enabled; }

std::string Velquin::getAppUserId() const { return OVDeviceInfoManager::shared().userId(); }

void Velquin::uploadUserInfo() {
  purchases_.uploadUserInfo(std::nullopt, nlohmann::json::object(), nullptr);
}

void Velquin::uploadUserInfo(const std::optional<std::string>& userId,
                             const nlohmann::json& extraAttribute,
                             std::function<void(bool, std::optional<Error>)> completion) {
  purchases_.uploadUserInfo(userId, extraAttribute, std::move(completion));
}

void Velquin::uploadDeviceInfo(const std::string& deviceToken,
                               std::function<void(bool, std::optional<Error>)> completion) {
  log("purchases finish to uploadDeviceInfo");
  purchases_.networkManager().uploadDeviceToken(OVDeviceInfoManager::shared().deviceIdentifier(),
                                                deviceToken, std::move(completion));
}

void Velquin::updateAttribution(const nlohmann::json& data, AttributionNetwork source,
                                const std::optional<std::string>& networkUserId,
                                AttributionCompletion completion) {
  log("Geting updateAttribution data from server");
  purchases_.networkManager().getAttribution(
      static_cast<std::uint32_t>(source), OVCFunctionToolHelper::DataTOjsonString(data).value_or(""),
      networkUserId, std::move(completion));
}

void Velquin::updateCustomAttribution(const std::string& channel,
                                      const std::optional<std::string>& campaign,
                                      const std::optional<std::string>& adGroup,
                                      const std::optional<std::string>& creative,
                                      const std::optional<std::string>& clickID,
                                      AttributionCompletion completion) {
  nlohmann::json data = {
      {"channel", channel},
      {"campaign", campaign.value_or("")},
      {"ad_group", adGroup.value_or("")},
      {"creative", creative.value_or("")},
      {"click_id", clickID.value_or("")},
      {"attributed", true},
  };
  log("Geting updateAttribution data from server");
  purchases_.networkManager().getAttribution(
      static_cast<std::uint32_t>(AttributionNetwork::custom),
      OVCFunctionToolHelper::DataTOjsonString(data).value_or(""), std::nullopt,
      std::move(completion));
}

void Velquin::createASignature(
    const std::string& productId, const std::string& offerId, const std::string& userid,
    std::function<void(std::optional<OVOfferSignatureDetail>, std::optional<Error>)> completion) {
  purchases_.networkManager().generatePromotionalOfferSignature(
      userid, productId, offerId,
      [completion = std::move(completion)](
          std::optional<iap::GeneratePromotionalOfferSignatureResponse> reply,
          std::optional<Error> error) {
        if (!completion) return;
        if (!reply) return completion(std::nullopt, std::move(error));
        completion(OVOfferSignatureDetail{reply->key_id(), reply->nonce(), reply->signature(),
                                          reply->timestamp()},
                   std::nullopt);
      });
}

std::string Velquin::uploadBigDataWithType(const std::string& eventName,
                                           const nlohmann::json& params) {
  return analytics_->uploadBigDataWithEvent(eventName, params);
}

void Velquin::getCurrencyRate(
    const std::string& currencyCode,
    std::function<void(std::optional<double>, std::optional<Error>)> completion) {
  purchases_.networkManager().getCurrencyRate(
      currencyCode,
      [completion = std::move(completion)](std::optional<iap::CurrencyRate> reply,
                                           std::optional<Error> error) {
        if (!completion) return;
        if (!reply) return completion(std::nullopt, std::move(error));
        completion(reply->currency_rate(), std::nullopt);
      });
}

void Velquin::getPurchaseProductIds(OVPurchase::ProductIdsCompletion completion) {
  purchases_.getPurchaseProductIds(std::move(completion));
}

void Velquin::getSkuDetails(const std::set<std::string>& productIds,
                            OVPurchase::SkuDetailsCompletion completion) {
  purchases_.getSkuDetails(productIds, std::move(completion));
}

void Velquin::purchaseSKProduct(const SKProduct& product,
                                OVPurchase::TransactionCompletion completion) {
  purchases_.purchaseSKProduct(product, std::move(completion));
}

void Velquin::purchaseSKProductWithDiscount(const SKProduct& product,
                                            const SKPaymentDiscount& paymentDiscount,
                                            const std::optional<std::string>& applicationUsername,
                                            OVPurchase::TransactionCompletion completion) {
  purchases_.purchaseSKProductWithDiscount(product, paymentDiscount, applicationUsername,
                                           std::move(completion));
}

void Velquin::purchaseFetchReceiptSKProduct(const SKProduct& product,
                                            OVPurchase::FetchReceiptCompletion completion) {
  purchases_.purchaseFetchReceiptSKProduct(product, std::move(completion));
}

void Velquin::addMonitorTransationCompletionHandler(OVPurchase::FetchReceiptCompletion completion) {
  purchases_.addMonitorTransationCompletionHandler(std::move(completion));
}

void Velquin::finishTransactions(const std::vector<SKPaymentTransactionPtr>& transactions) {
  purchases_.finishTransactions(transactions);
}

bool Velquin::canMakePayment() const { return purchases_.canMakePayments(); }

void Velquin::hasActiveSubscription(OVPurchase::SubscriberCompletion completion) {
  purchases_.hasActiveSubscription(std::move(completion));
}

void Velquin::restorePurchases(OVPurchase::SubscriberCompletion completion) {
  purchases_.restorePurchases(std::move(completion));
}

void Velquin::loadPaywallToPurachase(OVPurchase::PaywallCompletion completion) {
  purchases_.loadPaywallToPurachase(std::move(completion));
}

void Velquin::setInAppPurchasePromotingStatus(
    OVPromotingInAppPurchaseStatus status,
    const std::shared_ptr<OVPromotingObserverProtocol>& observer) {
  OVUtils::shared().promotingStatus = status;
  purchases_.setPromotingObserver(observer);
}

void Velquin::setFromBackgroudPointToDelayTime(double delayTime) { delayTime_ = delayTime; }

double Velquin::fromBackgroudPointToDelayTime() const { return delayTime_; }

void Velquin::setPagePresenter(std::shared_ptr<PagePresenter> presenter) {
  {
    std::lock_guard lock(presenterMutex_);
    pagePresenter_ = presenter;
  }
  if (!presenter) {
    purchases_.setPaywallPresenter(nullptr);
    return;
  }
  purchases_.setPaywallPresenter(
      [presenter](const std::string& html, OVPurchase::PaywallCompletion completion) {
        return presenter->presentPaywall(html, std::move(completion));
      });
}

std::shared_ptr<PagePresenter> Velquin::pagePresenter() const {
  std::lock_guard lock(presenterMutex_);
  return pagePresenter_;
}

std::optional<std::string> Velquin::storedWelcomePage() const {
  auto bytes = platform::UserDefaults::standard().dataForKey("VelQuinWelcomHtmlData");
  if (!bytes) return std::nullopt;
  return std::string(bytes->begin(), bytes->end());
}

void Velquin::fetchPaywallPage(
    std::function<void(std::optional<std::string>, std::optional<Error>)> completion) {
  purchases_.networkManager().getAppConfig(
      [completion = std::move(completion)](std::optional<iap::GetAppConfigResponse> reply,
                                           std::optional<Error> error) {
        OVPurchase::shared().handleAppConfig(reply ? &*reply : nullptr, error);
        if (!completion) return;
        if (reply && !error) {
          completion(reply->paywall_page(), std::nullopt);
        } else {
          completion(std::nullopt, error);
        }
      });
}

void Velquin::writeLog(const std::string& message) const { log(message); }

}  // namespace velquin
