#include "velquin/Velquin.h"

#include <initializer_list>
#include <string_view>

#include "AttributionRoot.pb.h"
#include "analytics/OVDeviceInfoManager.h"
#include "backend/GRPCserviceManager.h"
#include "crash/CrashReporter.h"
#include "crash/CrashSignalHandler.h"
#include "delivery/OVRequestCache.h"
#include "delivery/OVRequestManager.h"
#include "facade/CompositionRoot.h"
#include "notifications/OVNotificationUtil.h"
#include "purchases/OVDataCache.h"
#include "purchases/OVPurchaseImpl.h"
#include "support/OVCFunctionToolHelper.h"
#include "support/OVUtils.h"
#include "support/Utf8.h"
#include "velquin/OVAnalytics.h"
#include "velquin/OVPurchase.h"

namespace velquin {
namespace {

GRPCserviceManager& network() {
  return OVPurchaseImpl::shared().networkManager();
}

// The backend's messages carry text as UTF-8 only: anything else is refused
// at the door with an error naming the argument, instead of a call that
// fails to serialise or, for JSON, goes out empty.
std::optional<Error> refuseNonUtf8(
    std::initializer_list<std::pair<const char*, std::string_view>> arguments) {
  for (const auto& [name, text] : arguments) {
    if (!support::isValidUtf8(text)) {
      return Error{kVelquinErrorDomain, static_cast<std::int64_t>(PurchaseErrorCode::invalidText),
                   std::string("The ") + name + " is not valid UTF-8 text."};
    }
  }
  return std::nullopt;
}

Error unsendableJson(const char* name) {
  return Error{kVelquinErrorDomain, static_cast<std::int64_t>(PurchaseErrorCode::invalidText),
               std::string("The ") + name + " holds text that is not valid UTF-8."};
}

OVAttribution attributionFrom(const attribution::GetAttributionResponse& reply) {
  return OVAttribution{reply.app_id(),
                       reply.advertiser_id(),
                       reply.app_user_id(),
                       reply.attribution_source(),
                       reply.acquisition_source(),
                       reply.acquisition_campaign(),
                       reply.acquisition_lander(),
                       reply.acquisition_country(),
                       reply.acquisition_var1(),
                       reply.acquisition_var2(),
                       reply.acquisition_var3(),
                       reply.ad_event_id(),
                       reply.tracker_id(),
                       reply.click_time()};
}

ReplyCompletion<attribution::GetAttributionResponse> attributionReply(
    Velquin::AttributionCompletion completion) {
  return [completion = std::move(completion)](
             std::optional<attribution::GetAttributionResponse> reply, std::optional<Error> error) {
    if (!completion) return;
    if (!reply) return completion(std::nullopt, std::move(error));
    completion(attributionFrom(*reply), std::move(error));
  };
}

}  // namespace

Velquin& Velquin::shared() {
  static Velquin* facade = new Velquin();  // lives for the process
  return *facade;
}

// The orchestrator first, then analytics: the creation order of start-up.
Velquin::Velquin()
    : purchases_(new OVPurchase(OVPurchaseImpl::sharedPointer())),
      analytics_(std::make_unique<OVAnalytics>()) {}

OVPurchase& OVPurchase::shared() {
  return Velquin::shared().purchases();
}

void Velquin::configure() {
  // Crash capture is armed later, on a thread of the SDK's; the thread that
  // starts the SDK (the host's main thread, as a rule) gets an alternate
  // signal stack now, so that its stack overflows are reported too.
  crash::installAlternateSignalStackOnThisThread(nullptr);
  purchases_->configureInitSDKWithVelQuinPlist();
}

void Velquin::setPurchasesLogs(bool enabled) {
  OVUtils::enableLogs(enabled);
}

void Velquin::setCrashCaptureChainsHostHandlerFirst(bool enabled) {
  CrashReporter::setChainsHostHandlerFirst(enabled);
}

void Velquin::setExitDrainMilliseconds(long milliseconds) {
  OVRequestManager::setExitDrainBound(std::chrono::milliseconds(milliseconds));
}

void Velquin::setEventCacheCap(long events) {
  OVRequestCache::setRowCap(events);
}

void Velquin::setAnalyticsLogs(bool enabled) {
  OVDeviceInfoManager::shared().log = !enabled;
}

std::string Velquin::getAppUserId() const {
  return OVDeviceInfoManager::shared().userId();
}

std::optional<std::string> Velquin::experimentTag() const {
  return OVUtils::shared().velquinSDkInit_tag();
}

void Velquin::setPagePresenter(std::shared_ptr<PagePresenter> presenter) {
  purchases_->setPagePresenter(std::move(presenter));
}

void Velquin::setAdvertisingIdProvider(AdvertisingIdProvider provider) {
  OVDeviceInfoManager::shared().setAdvertisingIdProvider(std::move(provider));
}

void Velquin::setCarrierProvider(CarrierProvider provider) {
  OVDeviceInfoManager::shared().setCarrierProvider(std::move(provider));
}

void Velquin::setScreen(const ScreenFacts& screen) {
  OVDeviceInfoManager::shared().setScreen(screen.width, screen.height, screen.density);
}

void Velquin::uploadUserInfo() {
  purchases_->uploadUserInfo(std::nullopt, nlohmann::json::object(), nullptr);
}

void Velquin::uploadUserInfo(const std::optional<std::string>& userId,
                             const nlohmann::json& extraAttribute,
                             std::function<void(bool, std::optional<Error>)> completion) {
  purchases_->uploadUserInfo(userId, extraAttribute, std::move(completion));
}

void Velquin::uploadDeviceInfo(const std::string& deviceToken,
                               std::function<void(bool, std::optional<Error>)> completion) {
  if (auto refused = refuseNonUtf8({{"device token", deviceToken}})) {
    if (completion) completion(false, std::move(refused));
    return;
  }
  log("purchases finish to uploadDeviceInfo");
  network().uploadDeviceToken(OVDeviceInfoManager::shared().deviceIdentifier(), deviceToken,
                              std::move(completion));
}

void Velquin::updateAttribution(const nlohmann::json& data, AttributionNetwork source,
                                const std::optional<std::string>& networkUserId,
                                AttributionCompletion completion) {
  auto text = OVCFunctionToolHelper::DataTOjsonString(data);
  auto refused = text ? refuseNonUtf8({{"network user id", networkUserId.value_or("")}})
                      : unsendableJson("attribution data");
  if (refused) {
    if (completion) completion(std::nullopt, std::move(refused));
    return;
  }
  log("Geting updateAttribution data from server");
  network().getAttribution(static_cast<std::uint32_t>(source), *text, networkUserId,
                           attributionReply(std::move(completion)));
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
  auto text = OVCFunctionToolHelper::DataTOjsonString(data);
  if (!text) {
    if (completion) completion(std::nullopt, unsendableJson("custom attribution"));
    return;
  }
  log("Geting updateAttribution data from server");
  network().getAttribution(static_cast<std::uint32_t>(AttributionNetwork::custom), *text,
                           std::nullopt, attributionReply(std::move(completion)));
}

void Velquin::createASignature(
    const std::string& productId, const std::string& offerId, const std::string& userid,
    std::function<void(std::optional<OVOfferSignatureDetail>, std::optional<Error>)> completion) {
  if (auto refused =
          refuseNonUtf8({{"product id", productId}, {"offer id", offerId}, {"user id", userid}})) {
    if (completion) completion(std::nullopt, std::move(refused));
    return;
  }
  network().generatePromotionalOfferSignature(
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
  if (auto refused = refuseNonUtf8({{"currency code", currencyCode}})) {
    if (completion) completion(std::nullopt, std::move(refused));
    return;
  }
  network().getCurrencyRate(
      currencyCode, [completion = std::move(completion)](std::optional<iap::CurrencyRate> reply,
                                                         std::optional<Error> error) {
        if (!completion) return;
        if (!reply) return completion(std::nullopt, std::move(error));
        completion(reply->currency_rate(), std::nullopt);
      });
}

void Velquin::getPurchaseProductIds(OVPurchase::ProductIdsCompletion completion) {
  purchases_->getPurchaseProductIds(std::move(completion));
}

void Velquin::getSkuDetails(const std::set<std::string>& productIds,
                            OVPurchase::SkuDetailsCompletion completion) {
  purchases_->getSkuDetails(productIds, std::move(completion));
}

void Velquin::purchaseSKProduct(const SKProduct& product,
                                OVPurchase::TransactionCompletion completion) {
  purchases_->purchaseSKProduct(product, std::move(completion));
}

void Velquin::purchaseSKProductWithDiscount(const SKProduct& product,
                                            const SKPaymentDiscount& paymentDiscount,
                                            const std::optional<std::string>& applicationUsername,
                                            OVPurchase::TransactionCompletion completion) {
  purchases_->purchaseSKProductWithDiscount(product, paymentDiscount, applicationUsername,
                                            std::move(completion));
}

void Velquin::purchaseFetchReceiptSKProduct(const SKProduct& product,
                                            OVPurchase::FetchReceiptCompletion completion) {
  purchases_->purchaseFetchReceiptSKProduct(product, std::move(completion));
}

void Velquin::addMonitorTransationCompletionHandler(OVPurchase::FetchReceiptCompletion completion) {
  purchases_->addMonitorTransationCompletionHandler(std::move(completion));
}

void Velquin::finishTransactions(const std::vector<SKPaymentTransactionPtr>& transactions) {
  purchases_->finishTransactions(transactions);
}

bool Velquin::canMakePayment() const {
  return purchases_->canMakePayments();
}

void Velquin::hasActiveSubscription(OVPurchase::SubscriberCompletion completion) {
  purchases_->hasActiveSubscription(std::move(completion));
}

void Velquin::restorePurchases(OVPurchase::SubscriberCompletion completion) {
  purchases_->restorePurchases(std::move(completion));
}

void Velquin::loadPaywallToPurachase(OVPurchase::PaywallCompletion completion) {
  purchases_->loadPaywallToPurachase(std::move(completion));
}

void Velquin::setInAppPurchasePromotingStatus(
    OVPromotingInAppPurchaseStatus status,
    const std::shared_ptr<OVPromotingObserverProtocol>& observer) {
  OVUtils::shared().promotingStatus = status;
  purchases_->setPromotingObserver(observer);
}

namespace {

// Makes the notification handler the centre's delegate, the first time only.
void startNotificationHandling() {
  auto& util = OVNotificationUtil::shared();
  bool started = false;
  if (!util.isFinishStart.compare_exchange_strong(started, true)) return;
  currentUserNotificationCenter()->setDelegate(OVNotificationUtil::sharedPointer());
  log("startServer");
}

}  // namespace

void Velquin::setInAppMesssageAutoShow(bool isAutoShow) {
  OVNotificationUtil::shared().isAutoShow = isAutoShow;
  startNotificationHandling();
}

void Velquin::setAutoUserNotificationBehaviorDataReporting() {
  startNotificationHandling();
}

bool Velquin::sendUserNotificationCenterMessage(const nlohmann::json& userInfo) {
  auto& util = OVNotificationUtil::shared();
  util.isAutoShow = true;
  return util.handleInAppMessage(userInfo);
}

void Velquin::sendNotificationUserInfoToBehaviorDataReporting(const nlohmann::json& userInfo) {
  OVNotificationUtil::shared().reportNotification(userInfo);
}

void Velquin::setFromBackgroudPointToDelayTime(double delayTime) {
  OVNotificationUtil::shared().delayTime = delayTime;
}

double Velquin::fromBackgroudPointToDelayTime() const {
  return OVNotificationUtil::shared().delayTime;
}

void Velquin::setUserNotificationCenter(std::shared_ptr<UserNotificationCenter> center) {
  installUserNotificationCenter(std::move(center));
  // Handling already started: the new centre gets the delegate too. (A
  // start racing with this call sets it on whichever centre it reads; this
  // line covers the other order.)
  if (OVNotificationUtil::shared().isFinishStart) {
    currentUserNotificationCenter()->setDelegate(OVNotificationUtil::sharedPointer());
  }
}

std::shared_ptr<UserNotificationCenter> Velquin::userNotificationCenter() const {
  return currentUserNotificationCenter();
}

namespace {

// The text under `key` of a JSON map; empty for anything else.
std::string textAt(const nlohmann::json& object, const char* key) {
  if (!object.is_object() || !object.contains(key)) return {};
  const auto& value = object.at(key);
  return value.is_string() ? value.get<std::string>() : std::string();
}

}  // namespace

void Velquin::receivePushNotification(const nlohmann::json& payload, bool inFront) {
  UserNotification notification;
  notification.userInfo = payload.is_object() ? payload : nlohmann::json::object();
  const auto& info = notification.userInfo;
  if (info.contains("aps") && info.at("aps").is_object() && info.at("aps").contains("alert")) {
    const auto& alert = info.at("aps").at("alert");
    if (alert.is_string()) {
      notification.body = alert.get<std::string>();
    } else {
      notification.title = textAt(alert, "title");
      notification.body = textAt(alert, "body");
    }
  }
  notification.identifier = textAt(info, "velquin_notification_id");
  currentUserNotificationCenter()->deliver(notification, inFront);
}

std::shared_ptr<PagePresenter> Velquin::pagePresenter() const {
  return OVPurchaseImpl::shared().pagePresenter();
}

std::optional<std::string> Velquin::storedWelcomePage() const {
  return OVPurchaseImpl::shared().dataCache().storedWelcomePage();
}

void Velquin::fetchPaywallPage(
    std::function<void(std::optional<std::string>, std::optional<Error>)> completion) {
  OVPurchaseImpl::shared().fetchPaywallPage(std::move(completion));
}

void Velquin::writeLog(const std::string& message) const {
  log(message);
}

}  // namespace velquin
