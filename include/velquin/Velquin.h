// Velquin: the one object a host application talks to.
//
//   velquin::Bundle::setMainBundlePath("/opt/myapp/share/myapp");  // optional
//   auto& sdk = velquin::Velquin::shared();
//   sdk.configure();
//
// Ownership and threads: a process-wide singleton created on first use of
// shared() and never torn down. Every operation may be called from any
// thread and returns at once; completions run on gRPC's callback threads
// unless an operation says otherwise. Every completion is called exactly
// once, except that a purchase, fetch-receipt or restore completion that is
// still waiting is dropped (never called) when the next call of the same
// kind replaces it. Text arguments must be valid UTF-8 (what the backend's
// messages carry): a call given anything else sends nothing and calls its
// completion at once, on the caller's thread, with a kVelquinErrorDomain
// error (PurchaseErrorCode::invalidText, or invalidUserId for a user id).
// No exception leaves the library.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "velquin/Error.h"
#include "velquin/Export.h"
#include "velquin/Models.h"
#include "velquin/NotificationCenterProvider.h"
#include "velquin/OVPurchase.h"
#include "velquin/PagePresenter.h"
#include "velquin/Providers.h"
#include "velquin/StoreKit.h"

namespace velquin {
class OVAnalytics;

class VELQUIN_EXPORT Velquin {
 public:
  static Velquin& shared();

  OVPurchase& purchases() { return *purchases_; }
  OVAnalytics& analytics() { return *analytics_; }

  // Start-up from the bundle's token file: Init, analytics, GetSubscriber,
  // GetAppConfig. Repeating it repeats the whole chain. The calling thread
  // gets an alternate signal stack (unless it has one), so that a stack
  // overflow on it leaves a crash report.
  void configure();
  // The "[OrventPurchase]" log lines. May be called before shared(), so
  // that the lines of the SDK's creation show too.
  static void setPurchasesLogs(bool enabled);
  // For hosts with their own fault handling (a managed runtime whose SIGSEGV
  // handler turns faults into exceptions): with true, crash capture calls
  // the handler installed before it first, and a fault that handler
  // handles (it moves the instruction or stack pointer, or returns and the
  // fault does not come back) is no crash: no report, the host goes on.
  // Default false: report, then call that handler, then end the process.
  // Call before configure().
  static void setCrashCaptureChainsHostHandlerFirst(bool enabled);
  // Note the inversion: the delivery log switch is set to !enabled.
  void setAnalyticsLogs(bool enabled);
  // How long a normal exit (return from main, exit()) waits for the replies
  // of events in flight, so that the next start does not send them again
  // (default 1000 ms; 0: no wait). Never used when the process crashes.
  // Any thread, at any time.
  static void setExitDrainMilliseconds(long milliseconds);
  // The most events the cache keeps while they cannot be sent (default
  // 500000; 0: no cap); past it the oldest are dropped. Any thread.
  static void setEventCacheCap(long events);

  // The user id held by the device information (empty before start-up set one).
  std::string getAppUserId() const;
  // The experiment tag of the last Init answer; absent until one answered.
  std::optional<std::string> experimentTag() const;
  void uploadUserInfo();
  void uploadUserInfo(const std::optional<std::string>& userId,
                      const nlohmann::json& extraAttribute,
                      std::function<void(bool, std::optional<Error>)> completion);

  void uploadDeviceInfo(const std::string& deviceToken,
                        std::function<void(bool, std::optional<Error>)> completion);

  using AttributionCompletion =
      std::function<void(std::optional<OVAttribution>, std::optional<Error>)>;
  // `data` is sent as compact JSON text.
  void updateAttribution(const nlohmann::json& data, AttributionNetwork source,
                         const std::optional<std::string>& networkUserId,
                         AttributionCompletion completion);
  void updateCustomAttribution(const std::string& channel,
                               const std::optional<std::string>& campaign,
                               const std::optional<std::string>& adGroup,
                               const std::optional<std::string>& creative,
                               const std::optional<std::string>& clickID,
                               AttributionCompletion completion);

  void createASignature(
      const std::string& productId, const std::string& offerId, const std::string& userid,
      std::function<void(std::optional<OVOfferSignatureDetail>, std::optional<Error>)> completion);
  // The host's own event: the name and its parameters (compact JSON in the
  // event's value), delivered durably. Returns the request id.
  std::string uploadBigDataWithType(const std::string& eventName,
                                    const nlohmann::json& params = nlohmann::json::object());

  void getCurrencyRate(const std::string& currencyCode,
                       std::function<void(std::optional<double>, std::optional<Error>)> completion);

  // ---- Products, purchases and entitlements (see OVPurchase for the
  // threads each completion runs on).

  // The product ids configured on the server (cached after start-up).
  void getPurchaseProductIds(OVPurchase::ProductIdsCompletion completion);
  // The store products of the given ids; the completion is optional.
  void getSkuDetails(const std::set<std::string>& productIds,
                     OVPurchase::SkuDetailsCompletion completion = nullptr);
  void purchaseSKProduct(const SKProduct& product, OVPurchase::TransactionCompletion completion);
  void purchaseSKProductWithDiscount(const SKProduct& product,
                                     const SKPaymentDiscount& paymentDiscount,
                                     const std::optional<std::string>& applicationUsername,
                                     OVPurchase::TransactionCompletion completion);
  void purchaseFetchReceiptSKProduct(const SKProduct& product,
                                     OVPurchase::FetchReceiptCompletion completion);
  void addMonitorTransationCompletionHandler(OVPurchase::FetchReceiptCompletion completion);
  void finishTransactions(const std::vector<SKPaymentTransactionPtr>& transactions);
  // Whether the store lets this user pay.
  bool canMakePayment() const;
  void hasActiveSubscription(OVPurchase::SubscriberCompletion completion);
  void restorePurchases(OVPurchase::SubscriberCompletion completion);
  void loadPaywallToPurachase(OVPurchase::PaywallCompletion completion);
  // How promoted purchases are handled, and who hears of them (held weakly).
  void setInAppPurchasePromotingStatus(
      OVPromotingInAppPurchaseStatus status,
      const std::shared_ptr<OVPromotingObserverProtocol>& observer);

  // ---- Host-replaceable providers (see velquin/Providers.h; the store
  // backend is installed with StoreKit::install).

  // Installs the page presenter that shows the paywall and in-app
  // messages (velquin::gtk::install() does this for GTK hosts).
  void setPagePresenter(std::shared_ptr<PagePresenter> presenter);
  void setAdvertisingIdProvider(AdvertisingIdProvider provider);
  void setCarrierProvider(CarrierProvider provider);
  // The main screen, as the host's toolkit reports it.
  void setScreen(const ScreenFacts& screen);

  // The installed page presenter; null in a headless host. Any thread.
  std::shared_ptr<PagePresenter> pagePresenter() const;

  // The welcome page stored by the last GetAppConfig answer
  // ("VelQuinWelcomHtmlData"); absent when none was stored. Any thread.
  std::optional<std::string> storedWelcomePage() const;

  // Asks the backend for the paywall page (GetAppConfig, handled as at
  // start-up so the cache is refreshed); the completion runs once on a gRPC
  // thread with the page (absent when the reply has none) and the error.
  void fetchPaywallPage(
      std::function<void(std::optional<std::string>, std::optional<Error>)> completion);

  // Writes the SDK's purchase log line; only while purchase logs are on.
  void writeLog(const std::string& message) const;

  // ---- Notifications. The SDK becomes the delegate of the user-notification
  // centre on the first of setInAppMesssageAutoShow and
  // setAutoUserNotificationBehaviorDataReporting; from then on each push
  // delivered through receivePushNotification is reported
  // ("ev_clicked_notification") and in-app message announcements are
  // fetched and shown through the page presenter.

  // Sets whether an in-app message announced while the app is in front is
  // shown at once as a page (no desktop notification, no event); starts
  // notification handling the first time.
  void setInAppMesssageAutoShow(bool isAutoShow);
  // Starts notification handling (once), leaving the auto-show flag as it is.
  void setAutoUserNotificationBehaviorDataReporting();
  // Turns auto-show on and handles `userInfo` as an in-app message
  // announcement; true when it was one (the message is then being fetched).
  bool sendUserNotificationCenterMessage(const nlohmann::json& userInfo);
  // Records the "ev_clicked_notification" event for a push payload.
  void sendNotificationUserInfoToBehaviorDataReporting(const nlohmann::json& userInfo);
  // The delay, in seconds, between a tap on a notification and its handling
  // (1.5 unless set).
  void setFromBackgroudPointToDelayTime(double delayTime);
  double fromBackgroudPointToDelayTime() const;

  // The user-notification centre (velquin/NotificationCenterProvider.h):
  // the freedesktop one unless the host installs its own, which it should
  // do before notification handling starts.
  void setUserNotificationCenter(std::shared_ptr<UserNotificationCenter> center);
  std::shared_ptr<UserNotificationCenter> userNotificationCenter() const;
  // The entry through which a host hands the SDK a push payload received on
  // its own channel, as the platform would deliver it: `inFront` when the
  // app is in front. The payload is the notification's user info; its title
  // and body come from "aps" → "alert" ("title", "body", or the alert text
  // as the body) when present. Returns at once; any thread.
  void receivePushNotification(const nlohmann::json& payload, bool inFront);

 private:
  Velquin();
  const std::unique_ptr<OVPurchase> purchases_;   // made first, immutable
  const std::unique_ptr<OVAnalytics> analytics_;  // immutable
};

}  // namespace velquin
