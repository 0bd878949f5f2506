#include "purchases/OVStoreKitWrapper.h"

#include <fstream>
#include <iterator>

#include "support/OVUtils.h"

namespace velquin {

std::optional<ReceiptData> readAppStoreReceipt() {
  auto path = StoreKit::appStoreReceiptPath();
  if (!path) return std::nullopt;
  std::ifstream file(*path, std::ios::binary);
  if (!file) return std::nullopt;
  ReceiptData bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (file.bad()) return std::nullopt;
  return bytes;
}

bool newerTransactionFirst(const SKPaymentTransaction& a, const SKPaymentTransaction& b) {
  if (!a.transactionDate || !b.transactionDate) return true;
  return *a.transactionDate > *b.transactionDate;
}

std::vector<SKPaymentTransactionPtr> sortNewestFirst(std::vector<SKPaymentTransactionPtr> batch) {
  // std::sort needs a strict weak ordering and may run past the ends without
  // one; this loop only ever compares neighbours inside the vector.
  for (std::size_t i = 1; i < batch.size(); ++i) {
    for (std::size_t j = i; j > 0 && newerTransactionFirst(*batch[j], *batch[j - 1]); --j) {
      std::swap(batch[j], batch[j - 1]);
    }
  }
  return batch;
}

std::shared_ptr<OVStoreKitWrapper> OVStoreKitWrapper::create(
    std::weak_ptr<StoreKitWrapperDelegate> delegate, std::shared_ptr<SKPaymentQueue> queue) {
  std::shared_ptr<OVStoreKitWrapper> wrapper(
      new OVStoreKitWrapper(std::move(delegate), std::move(queue)));
  wrapper->paymentQueue_->addTransactionObserver(wrapper);
  return wrapper;
}

OVStoreKitWrapper::OVStoreKitWrapper(std::weak_ptr<StoreKitWrapperDelegate> delegate,
                                     std::shared_ptr<SKPaymentQueue> queue)
    : delegate_(std::move(delegate)), paymentQueue_(std::move(queue)) {}

OVStoreKitWrapper::~OVStoreKitWrapper() {
  support::MutexLock lock(mutex_);
  if (restoreTimer_) MainQueue::shared().cancel(*restoreTimer_);
}

bool OVStoreKitWrapper::isRecovering() const {
  support::MutexLock lock(mutex_);
  return isRecovering_;
}

bool OVStoreKitWrapper::didHandleRestore() const {
  support::MutexLock lock(mutex_);
  return didHandleRestore_;
}

void OVStoreKitWrapper::restore() {
  {
    support::MutexLock lock(mutex_);
    // The time-out applies on every Linux system. A second restore while one
    // runs keeps the first time-out.
    if (!isRecovering_) {
      isRecovering_ = true;
      didHandleRestore_ = false;
      restoreTimer_ = MainQueue::shared().after(
          std::chrono::duration_cast<std::chrono::milliseconds>(kRestoreTimeout),
          [weak = weak_from_this()] {
            if (auto self = weak.lock()) self->deallineRestoreToHandle();
          });
    }
  }
  paymentQueue_->restoreCompletedTransactions();
}

void OVStoreKitWrapper::deallineRestoreToHandle() {
  {
    support::MutexLock lock(mutex_);
    if (didHandleRestore_) return;
    isRecovering_ = false;
    didHandleRestore_ = true;
    restoreTimer_.reset();
  }
  Error error{kRestoreErrorDomain, kRestoreTimedOutCode, "restore request timed out"};
  if (auto delegate = delegate_.lock()) delegate->storeKitWrapperRestoreDidFail(error);
}

void OVStoreKitWrapper::closeRestore() {
  support::MutexLock lock(mutex_);
  if (restoreTimer_) MainQueue::shared().cancel(*restoreTimer_);
  restoreTimer_.reset();
  isRecovering_ = false;
  didHandleRestore_ = true;
}

void OVStoreKitWrapper::updatedTransactions(
    SKPaymentQueue& /*queue*/, const std::vector<SKPaymentTransactionPtr>& transactions) {
  auto sorted = sortNewestFirst(transactions);
  if (sorted.empty() || !sorted.front()) return;
  // Only the newest transaction is looked at; the rest travel along.
  const SKPaymentTransactionPtr& newest = sorted.front();
  switch (newest->transactionState) {
    case SKPaymentTransactionState::purchased:
    case SKPaymentTransactionState::restored: {
      auto delegate = delegate_.lock();
      if (!delegate) return;
      delegate->storeKitWrapperDidUpdateTransaction(readAppStoreReceipt(), newest, transactions);
      return;
    }
    case SKPaymentTransactionState::failed:
      if (auto delegate = delegate_.lock()) delegate->storeKitWrapperDidFailTransaction(newest);
      return;
    case SKPaymentTransactionState::purchasing:
    case SKPaymentTransactionState::deferred:
      return;
  }
}

void OVStoreKitWrapper::restoreCompletedTransactionsFinished(SKPaymentQueue& queue) {
  closeRestore();
  if (auto delegate = delegate_.lock()) delegate->storeKitWrapperRestoreDidFinish(queue);
}

void OVStoreKitWrapper::restoreCompletedTransactionsFailedWithError(SKPaymentQueue& /*queue*/,
                                                                    const Error& error) {
  closeRestore();
  if (auto delegate = delegate_.lock()) delegate->storeKitWrapperRestoreDidFail(error);
}

bool OVStoreKitWrapper::shouldAddStorePayment(SKPaymentQueue& /*queue*/, const SKPayment& payment,
                                              const SKProductPtr& product) {
  OVPromotingInAppPurchaseStatus status = OVUtils::shared().promotingStatus.load();
  if (auto delegate = delegate_.lock()) {
    if (auto observer = delegate->promotingObserver()) {
      observer->ovPromotingAddStorePaymentWithStatus(status, payment, product);
    }
  }
  // 1 and 2 leave the payment to the app; 0 (and anything past 2) let the
  // store go on, whether or not an observer was told.
  auto raw = static_cast<std::int32_t>(status);
  return !(raw == 1 || raw == 2);
}

}  // namespace velquin
