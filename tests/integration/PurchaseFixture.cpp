#include "PurchaseFixture.h"

#include <fstream>
#include <thread>

#include "velquin/Bundle.h"
#include "velquin/Velquin.h"

namespace velquin::testing {

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  auto until = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

void SandboxPurchase::SetUp() {
  SandboxTest::SetUp();
  if (HasFatalFailure()) return;
  storeConfigPath = env.root() / "store-config.json";
  LocalStore::setConfigurationPath(storeConfigPath);
  store = LocalStore::createDefault();
  StoreKit::install(store);

  // The sandbox reads its trusted receipt keys when it starts: start it
  // again, on the same data, trusting this store's key.
  Error error;
  auto key = store->receiptPublicKeyPem(&error);
  ASSERT_TRUE(key) << error.message;
  auto receiptKeyPath = env.root() / "receipt-public-key.pem";
  std::ofstream(receiptKeyPath) << *key;
  server->stop();
  sandbox::SandboxOptions options;
  options.dataDir = env.root() / "sandbox";
  options.receiptPublicKeyFiles = {receiptKeyPath};
  options.faults = initialFaults();
  server = std::make_unique<sandbox::SandboxServer>(options);
  std::string problem;
  ASSERT_TRUE(server->start(&problem)) << problem;

  writeStoreConfig(storeConfig().dump(2));
  writeWorkingTokenFile();
}

void SandboxPurchase::TearDown() {
  for (std::size_t seen = 0, rounds = 0; server && rounds < 12; ++rounds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    std::size_t now = server->calls().size();
    if (now == seen) break;
    seen = now;
  }
  SandboxTest::TearDown();
}

nlohmann::json SandboxPurchase::storeConfig() const {
  auto subscription = [](const char* id, const char* price, const char* unit) {
    return nlohmann::json{{"type", "auto-renewable"}, {"id", id}, {"title", id},
                          {"description", "test"}, {"price", price}, {"group", "premium"},
                          {"subscription_period", {{"unit", unit}, {"count", 1}}}};
  };
  auto monthly = subscription(kMonthly, "4.99", "month");
  monthly["promotional_offers"] = {{{"id", "intro-offer"},
                                    {"price", "2.49"},
                                    {"payment_mode", "pay_as_you_go"},
                                    {"period", {{"unit", "month"}, {"count", 1}}},
                                    {"periods", 1}}};
  return {{"bundle_id", server->config().value("bundle_id", "")},
          {"currency", "USD"},
          {"locale", "en_US"},
          {"offer_public_key", server->offerPublicKeyPem()},
          {"products",
           {monthly, subscription(kYearly, "39.99", "year"),
            {{"type", "non-consumable"}, {"id", kLifetime}, {"title", "Lifetime"},
             {"description", "test"}, {"price", "79.99"}},
            {{"type", "consumable"}, {"id", kCoins}, {"title", "Coins"},
             {"description", "test"}, {"price", "0.99"}}}}};
}

void SandboxPurchase::writeStoreConfig(const std::string& text) {
  std::ofstream(storeConfigPath, std::ios::trunc) << text;
}

std::shared_ptr<QueueLog> SandboxPurchase::watchQueue(
    std::function<void(const SKPaymentTransaction&)> onUpdate) {
  auto log = std::make_shared<QueueLog>();
  log->onUpdate = std::move(onUpdate);
  store->addTransactionObserver(log);
  return log;
}

SKProductPtr SandboxPurchase::product(const std::string& id) {
  Await<SKProductPtr> found;
  Velquin::shared().getSkuDetails(
      {id}, [&found, id](std::optional<std::map<std::string, SKProductPtr>> products,
                         std::optional<Error> error) {
        found.set(products && products->count(id) ? products->at(id) : nullptr);
        if (error) ADD_FAILURE() << error->message;
      });
  auto product = found.wait();
  return product ? *product : nullptr;
}

OVPurchase::TransactionCompletion SandboxPurchase::into(Await<Bought>& bought) {
  return [&bought](SKPaymentTransactionPtr transaction, OVSubscriber subscriber,
                   std::optional<Error> error, bool userCancelled) {
    bought.set({std::move(transaction), std::move(subscriber), std::move(error), userCancelled});
  };
}

OVPurchase::SubscriberCompletion SandboxPurchase::into(Await<Restored>& restored) {
  return [&restored](OVSubscriber subscriber, std::optional<Error> error) {
    restored.set({std::move(subscriber), std::move(error)});
  };
}

Bought SandboxPurchase::buy(const std::string& id) {
  auto item = product(id);
  if (!item) return {};
  Await<Bought> bought;
  Velquin::shared().purchaseSKProduct(*item, into(bought));
  auto result = bought.wait();
  if (!result) ADD_FAILURE() << "no answer to the purchase of " << id;
  return result.value_or(Bought{});
}

}  // namespace velquin::testing
