#include "velquin/Subscriber.h"

#include "SubscriberRoot.pb.h"
#include "facade/OVUtils.h"

namespace velquin {

std::optional<OVSubscriberStatus> subscriberStatusFromRaw(std::int32_t raw) {
  if (raw < -9 || raw > 6) return std::nullopt;
  return static_cast<OVSubscriberStatus>(raw);
}

std::optional<OVSubscriberSubStatus> subscriberSubStatusFromRaw(std::int32_t raw) {
  if (raw < 0 || raw > 3) return std::nullopt;
  return static_cast<OVSubscriberSubStatus>(raw);
}

OVSubscription subscriptionFromReply(const iap::Subscription& reply) {
  OVSubscription subscription;
  subscription.productId = reply.product_id();
  subscription.status = subscriberStatusFromRaw(static_cast<std::int32_t>(reply.state().state()))
                            .value_or(OVSubscriberStatus::MissingPurchInfo);
  // Compared as unsigned: a negative sub-state becomes StandardSub too.
  auto subState = static_cast<std::uint32_t>(reply.state().sub_state());
  subscription.subStatus = subState < 4 ? static_cast<OVSubscriberSubStatus>(subState)
                                        : OVSubscriberSubStatus::StandardSub;
  subscription.expireAt = reply.expire_at();
  subscription.cancelAt = reply.cancel_at();
  subscription.willRenewTo = reply.will_renew_to();
  for (const auto& original : reply.original_transactions()) {
    subscription.originalTransactions.push_back(
        {original.original_txid(), original.start_at(), original.expire_at()});
  }
  return subscription;
}

OVSubscriber OVSubscriber::fromReply(const iap::Subscriber& reply) {
  OVSubscriber subscriber;
  // Without entitlements the subscriptions are not read at all.
  if (reply.entitlements().empty()) return subscriber;
  const auto& first = reply.entitlements(0);
  OVUtils::shared().isActive = first.is_active();
  subscriber.productId = first.product_id();
  subscriber.expireAt = first.expire_at();
  subscriber.isActive = first.is_active();
  for (const auto& entitlement : reply.entitlements()) {
    subscriber.ovEntitlements.push_back({entitlement.id(), entitlement.expire_at(),
                                         entitlement.is_active(), entitlement.product_id()});
  }
  for (const auto& subscription : reply.subscriptions()) {
    subscriber.ovSubscriptions.push_back(subscriptionFromReply(subscription));
  }
  return subscriber;
}

void to_json(nlohmann::json& json, const OVEntitlement& value) {
  json = nlohmann::json{{"id", value.id},
                        {"expireAt", value.expireAt},
                        {"isActive", value.isActive},
                        {"productId", value.productId}};
}

namespace {
// Reads `key` with exactly the JSON type of T; anything else throws.
template <class T>
T strict(const nlohmann::json& json, const char* key) {
  const auto& value = json.at(key);
  if constexpr (std::is_same_v<T, bool>) {
    if (!value.is_boolean()) throw nlohmann::json::type_error::create(302, std::string(key) + " is not a boolean", &value);
  } else if constexpr (std::is_integral_v<T>) {
    if (!value.is_number_integer()) throw nlohmann::json::type_error::create(302, std::string(key) + " is not an integer", &value);
  } else {
    if (!value.is_string()) throw nlohmann::json::type_error::create(302, std::string(key) + " is not a string", &value);
  }
  return value.get<T>();
}
}  // namespace

void from_json(const nlohmann::json& json, OVEntitlement& value) {
  OVEntitlement decoded;
  decoded.id = strict<std::string>(json, "id");
  decoded.expireAt = strict<std::int64_t>(json, "expireAt");
  decoded.isActive = strict<bool>(json, "isActive");
  decoded.productId = strict<std::string>(json, "productId");
  value = std::move(decoded);  // nothing partly decoded survives a failure
}

void to_json(nlohmann::json& json, const OVSubscriptionOriginalTransaction& value) {
  json = nlohmann::json{
      {"originalTxid", value.originalTxid}, {"startAt", value.startAt}, {"expireAt", value.expireAt}};
}

void from_json(const nlohmann::json& json, OVSubscriptionOriginalTransaction& value) {
  OVSubscriptionOriginalTransaction decoded;
  decoded.originalTxid = strict<std::string>(json, "originalTxid");
  decoded.startAt = strict<std::int64_t>(json, "startAt");
  decoded.expireAt = strict<std::int64_t>(json, "expireAt");
  value = std::move(decoded);
}

}  // namespace velquin
