// The store transaction wrapper over a fake queue: which transaction of a
// batch is reported, and the restore guard under a manual clock.
#include <gtest/gtest.h>

#include "StoreFakes.h"
#include "purchases/OVStoreKitWrapper.h"
#include "support/TempEnvironment.h"

namespace velquin::testing {
namespace {

using namespace std::chrono_literals;
using State = SKPaymentTransactionState;

class RecordingDelegate final : public StoreKitWrapperDelegate {
 public:
  void storeKitWrapperDidUpdateTransaction(std::optional<ReceiptData>,
                                           const SKPaymentTransactionPtr& transaction,
                                           const std::vector<SKPaymentTransactionPtr>&) override {
    record("updated " + transaction->transactionIdentifier);
  }
  void storeKitWrapperDidFailTransaction(const SKPaymentTransactionPtr& transaction) override {
    record("failed " + transaction->transactionIdentifier);
  }
  void storeKitWrapperRestoreDidFinish(SKPaymentQueue&) override { record("restore finished"); }
  void storeKitWrapperRestoreDidFail(const Error& error) override {
    record("restore failed " + error.domain + " " + std::to_string(error.code));
  }
  std::shared_ptr<OVPromotingObserverProtocol> promotingObserver() const override {
    return nullptr;
  }
  std::vector<std::string> events() {
    std::lock_guard lock(mutex_);
    return events_;
  }

 private:
  void record(std::string event) {
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
  }
  std::mutex mutex_;
  std::vector<std::string> events_;  // guarded by mutex_ (time-outs come on the main queue)
};

class StoreKitWrapper : public ::testing::Test {
 protected:
  void SetUp() override {
    env.installAsMainBundle();
    StoreKit::install(store);
    wrapper = OVStoreKitWrapper::create(delegate, store->queue);
  }
  void report(std::vector<SKPaymentTransactionPtr> batch) {
    wrapper->updatedTransactions(*store->queue, batch);
  }

  TempEnvironment env;
  std::shared_ptr<FakeStore> store = std::make_shared<FakeStore>();
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<OVStoreKitWrapper> wrapper;
};

TEST_F(StoreKitWrapper, OnlyTheNewestTransactionOfABatchDecides) {
  report({makeTransaction("A", State::failed, 0), makeTransaction("B", State::purchased, 5)});
  report({makeTransaction("C", State::purchased, 0), makeTransaction("D", State::failed, 5)});
  // A newest deferred or purchasing transaction silences the older ones.
  report({makeTransaction("E", State::purchased, 0), makeTransaction("F", State::deferred, 5)});
  report({makeTransaction("G", State::restored, 0), makeTransaction("H", State::purchasing, 5)});
  report({});
  // Without a date the test says "first" both ways: the later of two wins.
  report({makeTransaction("I", State::failed, 5), makeTransaction("J", State::purchased, -1)});
  report({makeTransaction("K", State::purchased, -1), makeTransaction("L", State::failed, 5)});
  EXPECT_EQ(delegate->events(),
            (std::vector<std::string>{"updated B", "failed D", "updated J", "failed L"}));
}

TEST_F(StoreKitWrapper, ARestoreWithoutAnAnswerTimesOutOnceThirtySecondsAfterItStarted) {
  ManualClock clock;
  wrapper->restore();
  clock.advanceTo(10s);
  wrapper->restore();  // asks the store again without re-arming the time-out
  EXPECT_EQ(store->queue->restores, 2);
  clock.advanceTo(29s);
  EXPECT_TRUE(delegate->events().empty());
  clock.advanceTo(70s);
  EXPECT_EQ(delegate->events(), std::vector<std::string>{"restore failed com.apple.restore 113"});
  EXPECT_FALSE(wrapper->isRecovering());

  // A store answer after the time-out still reaches the delegate.
  wrapper->restoreCompletedTransactionsFinished(*store->queue);
  // An answered restore is disarmed; the next one arms a fresh time-out.
  wrapper->restore();
  wrapper->restoreCompletedTransactionsFinished(*store->queue);
  clock.advanceTo(110s);
  EXPECT_EQ(delegate->events().size(), 3u);
  wrapper->restore();
  clock.advanceTo(140s);
  EXPECT_EQ(delegate->events().back(), "restore failed com.apple.restore 113");
  EXPECT_EQ(delegate->events().size(), 4u);
}

}  // namespace
}  // namespace velquin::testing
