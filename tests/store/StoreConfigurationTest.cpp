// The store configuration reader, decimal prices and subscription periods.
#include <gtest/gtest.h>

#include "store/StoreConfiguration.h"
#include "store/TransactionHistory.h"

namespace velquin::store {
namespace {

std::optional<StoreConfiguration> parse(const std::string& text, Error* error) {
  return parseStoreConfiguration(text, "/cfg/store.json", error);
}

std::string problemWith(const std::string& text) {
  Error error;
  EXPECT_FALSE(parse(text, &error)) << text;
  EXPECT_EQ(error.domain, kSKErrorDomain);
  EXPECT_EQ(error.message.rfind("store configuration /cfg/store.json: ", 0), 0u) << error.message;
  return error.message;
}

TEST(StoreConfiguration, ReadsEveryKindOfProductWithDefaults) {
  Error error;
  auto config = parse(R"({
    "currency": "USD", "can_make_payments": false,
    "products": [
      {"type": "auto-renewable", "id": "m", "price": 2, "subscription_period": {"unit": "year"},
       "promotional_offers": [{"id": "o", "price": "0.5", "payment_mode": "pay_up_front",
                               "periods": 2}]},
      {"type": "consumable", "id": "c", "price": 0.3, "currency": "JPY"}
    ],
    "outcomes": {"c": {"outcome": "fail", "delay_ms": 250, "error_code": 7}, "m": "ask_to_buy"},
    "restore": {"outcome": "hang"},
    "unknown_keys": "are ignored"
  })", &error);
  ASSERT_TRUE(config) << error.message;
  EXPECT_FALSE(config->canMakePayments);
  ASSERT_EQ(config->products.size(), 2u);
  const auto& monthly = *config->product("m");
  EXPECT_EQ(monthly.price.stringValue(), "2");
  EXPECT_EQ(monthly.priceLocale.currencyCode, "USD");
  EXPECT_EQ(monthly.subscriptionPeriod->unit, SKProductPeriodUnit::year);
  EXPECT_EQ(monthly.subscriptionPeriod->numberOfUnits, 1u);
  ASSERT_EQ(monthly.discounts.size(), 1u);
  EXPECT_EQ(monthly.discounts[0].subscriptionPeriod, *monthly.subscriptionPeriod);
  EXPECT_EQ(monthly.discounts[0].numberOfPeriods, 2u);
  EXPECT_EQ(config->product("c")->price.stringValue(), "0.3");
  EXPECT_EQ(config->product("c")->priceLocale.currencyCode, "JPY");
  EXPECT_EQ(config->outcomes.at("c").outcome, LocalStore::Outcome::fail);
  EXPECT_EQ(config->outcomes.at("c").delay, std::chrono::milliseconds(250));
  EXPECT_EQ(config->outcomes.at("c").errorCode, 7);
  EXPECT_EQ(config->outcomes.at("m").outcome, LocalStore::Outcome::askToBuy);
  EXPECT_EQ(config->restoreBehaviour, LocalStore::RestoreBehaviour::hang);
  EXPECT_EQ(config->product("x"), nullptr);
}

TEST(StoreConfiguration, ShippedExampleIsValid) {
  Error error;
  auto config = loadStoreConfiguration(VELQUIN_EXAMPLES_DIR "/store-config.json", &error);
  ASSERT_TRUE(config) << error.message;
  EXPECT_FALSE(config->offerPublicKeyPem.empty());
  EXPECT_EQ(config->products.size(), 5u);
}

TEST(StoreConfiguration, NamesTheOffendingValue) {
  // A 309-digit price would turn into another number on its way to a double.
  const std::string longPrice = R"({"products": [{"type": "consumable", "id": "a", "price": "1)" +
                                std::string(308, '0') + R"("}]})";
  const std::pair<const char*, const char*> cases[] = {
      {"[]", "(top level): expected an object, found an array"},
      {"{}", "products: missing"},
      {R"({"products": [{"type": "gift", "id": "a", "price": 1}]})", "products[0].type: \"gift\""},
      {R"({"products": [{"type": "consumable", "price": 1}]})", "products[0].id: missing"},
      {R"({"products": [{"type": "consumable", "id": "a", "price": "1,5"}]})", "not a decimal"},
      {R"({"products": [{"type": "consumable", "id": "a", "price": -1}]})", "must not be negative"},
      {longPrice.c_str(), "more than 15 significant digits"},
      {R"({"products": [{"type": "consumable", "id": "a", "price": 0.12345678901234567}]})",
       "more than 15 significant digits"},
      {R"({"products": [{"type": "auto-renewable", "id": "a", "price": 1}]})",
       "products[0].subscription_period: missing"},
      {R"({"products": [{"type": "consumable", "id": "a", "price": 1, "group": "g"}]})",
       "products[0].group: only auto-renewable"},
      {R"({"products": [{"type": "auto-renewable", "id": "a", "price": 1,
           "subscription_period": {"unit": "fortnight"}}]})", "\"fortnight\" is not one of"},
      {R"({"products": [{"type": "consumable", "id": "a", "price": 1},
                        {"type": "consumable", "id": "a", "price": 2}]})",
       "products[1].id: \"a\" appears twice"},
      {R"({"can_make_payments": "no", "products": []})", "can_make_payments: expected true or false"},
      {R"({"products": [], "outcomes": {"ghost": "cancel"}})", "outcomes.ghost: no product"},
      {R"({"products": [{"type": "consumable", "id": "a", "price": 1}],
           "outcomes": {"a": "explode"}})", "outcomes.a: \"explode\" is not one of"},
      {R"({"products": [], "offer_public_key": "not a key"})", "offer_public_key: not a PEM"},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_NE(problemWith(text).find(expected), std::string::npos)
        << "for " << text << "\ngot " << problemWith(text);
  }
}

TEST(DecimalNumber, KeepsTheExactTextOfValidDecimalsOnly) {
  EXPECT_EQ(SKDecimalNumber::fromString("9.90")->stringValue(), "9.90");
  EXPECT_DOUBLE_EQ(SKDecimalNumber::fromString("-0.25")->doubleValue(), -0.25);
  for (const char* bad : {"", "-", "1.", ".5", "1e3", "1,5", " 1", "0x10"}) {
    EXPECT_FALSE(SKDecimalNumber::fromString(bad)) << bad;
  }
  EXPECT_EQ(SKDecimalNumber::fromDouble(4.99).stringValue(), "4.99");
  EXPECT_EQ(SKDecimalNumber::fromDouble(0.1 + 0.2).doubleValue(), 0.1 + 0.2);
}

TEST(SubscriptionPeriods, FollowTheCalendar) {
  // 2024-01-31T10:00:00Z
  const std::int64_t jan31 = 1706695200000;
  const std::int64_t day = 86'400'000;
  EXPECT_EQ(addPeriods(jan31, {1, SKProductPeriodUnit::month}), jan31 + 29 * day);  // Feb 29
  EXPECT_EQ(addPeriods(jan31, {1, SKProductPeriodUnit::month}, 2), jan31 + 60 * day);  // Mar 31
  EXPECT_EQ(addPeriods(jan31, {2, SKProductPeriodUnit::week}), jan31 + 14 * day);
  EXPECT_EQ(addPeriods(jan31, {3, SKProductPeriodUnit::day}), jan31 + 3 * day);
  EXPECT_EQ(addPeriods(jan31, {1, SKProductPeriodUnit::year}), jan31 + 366 * day);
}

}  // namespace
}  // namespace velquin::store
