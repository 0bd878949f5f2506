// Small stand-ins for the store, for cases the local store cannot express
// (dateless transactions, answers in a chosen order, a store that never
// answers) and a delegate that records what the wrapper tells it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "velquin/MainQueue.h"
#include "velquin/OVPurchase.h"
#include "velquin/StoreKit.h"

namespace velquin::testing {

class FakeQueue final : public SKPaymentQueue {
 public:
  void addTransactionObserver(std::weak_ptr<SKPaymentTransactionObserver>) override {}
  void removeTransactionObserver(const std::weak_ptr<SKPaymentTransactionObserver>&) override {}
  void addPayment(const SKPayment&) override {}
  void finishTransaction(const SKPaymentTransactionPtr&) override {}
  void restoreCompletedTransactions(std::optional<std::string>) override { ++restores; }
  bool canMakePayments() const override { return true; }
  std::vector<SKPaymentTransactionPtr> transactions() const override { return {}; }

  std::atomic<int> restores{0};
};

// Keeps every request's handler until the test answers it.
class FakeStore final : public StoreBackend {
 public:
  std::shared_ptr<SKPaymentQueue> paymentQueue() override { return queue; }
  void lookUpProducts(const std::set<std::string>& ids, ProductsHandler done) override {
    std::lock_guard lock(mutex);
    lookups.emplace_back(ids, std::move(done));
  }
  void refreshReceipt(DoneHandler done) override {
    std::lock_guard lock(mutex);
    refreshes.push_back(std::move(done));
  }
  std::optional<std::filesystem::path> appStoreReceiptPath() const override { return receipt; }

  std::shared_ptr<FakeQueue> queue = std::make_shared<FakeQueue>();
  std::filesystem::path receipt;
  std::mutex mutex;
  std::vector<std::pair<std::set<std::string>, ProductsHandler>> lookups;  // guarded by mutex
  std::vector<DoneHandler> refreshes;                                      // guarded by mutex
};

inline SKProductPtr makeProduct(const std::string& id, const std::string& price = "4.99",
                                std::vector<std::string> offers = {}) {
  auto product = std::make_shared<SKProduct>();
  product->productIdentifier = id;
  product->localizedTitle = id;
  product->price = *SKDecimalNumber::fromString(price);
  product->priceLocale = {"en_US", "USD"};
  for (const auto& offer : offers) {
    SKProductDiscount discount;
    discount.identifier = offer;
    discount.price = *SKDecimalNumber::fromString("1.25");
    product->discounts.push_back(discount);
  }
  return product;
}

// A transaction of `state` at `minute` past 10:00 (no date when minute < 0).
inline SKPaymentTransactionPtr makeTransaction(const std::string& id,
                                               SKPaymentTransactionState state, int minute) {
  auto transaction = std::make_shared<SKPaymentTransaction>(
      SKPaymentTransaction{id, state, std::nullopt, SKPayment(*makeProduct("p")), std::nullopt,
                           nullptr});
  if (minute >= 0) {
    transaction->transactionDate = std::chrono::system_clock::time_point(
        std::chrono::hours(10) + std::chrono::minutes(minute));
  }
  return transaction;
}

// Drives MainQueue::shared()'s timers by hand.
class ManualClock {
 public:
  ManualClock() {
    MainQueue::shared().setNowFunction([this] {
      return base_ + std::chrono::milliseconds(offsetMs_.load());
    });
  }
  ~ManualClock() { MainQueue::shared().setNowFunction(nullptr); }
  // Moves time on and returns once every timer due by then has run.
  void advanceTo(std::chrono::milliseconds sinceStart) {
    offsetMs_ = sinceStart.count();
    MainQueue::shared().fireDueTimers();
    MainQueue::shared().sync([] {});
  }

 private:
  const MainQueue::Clock::time_point base_ = MainQueue::Clock::now();
  std::atomic<std::int64_t> offsetMs_{0};
};

}  // namespace velquin::testing
