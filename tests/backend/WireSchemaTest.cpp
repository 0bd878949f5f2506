// The wire format the backend reads: replies captured as bytes decode as the
// backend meant them, and the fields that are easy to number wrongly land on
// the right numbers.
#include <gtest/gtest.h>

#include <string>

#include "AttributionRoot.pb.h"
#include "EventRoot.pb.h"
#include "NotificationRoot.pb.h"
#include "SubscriberRoot.pb.h"

namespace {

std::string bytes(std::initializer_list<int> values) {
  std::string out;
  for (int v : values) out.push_back(static_cast<char>(v));
  return out;
}

using velquin::iap::Subscriber;
using velquin::iap::SubscriptionState;

TEST(WireSchema, SubscriberReplyWithNegativeAndUnknownStatesDecodes) {
  // Subscriber { subscriptions { product_id: "p" state { state: -9 sub_state: 2 } }
  //              subscriptions { state { state: 7 } } }
  // -9 travels as a ten-byte varint.
  std::string captured = bytes({0x12, 0x12, 0x12, 0x01, 'p', 0x1a, 0x0d, 0x08, 0xf7, 0xff, 0xff,
                                0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01, 0x10, 0x02, 0x12, 0x04,
                                0x1a, 0x02, 0x08, 0x07});
  Subscriber reply;
  ASSERT_TRUE(reply.ParseFromString(captured));
  ASSERT_EQ(reply.subscriptions_size(), 2);
  EXPECT_EQ(reply.subscriptions(0).product_id(), "p");
  EXPECT_EQ(reply.subscriptions(0).state().state(), SubscriptionState::ExpiredWithPause);
  EXPECT_EQ(static_cast<int>(reply.subscriptions(0).state().state()), -9);
  EXPECT_EQ(reply.subscriptions(0).state().sub_state(), SubscriptionState::Introductory);
  // An open enum keeps a number it does not know.
  EXPECT_EQ(static_cast<int>(reply.subscriptions(1).state().state()), 7);
  EXPECT_TRUE(reply.entitlements().empty());
}

TEST(WireSchema, EnumValuesMatchTheBackend) {
  EXPECT_EQ(SubscriptionState::MissingPurchInfo, 0);
  EXPECT_EQ(SubscriptionState::ExpiredInRetry, -1);
  EXPECT_EQ(SubscriptionState::OtherRefund, -8);
  EXPECT_EQ(SubscriptionState::ExpiredInGrace, 1);
  EXPECT_EQ(SubscriptionState::ActiveAutoRenOn, 5);
  EXPECT_EQ(SubscriptionState::ActiveButPause, 6);
  EXPECT_EQ(SubscriptionState::SubOffer, 3);
  EXPECT_EQ(velquin::iap::Stripe, 2);
  // Declaration order is kept (the backend's schema lists them this way).
  const auto* states = SubscriptionState::State_descriptor();
  ASSERT_EQ(states->value_count(), 16);
  EXPECT_EQ(states->value(9)->name(), "ExpiredWithPause");
  EXPECT_EQ(states->value(10)->name(), "ActiveButPause");
  EXPECT_EQ(states->value(15)->name(), "ExpiredInGrace");
}

TEST(WireSchema, EventParamIsFieldThirteen) {
  protocol::Event event;
  event.set_param("x");
  EXPECT_EQ(event.SerializeAsString(), bytes({0x6a, 0x01, 'x'}));  // (13 << 3) | 2

  protocol::EventRequest request;
  request.set_sdkversion("1.0.15");
  request.set_acquisition_campaign("c");
  request.set_timestamp(1700000000123);
  std::string wire = request.SerializeAsString();
  EXPECT_NE(wire.find(bytes({0x4a, 0x06})), std::string::npos);  // sdkversion = 9
  EXPECT_NE(wire.find(bytes({0x52, 0x01, 'c'})), std::string::npos);  // campaign = 10
  EXPECT_EQ(wire[0], 0x08);  // timestamp = 1, varint
}

TEST(WireSchema, PricesAreThirtyTwoBitFloats) {
  velquin::iap::ProductInfo info;
  info.set_regular_price(9.99f);
  auto* discount = info.add_discounts();
  discount->set_discount_id("d");
  discount->set_discount_price(1.5f);
  std::string wire = info.SerializeAsString();
  // Field 3 with wire type 5 (fixed32), then four bytes.
  ASSERT_EQ(wire.substr(0, 1), bytes({0x1d}));
  EXPECT_EQ(wire.size(), 5u + 10u);  // price, then discounts (2 + id 3 + price 5)
}

TEST(WireSchema, InitRequestTimeZoneFieldsAreCrossNamed) {
  velquin::iap::GetInitInfoRequest request;
  request.set_timezone("CET");
  request.set_tz_abv("Europe/Berlin");
  request.set_sdk_version("1.0.15");
  std::string wire = request.SerializeAsString();
  EXPECT_EQ(wire.substr(0, 5), bytes({0x32, 0x03, 'C', 'E', 'T'}));  // timezone = 6
  EXPECT_EQ(wire.substr(5, 2), bytes({0x3a, 0x0d}));                 // tz_abv = 7
  EXPECT_NE(wire.find(bytes({0x52, 0x06})), std::string::npos);      // sdk_version = 10
}

TEST(WireSchema, RepeatedMapKeyTakesTheLastValue) {
  // consumed_promo_offers {"o": 1}, then {"o": 2} in the same message.
  std::string entry1 = bytes({0x5a, 0x05, 0x0a, 0x01, 'o', 0x10, 0x01});
  std::string entry2 = bytes({0x5a, 0x05, 0x0a, 0x01, 'o', 0x10, 0x02});
  velquin::iap::Subscription subscription;
  ASSERT_TRUE(subscription.ParseFromString(entry1 + entry2));
  EXPECT_EQ(subscription.consumed_promo_offers().at("o"), 2);
}

TEST(WireSchema, ServicesKeepTheirPathsAndOrder) {
  const auto* iap = velquin::iap::Subscriber::descriptor()->file()->FindServiceByName("IAPService");
  ASSERT_NE(iap, nullptr);
  const char* order[] = {"GetSubscriber", "VerifyReceipt", "UploadUserInfo", "GetAppConfig",
                         "Init", "GeneratePromotionalOfferSignature", "GetCurrencyRate"};
  ASSERT_EQ(iap->method_count(), 7);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(iap->method(i)->name(), order[i]);
  EXPECT_EQ(iap->full_name(), "velquin.iap.IAPService");
  EXPECT_EQ(iap->FindMethodByName("UploadUserInfo")->output_type()->full_name(),
            "google.protobuf.Empty");
  EXPECT_EQ(protocol::EventRequest::descriptor()->file()->service(0)->full_name(),
            "protocol.Eventd");
  EXPECT_EQ(velquin::attribution::GetAttributionRequest::descriptor()->file()->service(0)->full_name(),
            "velquin.attribution.AttributionService");
  EXPECT_EQ(velquin::push_notification::InAppMessage::descriptor()->file()->service(0)->full_name(),
            "velquin.push_notification.PushNotificationService");
}

}  // namespace
