// What the backend says a user is entitled to, handed to the host's
// completions. Plain values: copy freely, read from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "velquin/Export.h"

namespace velquin {
namespace iap {
class Subscriber;
class Subscription;
}  // namespace iap

// The state of a store subscription; the raw value is the backend's.
// Negative: ended; positive: live or in grace; zero: no purchase information.
enum class OVSubscriberStatus : std::int32_t {
  ExpiredWithPause = -9,
  OtherRefund = -8,
  IssueRefund = -7,
  Upgraded = -6,
  ExpVoluntarily = -5,
  ProdNotAvailable = -4,
  FailToAcceptIncrease = -3,
  ExpiredFromBilling = -2,
  ExpiredInRetry = -1,
  MissingPurchInfo = 0,
  ExpiredInGrace = 1,
  OffPlatformSub = 2,
  NonRenSub = 3,
  ActiveAutoRenOff = 4,
  ActiveAutoRenOn = 5,
  ActiveButPause = 6,
};
VELQUIN_EXPORT std::optional<OVSubscriberStatus> subscriberStatusFromRaw(std::int32_t raw);

enum class OVSubscriberSubStatus : std::int32_t {
  StandardSub = 0,
  FreeTrial = 1,
  Introductory = 2,
  SubOffer = 3,
};
VELQUIN_EXPORT std::optional<OVSubscriberSubStatus> subscriberSubStatusFromRaw(std::int32_t raw);

struct VELQUIN_EXPORT OVEntitlement {
  std::string id;
  std::int64_t expireAt = 0;  // in the backend's unit
  bool isActive = false;
  std::string productId;
  bool operator==(const OVEntitlement&) const = default;
};

struct VELQUIN_EXPORT OVSubscriptionOriginalTransaction {
  std::string originalTxid;
  std::int64_t startAt = 0;
  std::int64_t expireAt = 0;
  bool operator==(const OVSubscriptionOriginalTransaction&) const = default;
};

struct VELQUIN_EXPORT OVSubscription {
  std::string productId;
  OVSubscriberStatus status = OVSubscriberStatus::MissingPurchInfo;
  OVSubscriberSubStatus subStatus = OVSubscriberSubStatus::StandardSub;
  std::int64_t expireAt = 0;
  std::int64_t cancelAt = 0;
  std::string willRenewTo;
  std::vector<OVSubscriptionOriginalTransaction> originalTransactions;
};

// productId, expireAt and isActive are those of the first entitlement. The
// default value is the empty subscriber every failure hands over.
struct VELQUIN_EXPORT OVSubscriber {
  std::string productId;
  std::int64_t expireAt = 0;
  bool isActive = false;
  std::vector<OVEntitlement> ovEntitlements;
  std::vector<OVSubscription> ovSubscriptions;

  // Builds the subscriber from a backend reply. With entitlements, the first
  // one's activity is written to the process flag OVUtils::isActive.
  static OVSubscriber fromReply(const iap::Subscriber& reply);
};

OVSubscription subscriptionFromReply(const iap::Subscription& reply);

// Keyed encoding of the two encodable types: keys in the order listed above;
// decoding fails as a whole on a missing key or a wrong type (the JSON
// library's exception, caught by the callers of these functions).
VELQUIN_EXPORT void to_json(nlohmann::json& json, const OVEntitlement& value);
VELQUIN_EXPORT void from_json(const nlohmann::json& json, OVEntitlement& value);
VELQUIN_EXPORT void to_json(nlohmann::json& json, const OVSubscriptionOriginalTransaction& value);
VELQUIN_EXPORT void from_json(const nlohmann::json& json, OVSubscriptionOriginalTransaction& value);

}  // namespace velquin
