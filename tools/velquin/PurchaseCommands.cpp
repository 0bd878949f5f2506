// Products, purchases, restores and the subscriber.
#include "PurchaseCommands.h"

#include <algorithm>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "Cli.h"
#include "velquin/Bundle.h"
#include "velquin/LocalStore.h"
#include "velquin/MainQueue.h"
#include "velquin/OVPurchase.h"
#include "velquin/StoreKit.h"
#include "velquin/Velquin.h"

namespace velquin::cli {
namespace {

namespace fs = std::filesystem;
using Reply = std::pair<nlohmann::json, std::optional<Error>>;
using SharedReply = std::shared_ptr<Pending<Reply>>;

Outcome await(const SharedReply& pending, const Context& context, const std::string& what) {
  auto reply = pending->wait(context.timeout);
  if (!reply) return timedOut(what);
  if (reply->second) return Outcome{{}, reply->second};
  return Outcome{reply->first, std::nullopt};
}

// ---- JSON views of the SDK's values

nlohmann::json periodJson(const std::optional<SKProductSubscriptionPeriod>& period) {
  if (!period) return nullptr;
  const char* unit = "M";
  switch (period->unit) {
    case SKProductPeriodUnit::day:
      unit = "D";
      break;
    case SKProductPeriodUnit::week:
      unit = "W";
      break;
    case SKProductPeriodUnit::month:
      unit = "M";
      break;
    case SKProductPeriodUnit::year:
      unit = "Y";
      break;
  }
  // ISO 8601 duration. Appended piece by piece: GCC 12 at -O2 reports a false
  // -Wrestrict for "literal" + std::string&&.
  std::string duration = "P";
  duration += std::to_string(period->numberOfUnits);
  duration += unit;
  return duration;
}

nlohmann::json productJson(const SKProduct& product) {
  return {{"id", product.productIdentifier},
          {"title", product.localizedTitle},
          {"price", product.price.doubleValue()},
          {"currency", product.priceLocale.currencyCode},
          {"period", periodJson(product.subscriptionPeriod)}};
}

const char* stateName(SKPaymentTransactionState state) {
  switch (state) {
    case SKPaymentTransactionState::purchasing:
      return "purchasing";
    case SKPaymentTransactionState::purchased:
      return "purchased";
    case SKPaymentTransactionState::failed:
      return "failed";
    case SKPaymentTransactionState::restored:
      return "restored";
    case SKPaymentTransactionState::deferred:
      return "deferred";
  }
  return "unknown";
}

nlohmann::json transactionJson(const SKPaymentTransactionPtr& transaction) {
  if (!transaction) return nullptr;
  return {{"id", transaction->transactionIdentifier},
          {"product", transaction->payment.productIdentifier()},
          {"state", stateName(transaction->transactionState)}};
}

nlohmann::json transactionsJson(const std::vector<SKPaymentTransactionPtr>& transactions) {
  nlohmann::json list = nlohmann::json::array();
  for (const auto& transaction : transactions) list.push_back(transactionJson(transaction));
  return list;
}

nlohmann::json subscriberJson(const OVSubscriber& subscriber) {
  nlohmann::json subscriptions = nlohmann::json::array();
  for (const auto& subscription : subscriber.ovSubscriptions) {
    subscriptions.push_back({{"productId", subscription.productId},
                             {"status", static_cast<std::int32_t>(subscription.status)},
                             {"subStatus", static_cast<std::int32_t>(subscription.subStatus)},
                             {"expireAt", subscription.expireAt},
                             {"cancelAt", subscription.cancelAt},
                             {"willRenewTo", subscription.willRenewTo},
                             {"originalTransactions", subscription.originalTransactions}});
  }
  return {{"productId", subscriber.productId},
          {"expireAt", subscriber.expireAt},
          {"isActive", subscriber.isActive},
          {"entitlements", subscriber.ovEntitlements},
          {"subscriptions", subscriptions}};
}

// ---- Steps shared by the commands

std::shared_ptr<LocalStore> localStore() {
  return std::dynamic_pointer_cast<LocalStore>(StoreKit::current());
}

// The store products of `ids`, or the error the store gave.
std::pair<std::map<std::string, SKProductPtr>, std::optional<Outcome>> fetchProducts(
    const std::set<std::string>& ids, const Context& context) {
  auto pending = std::make_shared<
      Pending<std::pair<std::map<std::string, SKProductPtr>, std::optional<Error>>>>();
  Velquin::shared().getSkuDetails(
      ids, [pending](std::optional<std::map<std::string, SKProductPtr>> products,
                     std::optional<Error> error) {
        pending->set({products.value_or(std::map<std::string, SKProductPtr>{}), std::move(error)});
      });
  auto answer = pending->wait(context.timeout);
  if (!answer) return {{}, timedOut("the store's product lookup")};
  if (answer->second) return {{}, Outcome{{}, answer->second}};
  return {answer->first, std::nullopt};
}

// The SDK finishes a verified transaction after the host's completion has
// returned, and the store notes that on disk on the main queue. Waits for
// both, so a purchase is not handed to the next process as unfinished.
void awaitFinished(const Outcome& outcome) {
  if (outcome.error || !outcome.result.is_object()) return;
  const auto& transaction = outcome.result.value("transaction", nlohmann::json::object());
  std::string id = transaction.is_object() ? transaction.value("id", "") : "";
  if (id.empty() || transaction.value("state", "") == "deferred") return;
  auto queue = SKPaymentQueue::defaultQueue();
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (std::chrono::steady_clock::now() < until) {
    auto waiting = queue->transactions();
    if (std::none_of(waiting.begin(), waiting.end(), [&](const SKPaymentTransactionPtr& t) {
          return t->transactionIdentifier == id;
        })) {
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  MainQueue::shared().sync([] {});
}

OVPurchase::TransactionCompletion transactionInto(const SharedReply& pending) {
  return [pending](SKPaymentTransactionPtr transaction, OVSubscriber subscriber,
                   std::optional<Error> error, bool userCancelled) {
    pending->set({{{"transaction", transactionJson(transaction)},
                   {"subscriber", subscriberJson(subscriber)},
                   {"userCancelled", userCancelled}},
                  std::move(error)});
  };
}

// Reports a purchase that the store put on hold (deferred, or waiting for
// a parent), which never reaches the purchase completion.
class DeferredWatcher final : public SKPaymentTransactionObserver {
 public:
  DeferredWatcher(std::string productId, SharedReply pending)
      : productId_(std::move(productId)), pending_(std::move(pending)) {}
  void updatedTransactions(SKPaymentQueue&,
                           const std::vector<SKPaymentTransactionPtr>& transactions) override {
    for (const auto& transaction : transactions) {
      if (transaction->transactionState == SKPaymentTransactionState::deferred &&
          transaction->payment.productIdentifier() == productId_) {
        pending_->set(
            {{{"transaction", transactionJson(transaction)}, {"deferred", true}}, std::nullopt});
      }
    }
  }

 private:
  const std::string productId_;
  const SharedReply pending_;
};

std::optional<LocalStore::Outcome> outcomeNamed(const std::string& name) {
  if (name == "success") return LocalStore::Outcome::success;
  if (name == "cancel") return LocalStore::Outcome::cancel;
  if (name == "fail") return LocalStore::Outcome::fail;
  if (name == "defer") return LocalStore::Outcome::defer;
  if (name == "ask") return LocalStore::Outcome::askToBuy;
  return std::nullopt;
}

// ---- Commands

Outcome products(const Context& context, const std::vector<std::string>& words) {
  if (words.empty()) return failure("usage: products ID...");
  auto [found, problem] = fetchProducts({words.begin(), words.end()}, context);
  if (problem) return *problem;
  nlohmann::json list = nlohmann::json::array();
  for (const auto& [id, product] : found) list.push_back(productJson(*product));
  return Outcome{{{"products", list}}, std::nullopt};
}

Outcome productIds(const Context& context, const std::vector<std::string>& words) {
  if (!words.empty()) return failure("usage: product-ids");
  auto pending = std::make_shared<Pending<Reply>>();
  Velquin::shared().getPurchaseProductIds([pending](std::optional<std::vector<std::string>> ids,
                                                    std::optional<Error> error) {
    pending->set({{{"productIds", ids.value_or(std::vector<std::string>{})}}, std::move(error)});
  });
  return await(pending, context, "GetAppConfig");
}

Outcome purchase(const Context& context, const std::vector<std::string>& words) {
  Arguments args(words, {"--offer", "--outcome"});
  if (args.problem()) return failure(*args.problem());
  if (args.positional().size() != 1) {
    return failure(
        "usage: purchase ID [--offer OFFER_ID] [--outcome success|cancel|fail|defer|ask]");
  }
  const std::string& id = args.positional()[0];
  if (auto name = args.option("--outcome")) {
    auto outcome = outcomeNamed(*name);
    if (!outcome) return failure("--outcome must be success, cancel, fail, defer or ask");
    auto store = localStore();
    if (!store) return failure("--outcome needs the local store");
    store->setNextOutcome({*outcome, std::chrono::milliseconds(0)});
  }
  auto [found, problem] = fetchProducts({id}, context);
  if (problem) return *problem;
  const SKProduct& product = *found.at(id);

  auto& sdk = Velquin::shared();
  auto pending = std::make_shared<Pending<Reply>>();
  auto watcher = std::make_shared<DeferredWatcher>(id, pending);
  SKPaymentQueue::defaultQueue()->addTransactionObserver(watcher);

  if (auto offer = args.option("--offer")) {
    // The backend signs the offer for this user; the payment names the same
    // user so the store can check the signature.
    std::string user = sdk.purchases().appUserId();
    auto signature = std::make_shared<
        Pending<std::pair<std::optional<OVOfferSignatureDetail>, std::optional<Error>>>>();
    sdk.createASignature(
        id, *offer, user,
        [signature](std::optional<OVOfferSignatureDetail> detail, std::optional<Error> error) {
          signature->set({std::move(detail), std::move(error)});
        });
    auto signed_ = signature->wait(context.timeout);
    if (!signed_) return timedOut("GeneratePromotionalOfferSignature");
    if (signed_->second || !signed_->first) {
      return Outcome{{}, signed_->second.value_or(Error{"velquin-cli", 1, "no signature"})};
    }
    const OVOfferSignatureDetail& detail = *signed_->first;
    SKPaymentDiscount discount{*offer, detail.keyIdentifier, detail.nonce, detail.signature,
                               detail.timestamp};
    sdk.purchaseSKProductWithDiscount(product, discount, user, transactionInto(pending));
  } else {
    sdk.purchaseSKProduct(product, transactionInto(pending));
  }
  auto outcome = await(pending, context, "the purchase");
  awaitFinished(outcome);
  return outcome;
}

Outcome purchaseFetchReceipt(const Context& context, const std::vector<std::string>& words) {
  if (words.size() != 1) return failure("usage: purchase-fetch-receipt ID");
  auto [found, problem] = fetchProducts({words[0]}, context);
  if (problem) return *problem;
  auto pending = std::make_shared<Pending<Reply>>();
  Velquin::shared().purchaseFetchReceiptSKProduct(
      *found.at(words[0]),
      [pending](SKPaymentTransactionPtr transaction,
                std::vector<SKPaymentTransactionPtr> transactions,
                std::optional<ReceiptData> receipt, std::optional<Error> error) {
        // The host finishes what it was handed once it has the receipt.
        Velquin::shared().finishTransactions(transactions);
        pending->set({{{"transaction", transactionJson(transaction)},
                       {"transactions", transactionsJson(transactions)},
                       {"receiptBytes", receipt ? receipt->size() : 0},
                       {"finished", true}},
                      std::move(error)});
      });
  auto outcome = await(pending, context, "the purchase");
  awaitFinished(outcome);
  return outcome;
}

Outcome restore(const Context& context, const std::vector<std::string>& words) {
  if (!words.empty()) return failure("usage: restore");
  auto pending = std::make_shared<Pending<Reply>>();
  Velquin::shared().restorePurchases(
      [pending](OVSubscriber subscriber, std::optional<Error> error) {
        pending->set({{{"subscriber", subscriberJson(subscriber)}}, std::move(error)});
      });
  return await(pending, context, "the restore");
}

Outcome subscriber(const Context& context, const std::vector<std::string>& words) {
  if (!words.empty()) return failure("usage: subscriber");
  auto pending = std::make_shared<Pending<Reply>>();
  auto& sdk = Velquin::shared();
  sdk.hasActiveSubscription([pending](OVSubscriber subscriber, std::optional<Error> error) {
    pending->set({{{"subscriber", subscriberJson(subscriber)}}, std::move(error)});
  });
  auto outcome = await(pending, context, "GetSubscriber");
  if (!outcome.error) outcome.result["userId"] = sdk.purchases().appUserId();
  return outcome;
}

Outcome isActive(const Context& context, const std::vector<std::string>& words) {
  if (!words.empty()) return failure("usage: is-active");
  auto pending = std::make_shared<Pending<Reply>>();
  auto& sdk = Velquin::shared();
  // The flag follows the last subscriber answer; ask for a fresh one.
  sdk.hasActiveSubscription([pending](OVSubscriber, std::optional<Error> error) {
    pending->set({nlohmann::json::object(), std::move(error)});
  });
  auto outcome = await(pending, context, "GetSubscriber");
  if (!outcome.error) outcome.result = {{"isActive", sdk.purchases().getUserIsActive()}};
  return outcome;
}

// Hears of the store front's promotion; with a status that leaves the
// payment to the app, buys the product as an app would.
class PromotionObserver final : public OVPromotingObserverProtocol {
 public:
  explicit PromotionObserver(SharedReply purchase) : purchase_(std::move(purchase)) {}
  void ovPromotingAddStorePaymentWithStatus(OVPromotingInAppPurchaseStatus status, const SKPayment&,
                                            const SKProductPtr& product) override {
    told_.set(static_cast<int>(status));
    if (status != OVPromotingInAppPurchaseStatus::proceed && product) {
      Velquin::shared().purchaseSKProduct(*product, transactionInto(purchase_));
    }
  }
  Pending<int> told_;

 private:
  const SharedReply purchase_;
};

Outcome promote(const Context& context, const std::vector<std::string>& words) {
  Arguments args(words, {"--status"});
  if (args.problem()) return failure(*args.problem());
  if (args.positional().size() != 1) return failure("usage: promote ID [--status 0|1|2]");
  const std::string& id = args.positional()[0];
  auto raw = parseInteger(args.option("--status").value_or("0"), 0, 2);
  auto status = raw ? promotingStatusFromRaw(static_cast<int>(*raw)) : std::nullopt;
  if (!status) return failure("--status must be 0, 1 or 2", 2);
  auto store = localStore();
  if (!store) return failure("promote needs the local store");
  auto [found, problem] = fetchProducts({id}, context);
  if (problem) return *problem;

  auto& sdk = Velquin::shared();
  auto purchased = std::make_shared<Pending<Reply>>();
  auto observer = std::make_shared<PromotionObserver>(purchased);
  sdk.setInAppPurchasePromotingStatus(*status, observer);
  if (*status == OVPromotingInAppPurchaseStatus::proceed) {
    // The store goes on by itself; nobody's purchase completion waits, so
    // watch the verified transaction and finish it as the host.
    sdk.addMonitorTransationCompletionHandler(
        [purchased, id](SKPaymentTransactionPtr transaction,
                        std::vector<SKPaymentTransactionPtr> transactions,
                        std::optional<ReceiptData>, std::optional<Error> error) {
          if (transaction->payment.productIdentifier() != id) return;
          Velquin::shared().finishTransactions(transactions);
          purchased->set({{{"transaction", transactionJson(transaction)}}, std::move(error)});
        });
  }
  store->promote(id);
  auto outcome = await(purchased, context, "the promoted purchase");
  if (outcome.error) return outcome;
  awaitFinished(outcome);
  auto told = observer->told_.wait(std::chrono::milliseconds(0));
  outcome.result["status"] = static_cast<int>(*status);
  outcome.result["observerTold"] = told.has_value();
  if (!outcome.result.contains("subscriber")) {
    auto pending = std::make_shared<Pending<Reply>>();
    sdk.hasActiveSubscription([pending](OVSubscriber subscriber, std::optional<Error> error) {
      pending->set({subscriberJson(subscriber), std::move(error)});
    });
    auto answer = await(pending, context, "GetSubscriber");
    if (answer.error) return answer;
    outcome.result["subscriber"] = answer.result;
  }
  return outcome;
}

Outcome receiptKey(const Context&, const std::vector<std::string>& words) {
  if (!words.empty()) return failure("usage: receipt-key");
  auto store = localStore();
  if (!store) return failure("receipt-key needs the local store");
  Error error;
  auto pem = store->receiptPublicKeyPem(&error);
  if (!pem) return Outcome{{}, error};
  return Outcome{
      {{"file", (Bundle::main().dataDirectory() / "StoreKit" / "receipt-public-key.pem").string()},
       {"publicKeyPem", *pem}},
      std::nullopt};
}

}  // namespace

const char* defaultStoreConfiguration() {
  return R"json({
  "can_make_payments": true,
  "locale": "en_US",
  "currency": "USD",
  "products": [
    {
      "type": "auto-renewable",
      "id": "com.velquin.demo.monthly",
      "title": "Premium (monthly)",
      "description": "Every feature, billed monthly",
      "price": "4.99",
      "subscription_period": {"unit": "month", "count": 1},
      "group": "premium",
      "promotional_offers": [
        {"id": "intro-offer", "price": "2.49", "payment_mode": "pay_as_you_go",
         "period": {"unit": "month", "count": 1}, "periods": 1}
      ]
    },
    {
      "type": "auto-renewable",
      "id": "com.velquin.demo.yearly",
      "title": "Premium (yearly)",
      "description": "Every feature, billed yearly",
      "price": "39.99",
      "subscription_period": {"unit": "year", "count": 1},
      "group": "premium"
    },
    {
      "type": "non-consumable",
      "id": "com.velquin.demo.lifetime",
      "title": "Premium for life",
      "description": "Pay once",
      "price": "79.99"
    }
  ]
}
)json";
}

std::optional<Error> useStoreConfiguration(const std::optional<std::string>& file) {
  if (file) {
    LocalStore::setConfigurationPath(fs::absolute(*file));
    return std::nullopt;
  }
  const Bundle& bundle = Bundle::main();
  if (fs::exists(bundle.path() / "store-config.json")) return std::nullopt;
  // No configuration in the bundle: sell the demo products.
  fs::path target = bundle.dataDirectory() / "StoreKit" / "default-store-config.json";
  std::error_code ignored;
  fs::create_directories(target.parent_path(), ignored);
  // One temporary name per process: hosts may start side by side.
  fs::path temporary = target;
  temporary += ".tmp.";
  temporary += std::to_string(getpid());
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << defaultStoreConfiguration();
    if (!out.flush()) {
      return Error{"velquin-cli", 1, "cannot write " + temporary.string()};
    }
  }
  fs::rename(temporary, target, ignored);
  if (ignored) return Error{"velquin-cli", 1, "cannot write " + target.string()};
  LocalStore::setConfigurationPath(target);
  return std::nullopt;
}

std::vector<Command> purchaseCommands() {
  return {
      {"products", "ID...", "the store products of the ids", true, products},
      {"product-ids", "", "the product ids configured on the server", true, productIds},
      {"purchase", "ID [--offer OFFER_ID] [--outcome success|cancel|fail|defer|ask]",
       "buy a product (with a promotional offer signed by the backend)", true, purchase},
      {"purchase-fetch-receipt", "ID", "buy a product, print the receipt size and finish", true,
       purchaseFetchReceipt},
      {"restore", "", "restore purchases and print the subscriber", true, restore},
      {"subscriber", "", "the backend's subscriber for this user", true, subscriber},
      {"is-active", "", "whether the user holds an active entitlement", true, isActive},
      {"promote", "ID [--status 0|1|2]", "a purchase started from the store front", true, promote},
      {"receipt-key", "", "the local store's receipt public key (made on first use)", false,
       receiptKey},
  };
}

}  // namespace velquin::cli
