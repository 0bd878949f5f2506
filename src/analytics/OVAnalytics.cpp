#include "velquin/OVAnalytics.h"

#include <chrono>

#include "analytics/OVDeviceInfoManager.h"
#include "analytics/OVDeviceInfoManagerHelper.h"
#include "backend/AppToken.h"
#include "delivery/EventEnvelope.h"
#include "delivery/OVRequestCache.h"
#include "delivery/OVRequestManager.h"
#include "platform/Env.h"
#include "support/OVCFunctionToolHelper.h"
#include "velquin/Bundle.h"
#include "velquin/MainQueue.h"

namespace velquin {
namespace {

constexpr const char* kFirstOpenKey = "ORVENT_ANALYTICS_FIRST_OPEN";

OVRequestManager::SuccessBlock adaptSuccess(OVAnalytics::SuccessBlock success) {
  if (!success) return nullptr;
  return [success = std::move(success)](const protocol::EventResponse& reply) {
    success(OVEventResponse{reply.status()});
  };
}

}  // namespace

const char* eventName(EventType type) {
  switch (type) {
    case EventType::firstOpen: return "ev_first_open";
    case EventType::appStart: return "ev_app_start";
    case EventType::screenView: return "ev_scree_view";
    case EventType::adsClick: return "ev_ads_click";
    case EventType::adsShow: return "ev_ads_show";
    case EventType::adsRequest: return "ev_ads_request";
    case EventType::inAppPurchase: return "ev_in_app_purchases";
    case EventType::userEngagement: return "ev_user_engagement";
    case EventType::nonFatalCrash: return "non_fatal_crash";
    case EventType::fatalCrash: return "fatal_crash";
    case EventType::viewPaywall: return "ev_view_paywall";
  }
  return "";
}

nlohmann::json ParamModel::toDictionary() const {
  nlohmann::json dictionary =
      otherData.is_object() && !otherData.empty() ? otherData : nlohmann::json::object();
  static const char* screens[] = {nullptr, "homepage", "setting", "lockscreen"};
  static const char* places[] = {nullptr, "quick_clean", "boost", "install"};
  static const char* sources[] = {nullptr, "facebook", "admob", "mobpup"};
  static const char* formats[] = {nullptr, "banner", "interstitial"};
  auto put = [&](const char* key, const char* const* names, int count, int value) {
    if (value > 0 && value < count) dictionary[key] = names[value];
  };
  put("screeen_name", screens, 4, static_cast<int>(screenType));
  put("splacement", places, 4, static_cast<int>(placeType));
  put("ad_source", sources, 4, static_cast<int>(adsouceType));
  put("format", formats, 3, static_cast<int>(formatType));
  return dictionary;
}

std::string OVAnalytics::uploadBigDataWithType(EventType type, const ParamModel& paramModel,
                                               SuccessBlock success, FailureBlock failure) {
  return uploadBigDataWithEvent(std::string(eventName(type)), paramModel.toDictionary(),
                                std::move(success), std::move(failure));
}

std::string OVAnalytics::uploadBigDataWithType(EventType type, const nlohmann::json& params,
                                               SuccessBlock success, FailureBlock failure) {
  return uploadBigDataWithEvent(std::string(eventName(type)), params, std::move(success),
                                std::move(failure));
}

std::string OVAnalytics::uploadBigDataWithEvent(const std::optional<std::string>& name,
                                                const nlohmann::json& params,
                                                SuccessBlock success, FailureBlock failure) {
  // The cache first: opening it moves the request counter past the ids of
  // rows an earlier run left behind.
  auto& cache = OVRequestCache::shared();
  auto& deviceInfo = OVDeviceInfoManager::shared();
  const nlohmann::json& value = params.is_null() ? nlohmann::json::object() : params;
  auto request = makeEventEnvelope({name, OVCFunctionToolHelper::DataTOjsonString(value),
                                    deviceInfo.userId(), deviceInfo.nextRequestNumber()});
  std::string id = request->requestIdText();
  // Stored before it is sent: from here on the event survives anything.
  cache.addRequest(*request);
  OVRequestManager::shared().enqueueRequest(std::move(request), adaptSuccess(std::move(success)),
                                            std::move(failure));
  return id;
}

void OVAnalytics::registerBigDataWitInfoPlist() {
  auto token = AppToken::load(Bundle::main()).accessToken;
  if (!token) return;
  OVDeviceInfoManager::shared().setAppKey(*token);
  OVDeviceInfoManagerHelper::sharedManager().setNewAppKey(*token);
  MainQueue::shared().after(std::chrono::milliseconds(5000), [this] { runDeferredStart(); });
}

void OVAnalytics::runDeferredStart() {
  auto& manager = OVRequestManager::shared();
  manager.uploadCacheData();
  auto& defaults = platform::Env::standard().userDefaults();
  if (!defaults.boolForKey(kFirstOpenKey)) {
    defaults.setBool(kFirstOpenKey, true);
    uploadBigDataWithType(EventType::firstOpen);
  } else {
    uploadBigDataWithType(EventType::appStart);
  }
  manager.startTimer();
}

std::int64_t OVAnalytics::cachedEventCount(const std::optional<std::string>& requestId) {
  return OVRequestCache::shared().rowCount(requestId);
}

bool OVAnalytics::canSendEvents() const {
  return !OVDeviceInfoManagerHelper::sharedManager().appKey().empty();
}

void OVAnalytics::uploadCachedEvents() { OVRequestManager::shared().uploadCacheData(); }

bool OVAnalytics::isDeliveryIdle() {
  auto& manager = OVRequestManager::shared();
  manager.drainQueue();
  return manager.inFlight() == 0 && manager.queued() == 0;
}

}  // namespace velquin
