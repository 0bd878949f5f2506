// Backend subscriber replies become the host's subscriber values.
#include <gtest/gtest.h>

#include "SubscriberRoot.pb.h"
#include "purchases/SubscriberConversion.h"
#include "support/OVUtils.h"

namespace velquin {
namespace {

iap::Subscription subscription(const std::string& product, int state, int subState) {
  iap::Subscription s;
  s.set_product_id(product);
  s.mutable_state()->set_state(static_cast<iap::SubscriptionState::State>(state));
  s.mutable_state()->set_sub_state(static_cast<iap::SubscriptionState::SubState>(subState));
  return s;
}

TEST(SubscriberModel, OnlyTheFirstEntitlementDecidesAndUpdatesTheFlag) {
  OVUtils::shared().isActive = true;
  iap::Subscriber reply;
  auto* first = reply.add_entitlements();
  first->set_id("pro");
  first->set_product_id("monthly");
  first->set_expire_at(1700000000000);
  first->set_is_active(false);
  auto* second = reply.add_entitlements();
  second->set_id("extra");
  second->set_is_active(true);
  *reply.add_subscriptions() = subscription("monthly", 5, 1);

  auto subscriber = subscriberFromReply(reply);
  EXPECT_FALSE(subscriber.isActive);
  EXPECT_FALSE(OVUtils::shared().isActive);
  EXPECT_EQ(subscriber.productId, "monthly");
  EXPECT_EQ(subscriber.expireAt, 1700000000000);
  ASSERT_EQ(subscriber.ovEntitlements.size(), 2u);
  EXPECT_TRUE(subscriber.ovEntitlements[1].isActive);
  ASSERT_EQ(subscriber.ovSubscriptions.size(), 1u);
  EXPECT_EQ(subscriber.ovSubscriptions[0].status, OVSubscriberStatus::ActiveAutoRenOn);
  EXPECT_EQ(subscriber.ovSubscriptions[0].subStatus, OVSubscriberSubStatus::FreeTrial);
}

TEST(SubscriberModel, NoEntitlementsMeansTheEmptySubscriberAndAnUntouchedFlag) {
  OVUtils::shared().isActive = true;
  iap::Subscriber reply;
  *reply.add_subscriptions() = subscription("a", 5, 0);
  *reply.add_subscriptions() = subscription("b", 4, 0);
  auto subscriber = subscriberFromReply(reply);
  EXPECT_TRUE(subscriber.ovSubscriptions.empty());
  EXPECT_FALSE(subscriber.isActive);
  EXPECT_EQ(subscriber.productId, "");
  EXPECT_TRUE(OVUtils::shared().isActive);
}

TEST(SubscriberModel, UnknownStatesFallBack) {
  EXPECT_EQ(subscriptionFromReply(subscription("p", 7, 0)).status,
            OVSubscriberStatus::MissingPurchInfo);
  EXPECT_EQ(subscriptionFromReply(subscription("p", -10, 0)).status,
            OVSubscriberStatus::MissingPurchInfo);
  EXPECT_EQ(subscriptionFromReply(subscription("p", -9, 0)).status,
            OVSubscriberStatus::ExpiredWithPause);
  EXPECT_EQ(subscriptionFromReply(subscription("p", 0, 4)).subStatus,
            OVSubscriberSubStatus::StandardSub);
  EXPECT_EQ(subscriptionFromReply(subscription("p", 0, -1)).subStatus,
            OVSubscriberSubStatus::StandardSub);
  EXPECT_EQ(subscriptionFromReply(subscription("p", 0, 3)).subStatus,
            OVSubscriberSubStatus::SubOffer);

  EXPECT_TRUE(subscriberStatusFromRaw(-9));
  EXPECT_FALSE(subscriberStatusFromRaw(-10));
  EXPECT_FALSE(subscriberStatusFromRaw(7));
  EXPECT_FALSE(subscriberSubStatusFromRaw(4));
  EXPECT_FALSE(promotingStatusFromRaw(3));
  EXPECT_TRUE(promotingStatusFromRaw(2));
}

TEST(SubscriberModel, OriginalTransactionsKeepTheirOrder) {
  auto s = subscription("p", 5, 0);
  s.set_will_renew_to("yearly");
  s.set_cancel_at(5);
  for (int i = 0; i < 3; ++i) {
    auto* original = s.add_original_transactions();
    original->set_original_txid("tx" + std::to_string(i));
    original->set_start_at(i);
    original->set_renewals(9);
  }
  auto mapped = subscriptionFromReply(s);
  ASSERT_EQ(mapped.originalTransactions.size(), 3u);
  EXPECT_EQ(mapped.originalTransactions[2].originalTxid, "tx2");
  EXPECT_EQ(mapped.willRenewTo, "yearly");
  EXPECT_EQ(mapped.cancelAt, 5);
}

TEST(SubscriberModel, KeyedCodingIsStrict) {
  OVEntitlement entitlement{"pro", 42, true, "monthly"};
  nlohmann::json encoded = entitlement;
  EXPECT_EQ(encoded.get<OVEntitlement>(), entitlement);

  auto wrongType = encoded;
  wrongType["isActive"] = 1;
  EXPECT_THROW(wrongType.get<OVEntitlement>(), nlohmann::json::exception);
  auto missing = encoded;
  missing.erase("productId");
  EXPECT_THROW(missing.get<OVEntitlement>(), nlohmann::json::exception);

  OVSubscriptionOriginalTransaction original{"tx", 1, 2};
  nlohmann::json encodedOriginal = original;
  EXPECT_EQ(encodedOriginal.get<OVSubscriptionOriginalTransaction>(), original);
  encodedOriginal["startAt"] = "1";
  OVSubscriptionOriginalTransaction target{"kept", 7, 7};
  EXPECT_THROW(from_json(encodedOriginal, target), nlohmann::json::exception);
  EXPECT_EQ(target.originalTxid, "kept");  // nothing partly decoded
}

TEST(SubscriberModel, KeyedEncodingKeepsTheListedKeyOrder) {
  EXPECT_EQ(nlohmann::ordered_json(OVEntitlement{"pro", 42, true, "monthly"}).dump(),
            R"({"id":"pro","expireAt":42,"isActive":true,"productId":"monthly"})");
  EXPECT_EQ(nlohmann::ordered_json(OVSubscriptionOriginalTransaction{"tx", 1, 2}).dump(),
            R"({"originalTxid":"tx","startAt":1,"expireAt":2})");
  auto decoded = nlohmann::ordered_json::parse(
                     R"({"id":"a","expireAt":1,"isActive":false,"productId":"p"})")
                     .get<OVEntitlement>();
  EXPECT_EQ(decoded, (OVEntitlement{"a", 1, false, "p"}));
}

}  // namespace
}  // namespace velquin
