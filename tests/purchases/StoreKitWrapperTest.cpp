// The store transaction wrapper over a fake queue: which transaction of a
// batch is reported, the restore guard under a manual clock, and the answer
// to promoted purchases.
#include <gtest/gtest.h>

#include <fstream>

#include "StoreFakes.h"
#include "facade/OVUtils.h"
#include "purchases/OVStoreKitWrapper.h"
#include "support/TempEnvironment.h"

namespace velquin::testing {
namespace {

using namespace std::chrono_literals;
using State = SKPaymentTransactionState;

class RecordingDelegate final : public StoreKitWrapperDelegate {
 public:
  void storeKitWrapperDidUpdateTransaction(std::optional<ReceiptData> receipt,
                                           const SKPaymentTransactionPtr& transaction,
                                           const std::vector<SKPaymentTransactionPtr>& all) override {
    record("updated " + transaction->transactionIdentifier + " of " + std::to_string(all.size()));
    std::lock_guard lock(mutex);
    lastReceipt = std::move(receipt);
  }
  void storeKitWrapperDidFailTransaction(const SKPaymentTransactionPtr& transaction) override {
    record("failed " + transaction->transactionIdentifier);
  }
  void storeKitWrapperRestoreDidFinish(SKPaymentQueue&) override { record("restore finished"); }
  void storeKitWrapperRestoreDidFail(const Error& error) override {
    record("restore failed " + error.domain + " " + std::to_string(error.code) + " " +
           error.message);
  }
  std::shared_ptr<OVPromotingObserverProtocol> promotingObserver() const override {
    return observer;
  }

  std::vector<std::string> events() {
    std::lock_guard lock(mutex);
    return events_;
  }
  void record(std::string event) {
    std::lock_guard lock(mutex);
    events_.push_back(std::move(event));
  }

  std::shared_ptr<OVPromotingObserverProtocol> observer;
  std::mutex mutex;
  std::optional<ReceiptData> lastReceipt;  // guarded by mutex

 private:
  std::vector<std::string> events_;  // guarded by mutex
};

class PromotionRecorder final : public OVPromotingObserverProtocol {
 public:
  void ovPromotingAddStorePaymentWithStatus(OVPromotingInAppPurchaseStatus status,
                                            const SKPayment& payment,
                                            const SKProductPtr&) override {
    told.push_back(std::to_string(static_cast<int>(status)) + " " + payment.productIdentifier());
  }
  std::vector<std::string> told;
};

class StoreKitWrapper : public ::testing::Test {
 protected:
  void SetUp() override {
    env.installAsMainBundle();
    store->receipt = env.root() / "receipt";
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

TEST_F(StoreKitWrapper, OnlyTheNewestTransactionOfABatchIsReported) {
  auto failedAt1000 = makeTransaction("A", State::failed, 0);
  auto purchasedAt1005 = makeTransaction("B", State::purchased, 5);
  report({failedAt1000, purchasedAt1005});
  report({purchasedAt1005, failedAt1000});
  EXPECT_EQ(delegate->events(),
            (std::vector<std::string>{"updated B of 2", "updated B of 2"}));

  report({makeTransaction("C", State::purchased, 0), makeTransaction("D", State::failed, 5)});
  EXPECT_EQ(delegate->events().back(), "failed D");
}

TEST_F(StoreKitWrapper, ANewestDeferredOrPurchasingTransactionSilencesTheBatch) {
  report({makeTransaction("A", State::purchased, 0), makeTransaction("B", State::deferred, 5)});
  report({makeTransaction("C", State::restored, 0), makeTransaction("D", State::purchasing, 5)});
  report({});
  EXPECT_TRUE(delegate->events().empty());
}

TEST_F(StoreKitWrapper, ADatelessTransactionWinsOverTheOneBeforeIt) {
  // With no date the ordering test says "first" both ways; the later of the
  // two in the batch ends up in front.
  report({makeTransaction("dated", State::failed, 5), makeTransaction("dateless", State::purchased, -1)});
  report({makeTransaction("dateless", State::purchased, -1), makeTransaction("dated", State::failed, 5)});
  EXPECT_EQ(delegate->events(), (std::vector<std::string>{"updated dateless of 2", "failed dated"}));
}

TEST_F(StoreKitWrapper, TheReceiptFileTravelsWithTheTransaction) {
  report({makeTransaction("A", State::purchased, 0)});
  EXPECT_FALSE(delegate->lastReceipt.has_value());

  std::ofstream(store->receipt, std::ios::binary) << "signed receipt";
  report({makeTransaction("B", State::restored, 0)});
  ASSERT_TRUE(delegate->lastReceipt.has_value());
  EXPECT_EQ(std::string(delegate->lastReceipt->begin(), delegate->lastReceipt->end()),
            "signed receipt");
}

TEST_F(StoreKitWrapper, ARestoreWithoutAnAnswerTimesOutOnceThirtySecondsAfterItStarted) {
  ManualClock clock;
  wrapper->restore();
  clock.advanceTo(10s);
  wrapper->restore();  // does not re-arm the time-out, but asks the store again
  EXPECT_EQ(store->queue->restores, 2);
  EXPECT_TRUE(wrapper->isRecovering());

  clock.advanceTo(29s);
  EXPECT_TRUE(delegate->events().empty());
  clock.advanceTo(30s);
  clock.advanceTo(70s);
  EXPECT_EQ(delegate->events(), (std::vector<std::string>{
                                    "restore failed com.apple.restore 113 restore request timed out"}));
  EXPECT_FALSE(wrapper->isRecovering());
  EXPECT_TRUE(wrapper->didHandleRestore());

  // A store answer after the time-out still reaches the delegate.
  wrapper->restoreCompletedTransactionsFinished(*store->queue);
  EXPECT_EQ(delegate->events().back(), "restore finished");
}

TEST_F(StoreKitWrapper, AStoreAnswerDisarmsTheTimeOut) {
  ManualClock clock;
  wrapper->restore();
  wrapper->restoreCompletedTransactionsFailedWithError(*store->queue,
                                                       makeSKError(SKErrorCode::unknown, "no"));
  clock.advanceTo(31s);
  EXPECT_EQ(delegate->events(), (std::vector<std::string>{"restore failed SKErrorDomain 0 no"}));

  // The next restore arms a fresh time-out.
  wrapper->restore();
  clock.advanceTo(61s);
  EXPECT_EQ(delegate->events().size(), 2u);
}

TEST_F(StoreKitWrapper, PromotedPurchasesProceedOnlyWithStatusZero) {
  auto product = makeProduct("promoted");
  SKPayment payment(*product);
  for (bool withObserver : {false, true}) {
    auto recorder = std::make_shared<PromotionRecorder>();
    delegate->observer = withObserver ? recorder : nullptr;
    for (int status : {0, 1, 2}) {
      OVUtils::shared().promotingStatus = static_cast<OVPromotingInAppPurchaseStatus>(status);
      EXPECT_EQ(wrapper->shouldAddStorePayment(*store->queue, payment, product), status == 0)
          << "status " << status;
    }
    if (withObserver) {
      EXPECT_EQ(recorder->told,
                (std::vector<std::string>{"0 promoted", "1 promoted", "2 promoted"}));
    }
  }
}

TEST_F(StoreKitWrapper, AVanishedDelegateDropsEverything) {
  ManualClock clock;
  wrapper->restore();
  delegate.reset();
  report({makeTransaction("A", State::purchased, 0)});
  report({makeTransaction("B", State::failed, 0)});
  clock.advanceTo(31s);
  OVUtils::shared().promotingStatus = OVPromotingInAppPurchaseStatus::proceed;
  EXPECT_TRUE(wrapper->shouldAddStorePayment(*store->queue, SKPayment(*makeProduct("p")),
                                             makeProduct("p")));
}

}  // namespace
}  // namespace velquin::testing
