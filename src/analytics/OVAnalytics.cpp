#include "velquin/OVAnalytics.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <vector>

#include "analytics/OVDeviceInfoManager.h"
#include "analytics/OVDeviceInfoManagerHelper.h"
#include "backend/AppToken.h"
#include "crash/CrashReporter.h"
#include "crash/OVUncaughtExceptionHandler.h"
#include "delivery/EventEnvelope.h"
#include "delivery/OVRequestCache.h"
#include "delivery/OVRequestManager.h"
#include "platform/Env.h"
#include "support/Console.h"
#include "support/Utf8.h"
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

constexpr const char* kAnalyticsErrorDomain = "velquin-analytics";

// The nesting depth of `value`, walked without recursion (a hostile value
// may nest deeper than the stack allows); stops counting past `limit`.
int nestingDepth(const nlohmann::json& value, int limit) {
  std::vector<std::pair<const nlohmann::json*, int>> todo{{&value, 1}};
  int deepest = 0;
  while (!todo.empty()) {
    auto [node, depth] = todo.back();
    todo.pop_back();
    if (!node->is_structured()) continue;
    deepest = std::max(deepest, depth);
    if (deepest > limit) return deepest;
    for (const auto& child : *node) todo.emplace_back(&child, depth + 1);
  }
  return deepest;
}

// Why an event cannot be taken, if it cannot; otherwise `text` is the
// parameters' compact JSON.
std::optional<std::string> checkEventInput(const std::optional<std::string>& name,
                                           const nlohmann::json& params,
                                           std::optional<std::string>& text) {
  try {
    if (name) (void)nlohmann::json(*name).dump();
  } catch (const nlohmann::json::exception&) {
    return std::string("the event name is not valid UTF-8");
  }
  if (nestingDepth(params, OVAnalytics::kMaxParameterDepth) > OVAnalytics::kMaxParameterDepth) {
    return "the event parameters nest deeper than " +
           std::to_string(OVAnalytics::kMaxParameterDepth) + " levels";
  }
  try {
    text = params.dump();
  } catch (const nlohmann::json::exception&) {
    return std::string("the event parameters are not valid UTF-8");
  }
  if (text->size() > OVAnalytics::kMaxParameterBytes) {
    return "the event parameters are " + std::to_string(text->size()) +
           " bytes of JSON, more than the " + std::to_string(OVAnalytics::kMaxParameterBytes) +
           " an event may carry";
  }
  return std::nullopt;
}

// Stores one event (name and value text as they are) in the cache and hands
// it to the request manager.
OVEventReceipt submitEvent(const std::optional<std::string>& name,
                           std::optional<std::string> valueText,
                           OVRequestManager::SuccessBlock success,
                           OVAnalytics::FailureBlock failure) {
  OVEventReceipt receipt;
  // The cache first: opening it moves the request counter past the ids of
  // rows an earlier run left behind.
  OVRequestCache::shared();
  // From here until the event is queued, replies leave their deletes to
  // this event's insert instead of holding it up with their own.
  OVRequestManager::CallerScope producing(OVRequestManager::shared());
  auto& deviceInfo = OVDeviceInfoManager::shared();
  auto request = makeEventEnvelope(
      {name, std::move(valueText), deviceInfo.userId(), deviceInfo.nextRequestNumber()});
  receipt.requestId = request->requestIdText();
  // Stored before it is sent: from here on the event survives anything.
  receipt.stored =
      OVRequestManager::shared().submit(std::move(request), std::move(success), std::move(failure));
  return receipt;
}

// The uncaught-exception hook's record: a "falal_crash" row in the cache,
// sent at the next start. Runs on the dying thread. True only when the row
// is committed; otherwise the crash engine reports the abort instead.
bool writeExceptionRecord(const std::string& record) noexcept {
  try {
    auto& cache = OVRequestCache::shared();
    auto& deviceInfo = OVDeviceInfoManager::shared();
    return cache.writeFatalCrash(record, deviceInfo.userId(), deviceInfo.nextRequestNumber());
  } catch (...) {  // the process is ending either way
    return false;
  }
}

// Installs the uncaught-exception hook and arms the crash engine; a report
// the previous run left becomes one "fatal_crash" event whose value is the
// report's text. True when such an event was stored.
bool armCrashCapture() {
  OVUncaughtExceptionHandler::install(&writeExceptionRecord);
  bool stored = false;
  CrashReporter().startCrashReporter(
      [&stored](const std::optional<std::string>& text, const std::optional<Error>&) {
        if (!text) return;  // unreadable: printed and purged by the reporter
        // Protocol-buffer text must be UTF-8: stray bytes (a symbol from a
        // damaged binary) become U+FFFD rather than costing the report.
        const std::string value = support::makeValidUtf8(*text);
        stored =
            submitEvent(std::string(eventName(EventType::fatalCrash)), value, nullptr, nullptr)
                .stored;
      });
  return stored;
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
  return recordEvent(name, params, std::move(success), std::move(failure)).requestId;
}

OVEventReceipt OVAnalytics::recordEvent(const std::optional<std::string>& name,
                                        const nlohmann::json& params, SuccessBlock success,
                                        FailureBlock failure) {
  OVEventReceipt receipt;
  // No copy of the caller's value: copying is recursive, and the value may
  // nest deeper than the stack allows until it has been checked.
  static const nlohmann::json kNoParameters = nlohmann::json::object();
  const nlohmann::json& value = params.is_null() ? kNoParameters : params;
  std::optional<std::string> valueText;
  if (auto problem = checkEventInput(name, value, valueText)) {
    receipt.refused = Error{kAnalyticsErrorDomain, 1, *problem};
    support::warn("event refused: " + *problem);
    if (failure) failure(*receipt.refused);
    return receipt;
  }
  return submitEvent(name, std::move(valueText), adaptSuccess(std::move(success)),
                     std::move(failure));
}

void OVAnalytics::registerBigDataWitInfoPlist() {
  auto token = AppToken::load(Bundle::main()).accessToken;
  if (!token) return;
  OVDeviceInfoManager::shared().setAppKey(*token);
  // Crash capture is armed before the event client gets the key, so once
  // canSendEvents() is true crashes are captured and the previous run's
  // report is in the cache. Once per process, however often start-up runs.
  static std::once_flag crashCaptureArmed;
  bool crashReportStored = false;
  std::call_once(crashCaptureArmed, [&] { crashReportStored = armCrashCapture(); });
  OVDeviceInfoManagerHelper::sharedManager().setNewAppKey(*token);
  // A crash report goes out now, not with the deferred start's upload.
  if (crashReportStored) OVRequestManager::shared().uploadCacheData();
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

void OVAnalytics::checkpointEventCache() { OVRequestCache::shared().checkpoint(); }

bool OVAnalytics::isDeliveryIdle() {
  auto& manager = OVRequestManager::shared();
  manager.drainQueue();
  return manager.inFlight() == 0 && manager.queued() == 0;
}

}  // namespace velquin
