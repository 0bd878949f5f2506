// Analytics: named events with their parameters, delivered durably (written
// to the local event cache first, then sent; nothing is lost to a failed
// send or a killed process), and the start-of-session event.
//
// Ownership and threads: made by the Velquin facade and kept for the
// process. Every member may be called from any thread and returns once the
// event is in the cache; the blocks run on gRPC's callback threads, at most
// once per send attempt.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "velquin/Error.h"
#include "velquin/Export.h"

namespace velquin {

// The backend's answer to one event.
struct VELQUIN_EXPORT OVEventResponse {
  bool status = false;
};

// Event types and the names the backend receives for them.
enum class EventType : int {
  firstOpen = 0,       // "ev_first_open"
  appStart = 1,        // "ev_app_start"
  screenView = 2,      // "ev_scree_view"
  adsClick = 3,        // "ev_ads_click"
  adsShow = 4,         // "ev_ads_show"
  adsRequest = 5,      // "ev_ads_request"
  inAppPurchase = 6,   // "ev_in_app_purchases"
  userEngagement = 7,  // "ev_user_engagement"
  nonFatalCrash = 8,   // "non_fatal_crash"
  fatalCrash = 9,      // "fatal_crash"
  viewPaywall = 10,    // "ev_view_paywall"
};
VELQUIN_EXPORT const char* eventName(EventType type);

enum class ParamScreenType {
  paramScreenNono = 0,
  paramScreenHome,
  paramScreenSet,
  eParamScreenLock
};
enum class ParamPlaceType {
  paramPlaceNono = 0,
  paramPlaceClean,
  paramPlaceBoost,
  paramPlaceInstall
};
enum class ParamAdSouceType {
  paramAdSouceNono = 0,
  paramAdSouceFacebook,
  paramAdSouceAdmob,
  paramAdSouceMobpup
};
enum class ParamFormatType { paramFormatNono = 0, paramFormatBanner, paramFormatInterstitial };

// Typed event parameters. toDictionary() starts from otherData and then sets
// "screeen_name", "splacement", "ad_source" and "format" for every field
// that is not its "Nono" case (a typed field wins over otherData).
struct VELQUIN_EXPORT ParamModel {
  ParamScreenType screenType = ParamScreenType::paramScreenNono;
  ParamPlaceType placeType = ParamPlaceType::paramPlaceNono;
  ParamAdSouceType adsouceType = ParamAdSouceType::paramAdSouceNono;
  ParamFormatType formatType = ParamFormatType::paramFormatNono;
  nlohmann::json otherData = nlohmann::json::object();

  nlohmann::json toDictionary() const;
};

// What recordEvent() did with one event.
struct VELQUIN_EXPORT OVEventReceipt {
  std::string requestId;         // empty when the event was refused
  // True when the event is in the local cache and survives this process;
  // false when the cache could not be written: the event is then sent from
  // memory only (or, before start-up has the app key, not at all).
  bool stored = false;
  std::optional<Error> refused;  // the event was refused: nothing stored, nothing sent
};

class VELQUIN_EXPORT OVAnalytics {
 public:
  using SuccessBlock = std::function<void(const OVEventResponse&)>;
  using FailureBlock = std::function<void(const Error&)>;

  // Limits checked before anything is stored: the nesting depth of the
  // parameters and the size of their JSON text (the backend refuses
  // messages over 4 MB).
  static constexpr int kMaxParameterDepth = 64;
  static constexpr std::size_t kMaxParameterBytes = 1024 * 1024;

  // Sends one event durably. Refused (with `refused` set, the failure
  // block called once, nothing stored) when the name or parameters are not
  // valid UTF-8, the parameters nest deeper than kMaxParameterDepth or their
  // JSON text is longer than kMaxParameterBytes.
  OVEventReceipt recordEvent(const std::optional<std::string>& eventName,
                             const nlohmann::json& params = nlohmann::json::object(),
                             SuccessBlock success = nullptr, FailureBlock failure = nullptr);

  // Each returns the request id of the stored event (empty when refused,
  // see recordEvent).
  std::string uploadBigDataWithType(EventType type, const ParamModel& paramModel,
                                    SuccessBlock success = nullptr, FailureBlock failure = nullptr);
  std::string uploadBigDataWithType(EventType type,
                                    const nlohmann::json& params = nlohmann::json::object(),
                                    SuccessBlock success = nullptr, FailureBlock failure = nullptr);
  // A free event name; the parameters travel as compact JSON in the event's value.
  std::string uploadBigDataWithEvent(const std::optional<std::string>& eventName,
                                     const nlohmann::json& params = nlohmann::json::object(),
                                     SuccessBlock success = nullptr,
                                     FailureBlock failure = nullptr);

  // Start-up hook: reads "access_token" from the token file and, when there
  // is one, arms crash capture (once per process: the uncaught-exception
  // hook and the crash engine; a crash report the previous run left is sent
  // as one "fatal_crash" event carrying the report's text), hands the key to
  // the event client and, 5 s later on the main queue,
  // uploads what the cache holds, sends "ev_first_open" (first start of the
  // app) or "ev_app_start", and starts the 60-second re-send timer.
  void registerBigDataWitInfoPlist();
  // The deferred part of the start, run at once (tests, tools).
  void runDeferredStart();

  // ---- The local event cache and its delivery, for hosts that want to
  // send what is cached before they exit (e.g. a command-line host).

  // Rows in the local event cache; with an id, the rows carrying it.
  std::int64_t cachedEventCount(const std::optional<std::string>& requestId = std::nullopt);
  // True once start-up has handed the app key to the event client (crash
  // capture is armed by then); before that, events wait in the cache.
  bool canSendEvents() const;
  // Queues every cached event for sending now, as the 60-second timer does.
  void uploadCachedEvents();
  // True when no event is waiting for a call slot or in flight.
  bool isDeliveryIdle();
  // Moves what the cache's write-ahead log holds into the database file;
  // for a host about to exit.
  void checkpointEventCache();
};

}  // namespace velquin
