// The wire format the backend reads: replies captured as bytes decode as the
// backend meant them, and the fields that are easy to number wrongly land on
// the right numbers.
#include <gtest/gtest.h>

#include <string>

#include "EventRoot.pb.h"
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

}  // namespace
