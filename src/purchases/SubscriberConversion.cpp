#include "purchases/SubscriberConversion.h"

#include "support/OVUtils.h"

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

OVSubscriber subscriberFromReply(const iap::Subscriber& reply) {
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

}  // namespace velquin
