// The composition root: the one place that knows every layer. It creates
// the system's process-wide objects of the lower layers on first use and
// wires what each needs from above: the event client's app key and tag,
// the delivery's device facts, reachability and log switch, the tag
// listener of the process flags, and the notification handler's backend,
// page presenter and analytics.
//
// Every object made here lives for the process and is never torn down.
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "analytics/OVDeviceInfoManager.h"
#include "analytics/OVDeviceInfoManagerHelper.h"
#include "backend/AppToken.h"
#include "backend/GRPCserviceManager.h"
#include "delivery/OVRequestCache.h"
#include "delivery/OVRequestManager.h"
#include "delivery/ZKFMDB.h"
#include "facade/CompositionRoot.h"
#include "notifications/OVNotificationUtil.h"
#include "platform/GApplicationNotifications.h"
#include "platform/Env.h"
#include "purchases/OVPurchaseImpl.h"
#include "support/Mutex.h"
#include "support/OVUtils.h"
#include "velquin/Bundle.h"
#include "velquin/OVAnalytics.h"
#include "velquin/Velquin.h"

namespace velquin {

void wireProcessFlags() {
  static std::once_flag once;
  std::call_once(once, [] {
    // Each new experiment tag also goes into the event calls' headers.
    OVUtils::shared().setTagListener(
        [](const std::string& tag) { OVDeviceInfoManagerHelper::sharedManager().setTag(tag); });
  });
}

OVRequestCache& OVRequestCache::shared() {
  static OVRequestCache* cache = [] {  // lives for the process
    auto* created = new OVRequestCache(ZKFMDB::shareDatabase());
    // Ids are "seconds since 1970 + request counter". Rows left by an
    // earlier run may carry ids past the current second; start the counter
    // beyond them so a new event never shares an id with a cached one (a
    // delivered event deletes its row by id).
    if (auto largest = created->largestRequestId()) {
      auto now = static_cast<std::int64_t>(std::time(nullptr));
      auto& counter = OVDeviceInfoManager::shared().num;
      std::int64_t floor = *largest - now;
      std::int64_t current = counter.load();
      while (floor > current && !counter.compare_exchange_weak(current, floor)) {
      }
    }
    return created;
  }();
  return *cache;
}

std::shared_ptr<OVRequestManager> OVRequestManager::sharedPointer() {
  static auto* instance = new std::shared_ptr<OVRequestManager>([] {  // lives for the process
    wireProcessFlags();
    AppToken token = AppToken::load(Bundle::main());
    Options options;
    options.host = token.apiAddress.value_or(defaultGatewayAddress());
    options.rootCertificates = token.rootCertificates.value_or("");
    options.cache = &OVRequestCache::shared();
    options.isReachable = [] { return OVDeviceInfoManager::shared().objcHelper().isReachable(); };
    options.hasCredentials = [] {
      return !OVDeviceInfoManagerHelper::sharedManager().appKey().empty();
    };
    options.deviceFacts = [] { return OVDeviceInfoManager::shared().deviceFacts(); };
    options.identity = [] {
      auto& info = OVDeviceInfoManager::shared();
      return EventIdentity{info.deviceIdentifier(),
                           info.advertisingIdentifier().value_or(info.idfa()), "", ""};
    };
    options.headers = [] {
      auto& helper = OVDeviceInfoManagerHelper::sharedManager();
      return EventHeaders{helper.appKey(), helper.tag()};
    };
    options.logEnabled = [] { return OVDeviceInfoManager::shared().log.load(); };
    auto manager = create(std::move(options));
    // A normal exit waits, boundedly, for the replies in flight. Registered
    // after the channel exists, so it runs before the TLS library's exit.
    std::atexit([] { OVRequestManager::drainSharedAtExit(); });
    return manager;
  }());
  return *instance;
}

OVRequestManager& OVRequestManager::shared() {
  return *sharedPointer();
}

namespace {

// The orchestrator's analytics: the facade's OVAnalytics, reached when the
// orchestrator first reports (after Init answered), by which time the
// facade exists.
class FacadeAnalytics final : public AnalyticsSink {
 public:
  void startAnalytics() override { Velquin::shared().analytics().registerBigDataWitInfoPlist(); }
  void recordPurchase(const nlohmann::json& params) override {
    Velquin::shared().analytics().uploadBigDataWithType(EventType::inAppPurchase, params);
  }
};

}  // namespace

std::shared_ptr<OVPurchaseImpl> OVPurchaseImpl::sharedPointer() {
  // Kept for the process; callbacks hold it weakly all the same.
  static auto* instance = [] {
    wireProcessFlags();
    return new std::shared_ptr<OVPurchaseImpl>(
        create(platform::Env::standard(), std::make_shared<FacadeAnalytics>()));
  }();
  return *instance;
}

OVPurchaseImpl& OVPurchaseImpl::shared() {
  return *sharedPointer();
}

std::shared_ptr<OVNotificationUtil> OVNotificationUtil::sharedPointer() {
  static auto* instance = new std::shared_ptr<OVNotificationUtil>(  // lives for the process
      std::make_shared<OVNotificationUtil>(Dependencies{
          [] () -> GRPCserviceManager& { return OVPurchaseImpl::shared().networkManager(); },
          [](const std::string& html) -> std::optional<bool> {
            auto presenter = OVPurchaseImpl::shared().pagePresenter();
            if (!presenter) return std::nullopt;
            return presenter->presentInAppMessage(html);
          },
          [](const std::string& name, const nlohmann::json& params) {
            return Velquin::shared().analytics().uploadBigDataWithEvent(name, params);
          }}));
  return *instance;
}

OVNotificationUtil& OVNotificationUtil::shared() {
  return *sharedPointer();
}

namespace {

struct NotificationCenterSlot {
  support::Mutex mutex;
  std::shared_ptr<UserNotificationCenter> center GUARDED_BY(mutex);
};

NotificationCenterSlot& notificationCenterSlot() {
  static auto* slot = new NotificationCenterSlot();  // lives for the process
  return *slot;
}

}  // namespace

std::shared_ptr<UserNotificationCenter> currentUserNotificationCenter() {
  auto& slot = notificationCenterSlot();
  support::MutexLock lock(slot.mutex);
  if (!slot.center) slot.center = platform::createDesktopNotificationCenter();
  return slot.center;
}

void installUserNotificationCenter(std::shared_ptr<UserNotificationCenter> center) {
  auto& slot = notificationCenterSlot();
  support::MutexLock lock(slot.mutex);
  slot.center = std::move(center);
}

}  // namespace velquin
