#include "purchases/OVProductRequest.h"

#include "support/OVUtils.h"

namespace velquin {

std::shared_ptr<OVProductRequest> OVProductRequest::create() {
  return std::shared_ptr<OVProductRequest>(new OVProductRequest());
}

void OVProductRequest::fetchProducts(const std::set<std::string>& productIds,
                                     ProductsCompletion completion) {
  auto request = SKProductsRequest::create(productIds);
  // Listed before the request starts, so an answer can never overtake its
  // entry and leave the caller waiting forever.
  {
    support::MutexLock lock(lock_);
    productsRequestCompletionHandlerObjects_.emplace_back(request, std::move(completion));
  }
  request->setDelegate(weak_from_this());
  request->start();
}

std::size_t OVProductRequest::pendingCount() const {
  support::MutexLock lock(lock_);
  return productsRequestCompletionHandlerObjects_.size();
}

std::vector<OVProductsRequestCompletionHandlerObject> OVProductRequest::takeEntries(
    const SKRequest& request) {
  std::vector<OVProductsRequestCompletionHandlerObject> taken;
  support::MutexLock lock(lock_);
  auto& entries = productsRequestCompletionHandlerObjects_;
  for (auto it = entries.begin(); it != entries.end();) {
    if (it->productsRequest.get() == &request) {
      taken.push_back(std::move(*it));
      it = entries.erase(it);
    } else {
      ++it;
    }
  }
  return taken;
}

void OVProductRequest::productsRequestDidReceiveResponse(SKProductsRequest& request,
                                                         const SKProductsResponse& response) {
  for (auto& entry : takeEntries(request)) {
    if (entry.productsRequestCompletionHandler) {
      entry.productsRequestCompletionHandler(response.products, std::nullopt);
    }
  }
  for (const auto& id : response.invalidProductIdentifiers) {
    log("Found invalid product: " + id);
  }
}

void OVProductRequest::requestDidFailWithError(SKRequest& request, const Error& error) {
  log("Fetch of SKProduct failed with error: \n" + error.localizedDescription());
  for (auto& entry : takeEntries(request)) {
    if (entry.productsRequestCompletionHandler) {
      entry.productsRequestCompletionHandler({}, error);
    }
  }
}

}  // namespace velquin
