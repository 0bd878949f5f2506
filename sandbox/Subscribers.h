// What a user owns: the purchases the sandbox recorded from verified
// receipts, and the Subscriber message computed from them with the app's
// entitlement rules (which products unlock which entitlement, which
// transactions were refunded).
//
// Ownership and threads: plain values and pure functions; callable from any
// thread.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "SubscriberRoot.pb.h"

namespace velquin::sandbox {

enum class ProductType { autoRenewable, nonRenewing, consumable, nonConsumable };

// "auto-renewable", "non-renewing", "consumable", "non-consumable".
const char* productTypeName(ProductType type);
std::optional<ProductType> productTypeFromName(const std::string& name);

// One store transaction as a receipt lists it.
struct Purchase {
  std::string transactionId;
  std::string originalTransactionId;
  std::string productId;
  ProductType productType = ProductType::consumable;
  std::int64_t purchaseMs = 0;
  std::optional<std::int64_t> expiresMs;
  std::optional<std::string> offerId;
};

// A purchase as stored, with the user it belongs to.
struct RecordedPurchase {
  std::string appUserId;
  Purchase purchase;
  std::int64_t recordedMs = 0;
};

struct SubscriberRules {
  // Entitlement id -> the products that unlock it, ordered by id.
  std::vector<std::pair<std::string, std::set<std::string>>> entitlements;
  std::set<std::string> refundedTransactions;
};

// Reads "entitlements" and "refunded_transactions" of a validated
// configuration.
SubscriberRules subscriberRulesFromConfig(const nlohmann::json& config);

// The Subscriber for one user's purchases at time `nowMs`:
//  - one Subscription per original transaction of auto-renewable and
//    non-renewing products, its state from the latest transaction (refunded,
//    live, or expired) and its sub-state from that transaction's offer;
//  - one Entitlement per configured entitlement the user has bought any of
//    its products for (consumables never count), active ones first, then
//    by id.
iap::Subscriber buildSubscriber(const std::vector<Purchase>& purchases,
                                const SubscriberRules& rules, std::int64_t nowMs);

}  // namespace velquin::sandbox
