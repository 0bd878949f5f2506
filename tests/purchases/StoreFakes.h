// Stand-ins for the store where the local store cannot express a case
// (dateless transactions, answers in a chosen order), and a manual clock for
// MainQueue::shared()'s timers.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "velquin/MainQueue.h"
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

// Keeps every request's handler until the test answers it (test thread only).
class FakeStore final : public StoreBackend {
 public:
  std::shared_ptr<SKPaymentQueue> paymentQueue() override { return queue; }
  void lookUpProducts(const std::set<std::string>& ids, ProductsHandler done) override {
    lookups.emplace_back(ids, std::move(done));
  }
  void refreshReceipt(DoneHandler done) override { refreshes.push_back(std::move(done)); }
  std::optional<std::filesystem::path> appStoreReceiptPath() const override { return receipt; }

  std::shared_ptr<FakeQueue> queue = std::make_shared<FakeQueue>();
  std::filesystem::path receipt;
  std::vector<std::pair<std::set<std::string>, ProductsHandler>> lookups;
  std::vector<DoneHandler> refreshes;
};

inline SKProductPtr makeProduct(const std::string& id, const std::string& title = "") {
  auto product = std::make_shared<SKProduct>();
  product->productIdentifier = id;
  product->localizedTitle = title.empty() ? id : title;
  product->price = *SKDecimalNumber::fromString("4.99");
  return product;
}

// A transaction of `state` at `minute` past 10:00 (no date when minute < 0).
inline SKPaymentTransactionPtr makeTransaction(const std::string& id,
                                               SKPaymentTransactionState state, int minute) {
  auto transaction = std::make_shared<SKPaymentTransaction>(SKPaymentTransaction{
      id, state, std::nullopt, SKPayment(*makeProduct("p")), std::nullopt, nullptr});
  if (minute >= 0) {
    transaction->transactionDate = std::chrono::system_clock::time_point(
        std::chrono::hours(10) + std::chrono::minutes(minute));
  }
  return transaction;
}

class ManualClock {
 public:
  ManualClock() {
    MainQueue::shared().setNowFunction(
        [this] { return base_ + std::chrono::milliseconds(offsetMs_.load()); });
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
