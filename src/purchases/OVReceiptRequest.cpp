#include "purchases/OVReceiptRequest.h"

#include "purchases/OVStoreKitWrapper.h"
#include "support/OVUtils.h"

namespace velquin {

std::shared_ptr<OVReceiptRequest> OVReceiptRequest::create() {
  return std::shared_ptr<OVReceiptRequest>(new OVReceiptRequest());
}

void OVReceiptRequest::refresh(ReceiptCompletion completion) {
  std::shared_ptr<SKReceiptRefreshRequest> request;
  {
    support::MutexLock lock(mutex_);
    receiptRequestCompletions_.push_back(std::move(completion));
    if (receiptRequest_) return;  // joins the running refresh
    request = receiptRequest_ = SKReceiptRefreshRequest::create();
  }
  request->setDelegate(weak_from_this());
  request->start();
}

bool OVReceiptRequest::isRefreshing() const {
  support::MutexLock lock(mutex_);
  return receiptRequest_ != nullptr;
}

std::vector<ReceiptCompletion> OVReceiptRequest::takeCompletions(SKRequest& request) {
  support::MutexLock lock(mutex_);
  if (!dynamic_cast<SKReceiptRefreshRequest*>(&request) || receiptRequest_.get() != &request) {
    return {};
  }
  receiptRequest_.reset();
  return std::exchange(receiptRequestCompletions_, {});
}

void OVReceiptRequest::requestDidFinish(SKRequest& request) {
  auto completions = takeCompletions(request);
  if (completions.empty()) return;
  auto receipt = readAppStoreReceipt();
  for (auto& completion : completions) {
    if (completion) completion(receipt, std::nullopt);
  }
}

void OVReceiptRequest::requestDidFailWithError(SKRequest& request, const Error& error) {
  if (!dynamic_cast<SKReceiptRefreshRequest*>(&request)) return;
  log("Receipt refresh failed with error:\n" + error.localizedDescription());
  for (auto& completion : takeCompletions(request)) {
    if (completion) completion(std::nullopt, error);
  }
}

}  // namespace velquin
