// The local store: the Linux stand-in for the platform store, and the
// store the SDK uses unless the host installs another StoreBackend.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "velquin/Error.h"
#include "velquin/Export.h"
#include "velquin/StoreKit.h"

namespace velquin {

// The Linux stand-in for the platform store. Products come from a JSON store
// configuration (see examples/store-config.json) that is read afresh for each
// operation, so edits take effect at once. Bought transactions are kept in
// <store folder>/transactions.json, so restores work across runs. After each
// purchase and restore the receipt file is rewritten: a JSON document of the
// bundle id and every transaction, signed with an Ed25519 key kept in the store
// folder (receipt-signing-key.pem, receipt-public-key.pem).
//
// Scripted outcomes decide what a payment does: per product (configuration
// "outcomes" or setOutcome()) or for the next payment only (setNextOutcome()).
//
// Ownership and threads: a shared object (create it with create() or
// createDefault()); every member may be called from any thread. All state
// changes and all callbacks happen on MainQueue::shared(). Tasks it schedules
// hold it weakly: once the last owner lets go, pending outcomes are dropped.
class VELQUIN_EXPORT LocalStore final : public StoreBackend,
                         public SKPaymentQueue,
                         public std::enable_shared_from_this<LocalStore> {
 public:
  struct Options {
    std::filesystem::path configurationPath;  // the JSON store configuration
    std::filesystem::path storeDirectory;     // transactions and signing keys
    std::filesystem::path receiptPath;        // where the receipt is written
    // Used when the configuration names no "bundle_id".
    std::string defaultBundleIdentifier;
  };

  enum class Outcome {
    success,   // purchased
    cancel,    // failed with SKErrorCode::paymentCancelled
    fail,      // failed with errorCode
    defer,     // deferred, and nothing more
    askToBuy,  // deferred until approveAskToBuy() or declineAskToBuy()
  };
  struct ScriptedOutcome {
    Outcome outcome = Outcome::success;
    std::chrono::milliseconds delay{0};  // before the outcome is reported
    std::int64_t errorCode = static_cast<std::int64_t>(SKErrorCode::unknown);  // for fail
  };
  enum class RestoreBehaviour {
    normal,  // restored transactions, then restoreCompletedTransactionsFinished
    fail,    // restoreCompletedTransactionsFailedWithError
    hang,    // never answers
  };

  // The configuration of the default store: the path given here, else
  // <main bundle folder>/store-config.json. Takes effect at the next operation
  // of the default store.
  static void setConfigurationPath(std::filesystem::path path);
  static std::filesystem::path configurationPath();

  static std::shared_ptr<LocalStore> create(Options options);
  // The main bundle's store: configurationPath(), <data dir>/StoreKit/ and the
  // bundle's receipt path.
  static std::shared_ptr<LocalStore> createDefault();

  ~LocalStore() override;
  LocalStore(const LocalStore&) = delete;
  LocalStore& operator=(const LocalStore&) = delete;

  // StoreBackend
  std::shared_ptr<SKPaymentQueue> paymentQueue() override;
  void lookUpProducts(const std::set<std::string>& productIdentifiers,
                      ProductsHandler done) override;
  void refreshReceipt(DoneHandler done) override;
  std::optional<std::filesystem::path> appStoreReceiptPath() const override;

  // SKPaymentQueue
  void addTransactionObserver(std::weak_ptr<SKPaymentTransactionObserver> observer) override;
  void removeTransactionObserver(
      const std::weak_ptr<SKPaymentTransactionObserver>& observer) override;
  void addPayment(const SKPayment& payment) override;
  void finishTransaction(const SKPaymentTransactionPtr& transaction) override;
  void restoreCompletedTransactions(
      std::optional<std::string> applicationUsername = std::nullopt) override;
  // True unless the configuration says "can_make_payments": false or cannot be read.
  bool canMakePayments() const override;
  std::vector<SKPaymentTransactionPtr> transactions() const override;

  // Scripting. Outcomes set here win over the configuration's.
  void setConfigurationFile(std::filesystem::path path);
  void setOutcome(const std::string& productIdentifier, ScriptedOutcome outcome);
  void clearOutcome(const std::string& productIdentifier);
  void setNextOutcome(ScriptedOutcome outcome);
  void setRestoreBehaviour(RestoreBehaviour behaviour,
                           std::chrono::milliseconds delay = std::chrono::milliseconds(0));
  // Settles the oldest ask-to-buy purchase of the product that waits for a
  // parent: approved ones become purchased, declined ones failed.
  void approveAskToBuy(const std::string& productIdentifier);
  void declineAskToBuy(const std::string& productIdentifier);
  // A purchase started from the store front: asks every observer's
  // shouldAddStorePayment; when any answers true, the payment is added.
  void promote(const std::string& productIdentifier);

  // The receipt signing key's public half as PEM (created on first use; also
  // written to <store folder>/receipt-public-key.pem). Absent with *error set
  // when the key cannot be read or made.
  std::optional<std::string> receiptPublicKeyPem(Error* error = nullptr);

 private:
  struct Impl;
  explicit LocalStore(Options options);
  std::shared_ptr<Impl> impl_;  // immutable pointer; Impl documents its own guards
};

}  // namespace velquin
