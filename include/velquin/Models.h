// Value types handed to the host. Plain values: copy freely, any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "velquin/Export.h"

namespace velquin {

// How a purchase that the store promotes is handled (raw values 0-2).
enum class OVPromotingInAppPurchaseStatus : std::int32_t {
  proceed = 0,            // the store goes on with the payment at once
  deferred = 1,           // the app adds the payment itself later
  deferredToObserver = 2  // the app's observer decides, then adds the payment
};
VELQUIN_EXPORT std::optional<OVPromotingInAppPurchaseStatus> promotingStatusFromRaw(
    std::int32_t raw);

// The signed parameters of a promotional offer, as the backend made them.
struct VELQUIN_EXPORT OVOfferSignatureDetail {
  std::string keyIdentifier;
  std::string nonce;
  std::string signature;
  std::int64_t timestamp = 0;
};

// Attribution networks; the raw value is what the host passes. Only 0-5 are
// valid; any other raw value names no network.
enum class AttributionNetwork : std::uint32_t {
  adjust = 0,
  appsflyer = 1,
  branch = 2,
  appleSearchAds = 3,
  facebook = 4,
  custom = 5,
};
// The network's wire name ("adjust", ..., "custom"); empty for raw values past 5.
VELQUIN_EXPORT std::string attributionSourceName(AttributionNetwork network);

// The backend's answer to an attribution update: what it attributed the
// install to. Texts are empty when the backend sent none.
struct VELQUIN_EXPORT OVAttribution {
  std::string appId;
  std::string advertiserId;
  std::string appUserId;
  std::string attributionSource;
  std::string acquisitionSource;
  std::string acquisitionCampaign;
  std::string acquisitionLander;
  std::string acquisitionCountry;
  std::string acquisitionVar1;
  std::string acquisitionVar2;
  std::string acquisitionVar3;
  std::string adEventId;
  std::string trackerId;
  std::int64_t clickTime = 0;
};

}  // namespace velquin
