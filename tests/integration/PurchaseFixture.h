// A sandbox that trusts the local store's receipts, a local store configured
// from a file the test writes, and helpers to buy and wait. The store is
// the application's default one (its folder under XDG_DATA_HOME), so a
// command-line host started by the test sells from the same store.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "SandboxFixture.h"
#include "support/Await.h"
#include "velquin/OVPurchase.h"
#include "velquin/StoreKit.h"

namespace velquin::testing {

inline constexpr const char* kMonthly = "com.velquin.demo.monthly";
inline constexpr const char* kYearly = "com.velquin.demo.yearly";
inline constexpr const char* kLifetime = "com.velquin.demo.lifetime";
inline constexpr const char* kCoins = "com.velquin.demo.coins";

struct Bought {
  SKPaymentTransactionPtr transaction;
  OVSubscriber subscriber;
  std::optional<Error> error;
  bool userCancelled = false;
};

struct Restored {
  OVSubscriber subscriber;
  std::optional<Error> error;
};

// Records every transaction update and restore end the queue reports.
class QueueLog final : public SKPaymentTransactionObserver {
 public:
  void updatedTransactions(SKPaymentQueue&,
                           const std::vector<SKPaymentTransactionPtr>& batch) override;
  void restoreCompletedTransactionsFinished(SKPaymentQueue&) override;
  std::function<void(const SKPaymentTransaction&)> onUpdate;  // set before registering

  int count(SKPaymentTransactionState state) const;
  int restoresFinished() const;

 private:
  mutable std::mutex mutex_;
  std::vector<SKPaymentTransactionState> states_;  // guarded by mutex_
  int restoresFinished_ = 0;                       // guarded by mutex_
};

class SandboxPurchase : public SandboxTest {
 protected:
  void SetUp() override;
  // Lets calls the SDK still has in flight (the user info that follows a
  // verification) land before the sandbox stops: a channel that loses its
  // server at process exit reconnects into a torn-down TLS library.
  void TearDown() override;

  // The demo products, the sandbox's bundle id and its offer key.
  nlohmann::json storeConfig() const;
  void writeStoreConfig(const std::string& text);
  // Registers `log` with the queue before the SDK's own observer exists
  // when called first, so it hears of each update before the SDK does.
  std::shared_ptr<QueueLog> watchQueue(std::function<void(const SKPaymentTransaction&)> onUpdate = {});

  SKProductPtr product(const std::string& id);
  OVPurchase::TransactionCompletion into(Await<Bought>& bought);
  OVPurchase::SubscriberCompletion into(Await<Restored>& restored);
  Bought buy(const std::string& id);

  std::filesystem::path storeConfigPath;
  std::filesystem::path receiptKeyPath;
  std::shared_ptr<LocalStore> store;
};

// Polls `condition` until it holds or `limit` passes.
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds limit = std::chrono::seconds(20));

}  // namespace velquin::testing
