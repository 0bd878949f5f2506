// Shared pieces of the local store tests: a recording observer and delegate
// that tests can wait on, a fixture with a temporary home and store
// configuration, and OpenSSL helpers standing in for a backend.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <openssl/evp.h>
#include <string>
#include <vector>

#include "support/TempEnvironment.h"
#include "velquin/LocalStore.h"
#include "velquin/StoreKit.h"

namespace velquin::testing {

// Waits up to five seconds for pred() to hold; pred runs under the lock.
class Waitable {
 protected:
  bool waitUntil(const std::function<bool()>& pred,
                 std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, timeout, pred);
  }
  void record(const std::function<void()>& change) {
    {
      std::lock_guard lock(mutex_);
      change();
    }
    cv_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable cv_;
};

class Recorder : public SKPaymentTransactionObserver, public Waitable {
 public:
  void updatedTransactions(SKPaymentQueue&,
                           const std::vector<SKPaymentTransactionPtr>& batch) override;
  void restoreCompletedTransactionsFinished(SKPaymentQueue&) override;
  void restoreCompletedTransactionsFailedWithError(SKPaymentQueue&, const Error& error) override;
  bool shouldAddStorePayment(SKPaymentQueue&, const SKPayment& payment,
                             const SKProductPtr& product) override;

  // The first update of the product in that state, or null after the wait.
  SKPaymentTransactionPtr waitForState(const std::string& productId,
                                       SKPaymentTransactionState state);
  // The first `count` updates of the product in that state (fewer after the wait).
  std::vector<SKPaymentTransactionPtr> waitForAll(const std::string& productId,
                                                  SKPaymentTransactionState state, size_t count);
  bool waitForRestoreAnswer(std::chrono::milliseconds timeout = std::chrono::seconds(5));
  bool waitForPromotions(size_t count);
  // Every update so far, flattened (guarded by mutex_ while observers run).
  std::vector<SKPaymentTransactionPtr> updates();
  std::vector<std::vector<SKPaymentTransactionPtr>> batches();
  int restoreFinished();
  std::vector<Error> restoreErrors();
  std::vector<std::string> promotedProducts();
  bool allOnMainQueue();

  std::atomic<bool> answerPromotion{false};

 private:
  std::vector<std::vector<SKPaymentTransactionPtr>> batches_;  // guarded by mutex_
  int restoreFinished_ = 0;                                    // guarded by mutex_
  std::vector<Error> restoreErrors_;                           // guarded by mutex_
  std::vector<std::string> promoted_;                          // guarded by mutex_
  bool allOnMainQueue_ = true;                                 // guarded by mutex_
};

class ProductsDelegate : public SKProductsRequestDelegate, public Waitable {
 public:
  void productsRequestDidReceiveResponse(SKProductsRequest& request,
                                         const SKProductsResponse& response) override;
  void requestDidFinish(SKRequest& request) override;
  void requestDidFailWithError(SKRequest& request, const Error& error) override;

  bool waitForAnswer(std::chrono::milliseconds timeout = std::chrono::seconds(5));
  std::optional<SKProductsResponse> response();
  std::optional<Error> error();
  int finishes();
  const SKRequest* answeredRequest();

 private:
  std::optional<SKProductsResponse> response_;  // guarded by mutex_
  std::optional<Error> error_;                  // guarded by mutex_
  int finishes_ = 0;                            // guarded by mutex_
  const SKRequest* answered_ = nullptr;         // guarded by mutex_
};

// A temporary home, a store configuration file and stores over them.
class StoreTest : public ::testing::Test {
 protected:
  StoreTest();

  // The configuration most tests use: one product of each type.
  static nlohmann::json standardConfiguration();
  void writeConfiguration(const nlohmann::json& config);
  void writeConfigurationText(const std::string& text);
  std::shared_ptr<LocalStore> makeStore();
  std::shared_ptr<Recorder> observe(const std::shared_ptr<LocalStore>& store);

  std::filesystem::path storeDirectory() const;
  std::filesystem::path receiptPath() const;
  std::filesystem::path configPath() const { return env_.root() / "store-config.json"; }

  TempEnvironment env_;
};

// An ECDSA P-256 key pair standing in for the backend's offer-signing key.
class OfferSigningKey {
 public:
  OfferSigningKey();
  ~OfferSigningKey();
  OfferSigningKey(const OfferSigningKey&) = delete;
  OfferSigningKey& operator=(const OfferSigningKey&) = delete;

  std::string publicKeyPem() const;
  // base64 of the DER ECDSA-SHA256 signature of message.
  std::string sign(const std::string& message) const;

 private:
  EVP_PKEY* key_;
};

std::string base64(const std::string& bytes);
std::string unbase64(const std::string& text);
// Checks an Ed25519 signature with a PEM public key, straight through OpenSSL.
bool ed25519Verifies(const std::string& publicKeyPem, const std::string& message,
                     const std::string& signature);

}  // namespace velquin::testing
