// The store interface: products, payments, the payment queue with its
// transaction observers, product and receipt-refresh requests and the receipt
// file. The types follow the phone platform's store so the purchase code reads
// the same on both; the SDK talks only to this interface.
//
// Which store answers is process-wide: StoreKit::current(). Unless the host
// installs another StoreBackend, it is the local store (velquin/LocalStore.h),
// configured from a JSON file.
//
// Threads: every callback of this interface (observer calls, request delegate
// calls) runs on MainQueue::shared(), never synchronously on the caller's
// thread. The calls themselves may be made from any thread.
//
// Sharing: products and transactions are immutable values shared by
// std::shared_ptr. A transaction changes state by a new snapshot with the same
// transactionIdentifier. Observers and delegates are held weakly; the caller
// keeps them alive.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "velquin/Export.h"
#include "velquin/Error.h"

namespace velquin {

// ---------------------------------------------------------------------------
// Errors

inline constexpr const char* kSKErrorDomain = "SKErrorDomain";

// Codes of kSKErrorDomain, numbered as the platform numbers them.
enum class SKErrorCode : std::int64_t {
  unknown = 0,
  clientInvalid = 1,
  paymentCancelled = 2,
  paymentInvalid = 3,
  paymentNotAllowed = 4,
  storeProductNotAvailable = 5,
  invalidOfferIdentifier = 11,
  invalidSignature = 12,
  missingOfferParams = 13,
  invalidOfferPrice = 14,
};

VELQUIN_EXPORT Error makeSKError(SKErrorCode code, std::string message);

// ---------------------------------------------------------------------------
// Products

// A decimal amount kept as its exact decimal text ("9.99"), as the platform
// keeps prices; doubleValue() for arithmetic. Plain value; any thread.
class VELQUIN_EXPORT SKDecimalNumber {
 public:
  SKDecimalNumber() = default;
  // Accepts plain decimal text: optional '-', digits, optional '.' and digits.
  static std::optional<SKDecimalNumber> fromString(std::string_view text);
  // Shortest text that reads back as the same double.
  static SKDecimalNumber fromDouble(double value);

  const std::string& stringValue() const { return text_; }
  double doubleValue() const;

  friend bool operator==(const SKDecimalNumber&, const SKDecimalNumber&) = default;

 private:
  std::string text_ = "0";
};

struct VELQUIN_EXPORT SKPriceLocale {
  std::string localeIdentifier;  // "en_US"; empty when unknown
  std::string currencyCode;      // "USD"; empty when unknown
};

enum class SKProductPeriodUnit : std::int32_t { day = 0, week = 1, month = 2, year = 3 };

struct VELQUIN_EXPORT SKProductSubscriptionPeriod {
  std::uint32_t numberOfUnits = 1;
  SKProductPeriodUnit unit = SKProductPeriodUnit::month;
  friend bool operator==(const SKProductSubscriptionPeriod&,
                         const SKProductSubscriptionPeriod&) = default;
};

enum class SKProductDiscountPaymentMode : std::int32_t {
  payAsYouGo = 0,
  payUpFront = 1,
  freeTrial = 2
};
enum class SKProductDiscountType : std::int32_t { introductory = 0, subscription = 1 };

// An introductory offer or a promotional offer of a subscription.
struct VELQUIN_EXPORT SKProductDiscount {
  std::string identifier;  // empty for the introductory offer
  SKDecimalNumber price;
  SKPriceLocale priceLocale;
  SKProductSubscriptionPeriod subscriptionPeriod;
  std::uint32_t numberOfPeriods = 1;
  SKProductDiscountPaymentMode paymentMode = SKProductDiscountPaymentMode::payAsYouGo;
  SKProductDiscountType type = SKProductDiscountType::subscription;
};

// How the local store sells a product; the platform keeps this on its side.
enum class SKProductType : std::int32_t {
  consumable = 0,
  nonConsumable = 1,
  autoRenewable = 2,
  nonRenewing = 3
};

struct VELQUIN_EXPORT SKProduct {
  std::string productIdentifier;
  std::string localizedTitle;
  std::string localizedDescription;
  SKDecimalNumber price;
  SKPriceLocale priceLocale;
  std::optional<SKProductSubscriptionPeriod> subscriptionPeriod;  // auto-renewable only
  std::string subscriptionGroupIdentifier;                        // empty when none
  std::optional<SKProductDiscount> introductoryPrice;
  std::vector<SKProductDiscount> discounts;  // promotional offers
  SKProductType productType = SKProductType::nonConsumable;
};
using SKProductPtr = std::shared_ptr<const SKProduct>;

// ---------------------------------------------------------------------------
// Payments and transactions

// The signed parameters of a promotional offer.
struct VELQUIN_EXPORT SKPaymentDiscount {
  std::string identifier;      // the offer id
  std::string keyIdentifier;   // which signing key made the signature
  std::string nonce;           // UUID text
  std::string signature;       // base64 of a DER ECDSA-SHA256 signature
  std::int64_t timestamp = 0;  // milliseconds since the epoch
};

// A request to buy a product. Immutable; SKMutablePayment adds setters.
// Plain values: copy freely, any thread.
class VELQUIN_EXPORT SKPayment {
 public:
  explicit SKPayment(const SKProduct& product) : productIdentifier_(product.productIdentifier) {}

  const std::string& productIdentifier() const { return productIdentifier_; }
  std::int64_t quantity() const { return quantity_; }
  // The app's opaque account token; sent in the receipt and in offer signatures.
  const std::optional<std::string>& applicationUsername() const { return applicationUsername_; }
  const std::optional<SKPaymentDiscount>& paymentDiscount() const { return paymentDiscount_; }
  // Asks the store to treat the purchase as needing a parent's approval.
  bool simulatesAskToBuyInSandbox() const { return simulatesAskToBuy_; }

 protected:
  explicit SKPayment(std::string productIdentifier)
      : productIdentifier_(std::move(productIdentifier)) {}

  std::string productIdentifier_;
  std::int64_t quantity_ = 1;
  std::optional<std::string> applicationUsername_;
  std::optional<SKPaymentDiscount> paymentDiscount_;
  bool simulatesAskToBuy_ = false;
};

class VELQUIN_EXPORT SKMutablePayment : public SKPayment {
 public:
  explicit SKMutablePayment(const SKProduct& product) : SKPayment(product) {}
  explicit SKMutablePayment(std::string productIdentifier)
      : SKPayment(std::move(productIdentifier)) {}
  explicit SKMutablePayment(const SKPayment& payment) : SKPayment(payment) {}

  void setProductIdentifier(std::string id) { productIdentifier_ = std::move(id); }
  void setQuantity(std::int64_t quantity) { quantity_ = quantity; }
  void setApplicationUsername(std::optional<std::string> name) {
    applicationUsername_ = std::move(name);
  }
  void setPaymentDiscount(std::optional<SKPaymentDiscount> discount) {
    paymentDiscount_ = std::move(discount);
  }
  void setSimulatesAskToBuyInSandbox(bool value) { simulatesAskToBuy_ = value; }
};

enum class SKPaymentTransactionState : std::int32_t {
  purchasing = 0,
  purchased = 1,
  failed = 2,
  restored = 3,
  deferred = 4
};

struct VELQUIN_EXPORT SKPaymentTransaction {
  std::string transactionIdentifier;
  SKPaymentTransactionState transactionState = SKPaymentTransactionState::purchasing;
  std::optional<std::chrono::system_clock::time_point> transactionDate;
  SKPayment payment;
  std::optional<Error> error;  // failed transactions only
  // Restored transactions: the purchase they restore.
  std::shared_ptr<const SKPaymentTransaction> originalTransaction;
};
using SKPaymentTransactionPtr = std::shared_ptr<const SKPaymentTransaction>;

class SKPaymentQueue;

// Hears of the payment queue. The queue holds observers weakly (the app owns
// them); every call runs on the main queue.
class VELQUIN_EXPORT SKPaymentTransactionObserver {
 public:
  virtual ~SKPaymentTransactionObserver() = default;
  virtual void updatedTransactions(SKPaymentQueue& queue,
                                   const std::vector<SKPaymentTransactionPtr>& transactions) = 0;
  virtual void restoreCompletedTransactionsFinished(SKPaymentQueue& /*queue*/) {}
  virtual void restoreCompletedTransactionsFailedWithError(SKPaymentQueue& /*queue*/,
                                                           const Error& /*error*/) {}
  // A purchase started from the store front. True lets the store go on with
  // the payment at once; false means the app adds the payment itself later.
  virtual bool shouldAddStorePayment(SKPaymentQueue& /*queue*/, const SKPayment& /*payment*/,
                                     const SKProductPtr& /*product*/) {
    return false;
  }
};

// The payment queue. Implementations are shared objects whose members may be
// called from any thread; observers hear of changes on the main queue.
// Transactions stay in transactions() until finishTransaction(); an observer
// added later is told at once of the finished-but-unacknowledged ones
// (purchased, restored, failed).
class VELQUIN_EXPORT SKPaymentQueue {
 public:
  virtual ~SKPaymentQueue() = default;

  // The queue of the active store (StoreKit::current()).
  static std::shared_ptr<SKPaymentQueue> defaultQueue();

  virtual void addTransactionObserver(std::weak_ptr<SKPaymentTransactionObserver> observer) = 0;
  virtual void removeTransactionObserver(
      const std::weak_ptr<SKPaymentTransactionObserver>& observer) = 0;
  virtual void addPayment(const SKPayment& payment) = 0;
  // Purchasing transactions cannot be finished; the call is ignored for them.
  virtual void finishTransaction(const SKPaymentTransactionPtr& transaction) = 0;
  virtual void restoreCompletedTransactions(
      std::optional<std::string> applicationUsername = std::nullopt) = 0;
  virtual bool canMakePayments() const = 0;
  virtual std::vector<SKPaymentTransactionPtr> transactions() const = 0;
};

// ---------------------------------------------------------------------------
// Requests

class SKRequest;
class SKProductsRequest;

// Held weakly by its request; every call runs on the main queue.
class VELQUIN_EXPORT SKRequestDelegate {
 public:
  virtual ~SKRequestDelegate() = default;
  virtual void requestDidFinish(SKRequest& /*request*/) {}
  virtual void requestDidFailWithError(SKRequest& /*request*/, const Error& /*error*/) {}
};

struct VELQUIN_EXPORT SKProductsResponse {
  std::vector<SKProductPtr> products;
  std::vector<std::string> invalidProductIdentifiers;
};

class VELQUIN_EXPORT SKProductsRequestDelegate : public SKRequestDelegate {
 public:
  // Followed by requestDidFinish(). A failure calls only requestDidFailWithError().
  virtual void productsRequestDidReceiveResponse(SKProductsRequest& request,
                                                 const SKProductsResponse& response) = 0;
};

// One request to the store. Created through the subclasses' create(); a
// started request keeps itself alive until it has answered or is cancelled,
// and answers at most once, on the main queue. The delegate is held weakly.
class VELQUIN_EXPORT SKRequest : public std::enable_shared_from_this<SKRequest> {
 public:
  virtual ~SKRequest() = default;
  SKRequest(const SKRequest&) = delete;
  SKRequest& operator=(const SKRequest&) = delete;

  void setDelegate(std::weak_ptr<SKRequestDelegate> delegate);
  std::shared_ptr<SKRequestDelegate> delegate() const;
  // Starting twice does nothing.
  void start();
  // No delegate call happens after cancel().
  void cancel();

 protected:
  SKRequest() = default;
  virtual void run() = 0;
  // For subclasses' store answers: true while an answer may still be given;
  // the first call that sees true claims the answer.
  bool claimAnswer();

 private:
  mutable std::mutex mutex_;
  std::weak_ptr<SKRequestDelegate> delegate_;  // guarded by mutex_
  bool started_ = false;                       // guarded by mutex_
  bool done_ = false;                          // guarded by mutex_ (answered or cancelled)
};

class VELQUIN_EXPORT SKProductsRequest final : public SKRequest {
 public:
  static std::shared_ptr<SKProductsRequest> create(std::set<std::string> productIdentifiers);
  const std::set<std::string>& productIdentifiers() const { return identifiers_; }

 private:
  explicit SKProductsRequest(std::set<std::string> ids) : identifiers_(std::move(ids)) {}
  void run() override;
  const std::set<std::string> identifiers_;
};

// Asks the store to write a fresh receipt file (StoreKit::appStoreReceiptPath()).
class VELQUIN_EXPORT SKReceiptRefreshRequest final : public SKRequest {
 public:
  static std::shared_ptr<SKReceiptRefreshRequest> create();

 private:
  SKReceiptRefreshRequest() = default;
  void run() override;
};

// ---------------------------------------------------------------------------
// Store back ends

// What a store provides. Implementations are shared objects, safe to call from
// any thread; every handler runs once, on the main queue.
class VELQUIN_EXPORT StoreBackend {
 public:
  using ProductsHandler = std::function<void(SKProductsResponse, std::optional<Error>)>;
  using DoneHandler = std::function<void(std::optional<Error>)>;

  virtual ~StoreBackend() = default;
  virtual std::shared_ptr<SKPaymentQueue> paymentQueue() = 0;
  virtual void lookUpProducts(const std::set<std::string>& productIdentifiers,
                              ProductsHandler done) = 0;
  virtual void refreshReceipt(DoneHandler done) = 0;
  // Where the app's receipt file is (it may not exist yet).
  virtual std::optional<std::filesystem::path> appStoreReceiptPath() const = 0;
};

// The process-wide active store. Every member may be called from any thread.
class VELQUIN_EXPORT StoreKit {
 public:
  // The installed back end; on first use without one, the local store made
  // by LocalStore::createDefault().
  static std::shared_ptr<StoreBackend> current();
  // Replaces the active store; nullptr goes back to the default local store.
  // Objects that already took the old store's queue keep it.
  static void install(std::shared_ptr<StoreBackend> backend);
  static std::optional<std::filesystem::path> appStoreReceiptPath();
};

}  // namespace velquin
