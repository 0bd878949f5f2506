// What the backend says a user is entitled to, handed to the host's
// completions. Plain values: copy freely, read from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <nlohmann/json.hpp>

#include "velquin/Export.h"

namespace velquin {

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
};

// Keyed encoding of the two encodable types, for either JSON flavour:
// keys in the order listed above (an nlohmann::ordered_json keeps it; the
// plain nlohmann::json sorts keys). Decoding reads each key with its exact
// type; a missing key or a wrong type fails the whole decode with the JSON
// library's exception, and nothing partly decoded survives.
namespace detail {
template <class T, class Json>
T strictValue(const Json& json, const char* key) {
  const auto& value = json.at(key);
  bool fits;
  if constexpr (std::is_same_v<T, bool>) {
    fits = value.is_boolean();
  } else if constexpr (std::is_integral_v<T>) {
    fits = value.is_number_integer();
  } else {
    fits = value.is_string();
  }
  if (!fits) {
    throw nlohmann::json::type_error::create(302, std::string(key) + " has the wrong type", &value);
  }
  return value.template get<T>();
}
}  // namespace detail

template <class Json>
void to_json(Json& json, const OVEntitlement& value) {
  json = Json::object();
  json["id"] = value.id;
  json["expireAt"] = value.expireAt;
  json["isActive"] = value.isActive;
  json["productId"] = value.productId;
}

template <class Json>
void from_json(const Json& json, OVEntitlement& value) {
  OVEntitlement decoded;
  decoded.id = detail::strictValue<std::string>(json, "id");
  decoded.expireAt = detail::strictValue<std::int64_t>(json, "expireAt");
  decoded.isActive = detail::strictValue<bool>(json, "isActive");
  decoded.productId = detail::strictValue<std::string>(json, "productId");
  value = std::move(decoded);
}

template <class Json>
void to_json(Json& json, const OVSubscriptionOriginalTransaction& value) {
  json = Json::object();
  json["originalTxid"] = value.originalTxid;
  json["startAt"] = value.startAt;
  json["expireAt"] = value.expireAt;
}

template <class Json>
void from_json(const Json& json, OVSubscriptionOriginalTransaction& value) {
  OVSubscriptionOriginalTransaction decoded;
  decoded.originalTxid = detail::strictValue<std::string>(json, "originalTxid");
  decoded.startAt = detail::strictValue<std::int64_t>(json, "startAt");
  decoded.expireAt = detail::strictValue<std::int64_t>(json, "expireAt");
  value = std::move(decoded);
}

}  // namespace velquin
