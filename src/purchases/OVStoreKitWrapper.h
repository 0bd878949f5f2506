// The SDK's one observer of the store's payment queue. It reduces each batch
// of transaction updates to its newest transaction and tells its delegate
// (the orchestrator) with the receipt file's bytes; it starts restores and
// guards each with a 30-second time-out; and it answers the store's question
// whether a promoted purchase may go on. It never finishes a transaction.
//
// Ownership and threads: made by create() and owned by the orchestrator; the
// queue and the delegate are held weakly by each other's side (the queue
// holds the wrapper weakly, the wrapper holds the delegate weakly), so either
// may go first and a vanished delegate silently drops every event. Store
// callbacks and the time-out run on the main queue; restore() may be called
// from any thread.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "support/Mutex.h"
#include "velquin/MainQueue.h"
#include "velquin/OVPurchase.h"
#include "velquin/StoreKit.h"

namespace velquin {

// What the store transaction wrapper tells its owner. Every call runs on the
// main queue.
class StoreKitWrapperDelegate {
 public:
  virtual ~StoreKitWrapperDelegate() = default;
  // The newest transaction of a batch was purchased or restored. `receipt` is
  // the receipt file as it is on disk (absent without a readable file).
  virtual void storeKitWrapperDidUpdateTransaction(
      std::optional<ReceiptData> receipt, const SKPaymentTransactionPtr& transaction,
      const std::vector<SKPaymentTransactionPtr>& transactions) = 0;
  virtual void storeKitWrapperDidFailTransaction(const SKPaymentTransactionPtr& transaction) = 0;
  virtual void storeKitWrapperRestoreDidFinish(SKPaymentQueue& queue) = 0;
  // A store restore error, or the restore time-out.
  virtual void storeKitWrapperRestoreDidFail(const Error& error) = 0;
  // The host's promoted-purchase observer, when one is installed and alive.
  virtual std::shared_ptr<OVPromotingObserverProtocol> promotingObserver() const = 0;
};

// The receipt file of the active store as it is on disk; absent when there is
// no receipt location or the file cannot be read. No parsing, no encoding.
std::optional<ReceiptData> readAppStoreReceipt();

// The wrapper's batch order: a goes before b when either has no date or a's
// date is later than b's. With dateless transactions this is not a strict
// ordering; sortNewestFirst() uses a plain insertion sort that stays in
// bounds for any test, so such batches get a fixed, if arbitrary, order.
bool newerTransactionFirst(const SKPaymentTransaction& a, const SKPaymentTransaction& b);
std::vector<SKPaymentTransactionPtr> sortNewestFirst(std::vector<SKPaymentTransactionPtr> batch);

class OVStoreKitWrapper final : public SKPaymentTransactionObserver,
                                public std::enable_shared_from_this<OVStoreKitWrapper> {
 public:
  static constexpr const char* kRestoreErrorDomain = "com.apple.restore";
  static constexpr std::int64_t kRestoreTimedOutCode = 113;
  static constexpr std::chrono::seconds kRestoreTimeout{30};

  // Takes `queue` (the default payment queue unless given) and registers as
  // its observer.
  static std::shared_ptr<OVStoreKitWrapper> create(
      std::weak_ptr<StoreKitWrapperDelegate> delegate,
      std::shared_ptr<SKPaymentQueue> queue = SKPaymentQueue::defaultQueue());
  ~OVStoreKitWrapper() override;

  SKPaymentQueue& paymentQueue() const { return *paymentQueue_; }

  // Arms the time-out unless a restore is already running, then asks the
  // queue to restore (also when one was running).
  void restore();
  // The time-out: answers a restore that nobody answered yet with the
  // "com.apple.restore" 113 error.
  void deallineRestoreToHandle();

  bool isRecovering() const;
  bool didHandleRestore() const;

  // SKPaymentTransactionObserver (main queue).
  void updatedTransactions(SKPaymentQueue& queue,
                           const std::vector<SKPaymentTransactionPtr>& transactions) override;
  void restoreCompletedTransactionsFinished(SKPaymentQueue& queue) override;
  void restoreCompletedTransactionsFailedWithError(SKPaymentQueue& queue,
                                                   const Error& error) override;
  bool shouldAddStorePayment(SKPaymentQueue& queue, const SKPayment& payment,
                             const SKProductPtr& product) override;

 private:
  OVStoreKitWrapper(std::weak_ptr<StoreKitWrapperDelegate> delegate,
                    std::shared_ptr<SKPaymentQueue> queue);
  // Disarms the time-out and marks the running restore answered.
  void closeRestore();

  const std::weak_ptr<StoreKitWrapperDelegate> delegate_;
  const std::shared_ptr<SKPaymentQueue> paymentQueue_;

  mutable support::Mutex mutex_;
  bool isRecovering_ GUARDED_BY(mutex_) = false;
  bool didHandleRestore_ GUARDED_BY(mutex_) = false;
  std::optional<MainQueue::TimerId> restoreTimer_ GUARDED_BY(mutex_);
};

}  // namespace velquin
