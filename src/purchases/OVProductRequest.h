// The product catalogue: fetches store products for a set of identifiers and
// hands each caller its own answer. Every fetch starts its own store request;
// concurrent fetches are never merged. Answers are matched to callers by the
// identity of the store request, through a lock-guarded list of pending
// entries.
//
// Ownership and threads: made by create() and owned by the orchestrator
// (the store holds it weakly as a request delegate). fetchProducts() may be
// called from any thread; completions run on the main queue (the store's
// callback thread), outside the lock, so a completion may start another
// fetch.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/Mutex.h"
#include "velquin/StoreKit.h"

namespace velquin {

using ProductsCompletion = std::function<void(std::vector<SKProductPtr>, std::optional<Error>)>;

// One fetch whose answer has not arrived.
class OVProductsRequestCompletionHandlerObject {
 public:
  OVProductsRequestCompletionHandlerObject(std::shared_ptr<SKProductsRequest> request,
                                           ProductsCompletion completion)
      : productsRequest(std::move(request)),
        productsRequestCompletionHandler(std::move(completion)) {}

  std::shared_ptr<SKProductsRequest> productsRequest;
  ProductsCompletion productsRequestCompletionHandler;
};

class OVProductRequest final : public SKProductsRequestDelegate,
                               public std::enable_shared_from_this<OVProductRequest> {
 public:
  static std::shared_ptr<OVProductRequest> create();

  // Returns at once; the completion runs once with the store's products (in
  // the store's order, unknown ids left out) or an empty list and the store's
  // error.
  void fetchProducts(const std::set<std::string>& productIds, ProductsCompletion completion);

  // Fetches still waiting for the store.
  std::size_t pendingCount() const;

  // SKProductsRequestDelegate (main queue).
  void productsRequestDidReceiveResponse(SKProductsRequest& request,
                                         const SKProductsResponse& response) override;
  void requestDidFailWithError(SKRequest& request, const Error& error) override;

 private:
  OVProductRequest() = default;
  // Removes and returns the entries of `request`.
  std::vector<OVProductsRequestCompletionHandlerObject> takeEntries(const SKRequest& request);

  mutable support::Mutex lock_;
  // Fetches whose answer has not arrived, oldest first. Guarded by lock_.
  std::vector<OVProductsRequestCompletionHandlerObject> productsRequestCompletionHandlerObjects_;
};

}  // namespace velquin
