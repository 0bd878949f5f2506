// A sandbox that trusts the local store's receipts, the application's
// default local store configured from a file the test writes (so a
// command-line host started by the test sells from the same store), and
// helpers to buy and wait.
#pragma once

#include <algorithm>
#include <functional>
#include <mutex>

#include <nlohmann/json.hpp>

#include "velquin/LocalStore.h"
#include "SandboxFixture.h"
#include "support/Await.h"
#include "velquin/OVPurchase.h"

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

// Counts the queue's reports; observers are told in the order they came.
class QueueLog final : public SKPaymentTransactionObserver {
 public:
  void updatedTransactions(SKPaymentQueue&, const std::vector<SKPaymentTransactionPtr>& batch) override {
    for (const auto& transaction : batch) {
      if (onUpdate) onUpdate(*transaction);
      std::lock_guard lock(mutex_);
      states_.push_back(transaction->transactionState);
    }
  }
  void restoreCompletedTransactionsFinished(SKPaymentQueue&) override { ++restoresFinished; }
  int count(SKPaymentTransactionState state) const {
    std::lock_guard lock(mutex_);
    return static_cast<int>(std::count(states_.begin(), states_.end(), state));
  }
  std::function<void(const SKPaymentTransaction&)> onUpdate;  // set before registering
  std::atomic<int> restoresFinished{0};

 private:
  mutable std::mutex mutex_;
  std::vector<SKPaymentTransactionState> states_;  // guarded by mutex_
};

class SandboxPurchase : public SandboxTest {
 protected:
  void SetUp() override;
  // Lets calls the SDK still has in flight land before the sandbox stops: a
  // channel that loses its server at exit reconnects into torn-down TLS.
  void TearDown() override;

  // The demo products with the sandbox's bundle id and offer key.
  nlohmann::json storeConfig() const;
  void writeStoreConfig(const std::string& text);
  std::shared_ptr<QueueLog> watchQueue(std::function<void(const SKPaymentTransaction&)> onUpdate = {});
  SKProductPtr product(const std::string& id);
  OVPurchase::TransactionCompletion into(Await<Bought>& bought);
  OVPurchase::SubscriberCompletion into(Await<Restored>& restored);
  Bought buy(const std::string& id);

  std::filesystem::path storeConfigPath;
  std::shared_ptr<LocalStore> store;
};

bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds limit = std::chrono::seconds(20));

}  // namespace velquin::testing
