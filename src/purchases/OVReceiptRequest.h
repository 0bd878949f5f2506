// Refreshes the app's store receipt and turns the store's answer into the
// receipt file's bytes or the store's error.
//
// Ownership and threads: made by create() and owned by the orchestrator
// (the running store request holds it weakly as its delegate). refresh()
// may be called from any thread; completions run on the main queue, outside
// the lock. A refresh asked for while one runs joins it: every waiting
// completion gets the same answer, once.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "support/Mutex.h"
#include "velquin/OVPurchase.h"
#include "velquin/StoreKit.h"

namespace velquin {

using ReceiptCompletion = std::function<void(std::optional<ReceiptData>, std::optional<Error>)>;

class OVReceiptRequest final : public SKRequestDelegate,
                               public std::enable_shared_from_this<OVReceiptRequest> {
 public:
  static std::shared_ptr<OVReceiptRequest> create();

  // Asks the store for a fresh receipt. The completion gets the receipt file
  // afterwards (absent, with no error, when the store wrote none) or the
  // store's error.
  void refresh(ReceiptCompletion completion);
  bool isRefreshing() const;

  // SKRequestDelegate (main queue). Answers of other kinds of requests are
  // ignored.
  void requestDidFinish(SKRequest& request) override;
  void requestDidFailWithError(SKRequest& request, const Error& error) override;

 private:
  OVReceiptRequest() = default;
  // Clears the running refresh and returns its completions; none when
  // `request` is not the running refresh.
  std::vector<ReceiptCompletion> takeCompletions(SKRequest& request);

  mutable support::Mutex mutex_;
  std::shared_ptr<SKReceiptRefreshRequest> receiptRequest_ GUARDED_BY(mutex_);
  std::vector<ReceiptCompletion> receiptRequestCompletions_ GUARDED_BY(mutex_);
};

}  // namespace velquin
