#include "velquin/OVPurchase.h"

#include <filesystem>

#include "analytics/OVDeviceInfoManager.h"
#include "backend/AppToken.h"
#include "backend/GRPCserviceManager.h"
#include "facade/OVUserDataManager.h"
#include "facade/OVUtils.h"
#include "platform/UserDefaults.h"
#include "purchases/OVDataCache.h"
#include "support/OVCFunctionToolHelper.h"
#include "velquin/Bundle.h"
#include "velquin/NotificationCenter.h"
#include "velquin/OVAnalytics.h"
#include "velquin/Velquin.h"

namespace velquin {

std::shared_ptr<OVPurchase> OVPurchase::sharedPointer() {
  // Kept for the process; callbacks hold it weakly all the same.
  static auto* instance = new std::shared_ptr<OVPurchase>(new OVPurchase());
  return *instance;
}

OVPurchase& OVPurchase::shared() { return *sharedPointer(); }

OVPurchase::OVPurchase() {
  const Bundle& bundle = Bundle::main();
  auto& defaults = platform::UserDefaults::standard();
  auto& deviceInfo = OVDeviceInfoManager::shared();
  networkManager_ = std::make_unique<GRPCserviceManager>(bundle, deviceInfo);
  userDataManager_ = std::make_unique<OVUserDataManager>(defaults, deviceInfo);
  dataCache_ = std::make_unique<OVDataCache>(defaults);
}

OVPurchase::~OVPurchase() = default;

void OVPurchase::configureInitSDKWithVelQuinPlist() {
  auto token = AppToken::load(Bundle::main()).accessToken;
  if (!token) return;
  configureSDK(*token);
}

void OVPurchase::registerBigDataGetAccessToken() { configureInitSDKWithVelQuinPlist(); }

void OVPurchase::configureSDK(const std::string& appKey) {
  networkManager_->setAppKey(appKey);
  log("Geting initInfo data from server");
  std::weak_ptr<OVPurchase> weak = weak_from_this();
  networkManager_->init(userDataManager_->userId(), [weak](
                                                        std::optional<iap::GetInitInfoResponse> reply,
                                                        std::optional<Error>) {
    // An Init failure leaves the tag empty and the chain goes on.
    OVUtils::shared().setVelquinSDkInit_tag(reply ? reply->tag() : std::string());
    auto self = weak.lock();
    if (!self) return;
    Velquin::shared().analytics().registerBigDataWitInfoPlist();
    log("Geting subscriber data from server");
    self->networkManager_->getSubscriber(self->userDataManager_->userId(), nullptr);
    self->networkManager_->getAppConfig(
        [weak](std::optional<iap::GetAppConfigResponse> config, std::optional<Error> error) {
          if (auto owner = weak.lock()) owner->handleAppConfig(config ? &*config : nullptr, error);
        });
  });
}

void OVPurchase::handleAppConfig(const iap::GetAppConfigResponse* reply,
                                 const std::optional<Error>& error) {
  if (error || !reply) {
    log("getAppConfig fail:" + (error ? error->localizedDescription() : std::string()));
  } else {
    // proto3 strings have no presence: an empty page arrives as empty text.
    dataCache_->setPaywallPage(reply->paywall_page());
    dataCache_->setWelcomePage(reply->welcome_page());
    dataCache_->setProductIdsArray(
        std::vector<std::string>(reply->product_ids().begin(), reply->product_ids().end()));
  }
  NotificationCenter::defaultCenter().post(kAppConfigHandledNotification);
}

std::string OVPurchase::appUserId() const { return userDataManager_->userId(); }

void OVPurchase::enableLog(bool enabled) { OVUtils::enableLogs(enabled); }

bool OVPurchase::isSandbox() const {
  auto receipt = Bundle::main().appStoreReceiptPath();
  return receipt && receipt->filename() == "sandboxReceipt";
}

void OVPurchase::uploadUserInfo(const std::optional<std::string>& userId,
                                const nlohmann::json& extraAttribute,
                                std::function<void(bool, std::optional<Error>)> completion) {
  log("UserInfo data reporting in progress");
  if (userId) userDataManager_->setUserId(*userId);
  auto attribute = OVCFunctionToolHelper::DataTOjsonString(extraAttribute).value_or("");
  networkManager_->uploadUserInfo(userDataManager_->userId(), attribute, std::move(completion));
}

}  // namespace velquin
