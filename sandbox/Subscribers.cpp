#include "Subscribers.h"

#include <algorithm>
#include <map>
#include <tuple>

namespace velquin::sandbox {
namespace {

using State = iap::SubscriptionState;

// What one subscription or one non-consumable purchase gives its owner.
struct Holding {
  std::string productId;            // the current product
  std::set<std::string> everOwned;  // every product it went through
  bool active = false;
  bool lifetime = false;  // a non-consumable
  std::int64_t expiresMs = 0;
};

bool startsWith(const std::string& text, const char* prefix) {
  return text.rfind(prefix, 0) == 0;
}

State::SubState subStateFor(const std::optional<std::string>& offerId) {
  if (!offerId || offerId->empty()) return State::StandardSub;
  return startsWith(*offerId, "intro") ? State::Introductory : State::SubOffer;
}

// Oldest first; equal times keep a stable order by transaction id.
bool purchasedBefore(const Purchase* a, const Purchase* b) {
  if (a->purchaseMs != b->purchaseMs) return a->purchaseMs < b->purchaseMs;
  return a->transactionId < b->transactionId;
}

// Builds the Subscription of one original transaction's purchases (sorted
// oldest first) and the holding it stands for.
Holding addSubscription(const std::string& originalId, const std::vector<const Purchase*>& chain,
                        const SubscriberRules& rules, std::int64_t nowMs,
                        iap::Subscriber& subscriber) {
  const Purchase& latest = *chain.back();
  Holding holding;
  holding.productId = latest.productId;
  bool anyExpiry = false;
  for (const Purchase* p : chain) {
    holding.everOwned.insert(p->productId);
    if (p->expiresMs) {
      anyExpiry = true;
      holding.expiresMs = std::max(holding.expiresMs, *p->expiresMs);
    }
  }

  State::State state;
  if (rules.refundedTransactions.count(latest.transactionId)) {
    state = State::IssueRefund;
  } else if (latest.productType == ProductType::autoRenewable) {
    state = holding.expiresMs > nowMs ? State::ActiveAutoRenOn : State::ExpVoluntarily;
  } else {
    // A non-renewing purchase without an end date stays valid.
    state = !anyExpiry || holding.expiresMs > nowMs ? State::NonRenSub : State::ExpVoluntarily;
  }
  holding.active = state > 0;

  auto* subscription = subscriber.add_subscriptions();
  subscription->set_store(iap::Appstore);
  subscription->set_product_id(latest.productId);
  subscription->mutable_state()->set_state(state);
  subscription->mutable_state()->set_sub_state(subStateFor(latest.offerId));
  subscription->set_expire_at(holding.expiresMs);
  const auto renewals = static_cast<std::int32_t>(chain.size() - 1);
  subscription->set_total_renewals(renewals);
  if (latest.offerId && subStateFor(latest.offerId) == State::SubOffer) {
    subscription->set_promotional_offer_id(*latest.offerId);
  }
  auto* original = subscription->add_original_transactions();
  original->set_original_txid(originalId);
  original->set_start_at(chain.front()->purchaseMs);
  original->set_expire_at(holding.expiresMs);
  original->set_renewals(renewals);
  return holding;
}

}  // namespace

const char* productTypeName(ProductType type) {
  switch (type) {
    case ProductType::autoRenewable: return "auto-renewable";
    case ProductType::nonRenewing: return "non-renewing";
    case ProductType::consumable: return "consumable";
    case ProductType::nonConsumable: return "non-consumable";
  }
  return "consumable";
}

std::optional<ProductType> productTypeFromName(const std::string& name) {
  for (ProductType type : {ProductType::autoRenewable, ProductType::nonRenewing,
                           ProductType::consumable, ProductType::nonConsumable}) {
    if (name == productTypeName(type)) return type;
  }
  return std::nullopt;
}

SubscriberRules subscriberRulesFromConfig(const nlohmann::json& config) {
  SubscriberRules rules;
  if (auto found = config.find("entitlements"); found != config.end() && found->is_object()) {
    // nlohmann's objects iterate in key order.
    for (const auto& [id, products] : found->items()) {
      std::set<std::string> ids;
      for (const auto& product : products) {
        if (product.is_string()) ids.insert(product.get<std::string>());
      }
      rules.entitlements.emplace_back(id, std::move(ids));
    }
  }
  if (auto found = config.find("refunded_transactions");
      found != config.end() && found->is_array()) {
    for (const auto& id : *found) {
      if (id.is_string()) rules.refundedTransactions.insert(id.get<std::string>());
    }
  }
  return rules;
}

iap::Subscriber buildSubscriber(const std::vector<Purchase>& purchases,
                                const SubscriberRules& rules, std::int64_t nowMs) {
  iap::Subscriber subscriber;

  std::map<std::string, std::vector<const Purchase*>> chains;  // by original transaction id
  std::vector<Holding> holdings;
  for (const Purchase& p : purchases) {
    switch (p.productType) {
      case ProductType::autoRenewable:
      case ProductType::nonRenewing:
        chains[p.originalTransactionId.empty() ? p.transactionId : p.originalTransactionId]
            .push_back(&p);
        break;
      case ProductType::nonConsumable: {
        Holding owned;
        owned.productId = p.productId;
        owned.everOwned = {p.productId};
        owned.lifetime = true;
        owned.active = !rules.refundedTransactions.count(p.transactionId);
        holdings.push_back(std::move(owned));
        break;
      }
      case ProductType::consumable:
        break;  // used up: grants nothing lasting
    }
  }

  // Subscriptions in the order they began.
  std::vector<std::pair<std::string, std::vector<const Purchase*>>> ordered(chains.begin(),
                                                                           chains.end());
  for (auto& [id, chain] : ordered) std::sort(chain.begin(), chain.end(), purchasedBefore);
  std::stable_sort(ordered.begin(), ordered.end(), [](const auto& a, const auto& b) {
    return a.second.front()->purchaseMs < b.second.front()->purchaseMs;
  });
  for (const auto& [id, chain] : ordered) {
    holdings.push_back(addSubscription(id, chain, rules, nowMs, subscriber));
  }

  std::vector<iap::Entitlement> entitlements;
  for (const auto& rule : rules.entitlements) {
    const auto& id = rule.first;
    const auto& products = rule.second;  // a named reference: lambdas below capture it
    const Holding* best = nullptr;   // decides product and activity
    const Holding* owned = nullptr;  // any holding that ever had one of the products
    std::int64_t latestExpiry = 0;
    for (const Holding& h : holdings) {
      bool ever = std::any_of(h.everOwned.begin(), h.everOwned.end(),
                              [&](const std::string& product) { return products.count(product); });
      if (!ever) continue;
      if (!owned) owned = &h;
      // Only what the holding is now counts: a subscription moved to a
      // product outside this entitlement no longer grants it.
      if (!products.count(h.productId)) continue;
      if (!h.lifetime) latestExpiry = std::max(latestExpiry, h.expiresMs);
      auto rank = [](const Holding& x) {
        return std::tuple(x.active, x.active && x.lifetime, x.expiresMs);
      };
      if (!best || rank(h) > rank(*best)) best = &h;
    }
    if (!owned) continue;
    iap::Entitlement entitlement;
    entitlement.set_id(id);
    entitlement.set_is_active(best && best->active);
    entitlement.set_expire_at(best && best->active && best->lifetime ? 0 : latestExpiry);
    if (best) {
      entitlement.set_product_id(best->productId);
    } else {
      for (const auto& product : owned->everOwned) {
        if (products.count(product)) {
          entitlement.set_product_id(product);
          break;
        }
      }
    }
    entitlements.push_back(std::move(entitlement));
  }
  // Configured entitlements are already in id order; bring active ones forward.
  std::stable_partition(entitlements.begin(), entitlements.end(),
                        [](const iap::Entitlement& e) { return e.is_active(); });
  for (auto& entitlement : entitlements) *subscriber.add_entitlements() = std::move(entitlement);
  return subscriber;
}

}  // namespace velquin::sandbox
