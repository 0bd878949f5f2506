// The local store: the Linux stand-in for the platform store.
//
// Every change of state happens in a task on MainQueue::shared(); the public
// members only take the lock to record a request and post the task. Observer
// and delegate calls are made from those tasks, never under the lock.

#include <algorithm>
#include <cctype>
#include <deque>
#include <map>

#include <unistd.h>

#include "support/Mutex.h"
#include "store/Receipt.h"
#include "store/StoreConfiguration.h"
#include "store/StoreCrypto.h"
#include "store/TransactionHistory.h"
#include "support/Console.h"
#include "support/Uuid.h"
#include "velquin/Bundle.h"
#include "velquin/LocalStore.h"
#include "velquin/MainQueue.h"
#include "velquin/StoreKit.h"

namespace velquin {
namespace {

using store::StoreConfiguration;
using store::StoredTransaction;
using Clock = std::chrono::system_clock;

constexpr const char* kHistoryFile = "transactions.json";
// U+2063 INVISIBLE SEPARATOR, between the fields of a signed offer.
constexpr const char* kOfferSeparator = "\xE2\x81\xA3";

std::mutex& defaultPathMutex() {
  static std::mutex mutex;
  return mutex;
}
// Guarded by defaultPathMutex().
std::filesystem::path& defaultPathOverride() {
  static auto* path = new std::filesystem::path();  // lives for the process
  return *path;
}

std::string newTransactionId() {
  return support::randomUuid();
}

std::int64_t toMs(Clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

Clock::time_point fromMs(std::int64_t ms) {
  return Clock::time_point(
      std::chrono::duration_cast<Clock::duration>(std::chrono::milliseconds(ms)));
}

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool sameObserver(const std::weak_ptr<SKPaymentTransactionObserver>& a,
                  const std::weak_ptr<SKPaymentTransactionObserver>& b) {
  return !a.owner_before(b) && !b.owner_before(a);
}

// A copy of `base` in a new state, dated now.
SKPaymentTransactionPtr withState(const SKPaymentTransaction& base, SKPaymentTransactionState state,
                                  std::optional<Error> error = std::nullopt) {
  auto next = std::make_shared<SKPaymentTransaction>(base);
  next->transactionState = state;
  next->transactionDate = Clock::now();
  next->error = std::move(error);
  return next;
}

SKPayment paymentFor(const StoredTransaction& stored) {
  SKMutablePayment payment(stored.productId);
  payment.setQuantity(stored.quantity);
  payment.setApplicationUsername(stored.appAccountToken);
  return payment;
}

SKPaymentTransactionPtr purchasedFromHistory(const StoredTransaction& stored) {
  return std::make_shared<SKPaymentTransaction>(
      SKPaymentTransaction{.transactionIdentifier = stored.transactionId,
                           .transactionState = SKPaymentTransactionState::purchased,
                           .transactionDate = fromMs(stored.purchaseDateMs),
                           .payment = paymentFor(stored),
                           .error = std::nullopt,
                           .originalTransaction = nullptr});
}

bool restorable(SKProductType type) {
  return type == SKProductType::nonConsumable || type == SKProductType::autoRenewable;
}

// Checks a payment's promotional offer against the product and the
// configured public key.
std::optional<Error> checkOffer(const StoreConfiguration& config, const SKProduct& product,
                                const SKPayment& payment) {
  const SKPaymentDiscount& offer = *payment.paymentDiscount();
  std::vector<std::string> missing;
  if (offer.identifier.empty()) missing.push_back("identifier");
  if (offer.keyIdentifier.empty()) missing.push_back("keyIdentifier");
  if (offer.nonce.empty()) missing.push_back("nonce");
  if (offer.signature.empty()) missing.push_back("signature");
  if (!missing.empty()) {
    std::string names;
    for (const auto& name : missing) names += (names.empty() ? "" : ", ") + name;
    return makeSKError(SKErrorCode::missingOfferParams,
                       "The promotional offer lacks " + names + ".");
  }
  bool known =
      std::any_of(product.discounts.begin(), product.discounts.end(),
                  [&](const SKProductDiscount& d) { return d.identifier == offer.identifier; });
  if (!known) {
    return makeSKError(SKErrorCode::invalidOfferIdentifier, "Product " + product.productIdentifier +
                                                                " has no promotional offer \"" +
                                                                offer.identifier + "\".");
  }
  if (config.offerPublicKeyPem.empty()) {
    return makeSKError(SKErrorCode::invalidSignature,
                       "Invalid offer signature: " + config.file.string() +
                           " has no offer_public_key to check it with.");
  }
  std::string message = config.bundleIdentifier;
  for (const std::string& part : {offer.keyIdentifier, product.productIdentifier, offer.identifier,
                                  lowercase(payment.applicationUsername().value_or("")),
                                  lowercase(offer.nonce), std::to_string(offer.timestamp)}) {
    message += kOfferSeparator;
    message += part;
  }
  auto signature = store::base64Decode(offer.signature);
  store::EvpKey key = store::readPublicKeyPem(config.offerPublicKeyPem);
  if (!signature || !key || !store::verifyEcdsaSha256(key.get(), message, *signature)) {
    return makeSKError(SKErrorCode::invalidSignature,
                       "Invalid offer signature for offer \"" + offer.identifier + "\" of " +
                           product.productIdentifier + " (key " + offer.keyIdentifier + ").");
  }
  return std::nullopt;
}

}  // namespace

struct LocalStore::Impl {
  explicit Impl(Options options)
      : storeDirectory(std::move(options.storeDirectory)),
        receiptPath(std::move(options.receiptPath)),
        historyFile(storeDirectory / kHistoryFile),
        defaultBundleId(std::move(options.defaultBundleIdentifier)),
        signer(storeDirectory),
        configurationFile(std::move(options.configurationPath)) {}

  const std::filesystem::path storeDirectory;
  const std::filesystem::path receiptPath;
  const std::filesystem::path historyFile;  // read and written on the main queue only
  const std::string defaultBundleId;
  store::ReceiptSigner signer;  // locks itself

  mutable support::Mutex mutex;
  // Empty: follow LocalStore::configurationPath(). Guarded by mutex.
  std::filesystem::path configurationFile;
  std::vector<std::weak_ptr<SKPaymentTransactionObserver>> observers GUARDED_BY(mutex);
  // Unfinished transactions, oldest first, latest snapshot of each. Guarded by mutex.
  std::vector<SKPaymentTransactionPtr> pending;
  std::map<std::string, ScriptedOutcome> outcomes GUARDED_BY(mutex);
  std::optional<ScriptedOutcome> nextOutcome GUARDED_BY(mutex);
  std::optional<std::pair<RestoreBehaviour, std::chrono::milliseconds>> restoreOverride
      GUARDED_BY(mutex);
  // Ask-to-buy purchases waiting for a parent, oldest first. Guarded by mutex.
  std::deque<std::pair<SKPaymentTransactionPtr, SKProductPtr>> awaitingParent;

  // Runs task on the main queue (after `delay`, through MainQueue::after so a
  // manual clock drives it) while the store still exists.
  static void onMain(LocalStore& store, std::chrono::milliseconds delay,
                     std::function<void(LocalStore&)> task) {
    auto run = [weak = store.weak_from_this(), task = std::move(task)] {
      if (auto alive = weak.lock()) task(*alive);
    };
    if (delay.count() > 0) {
      MainQueue::shared().after(delay, std::move(run));
    } else {
      MainQueue::shared().async(std::move(run));
    }
  }

  std::optional<StoreConfiguration> configuration(Error* error) const {
    std::filesystem::path file;
    {
      support::MutexLock lock(mutex);
      file = configurationFile;
    }
    if (file.empty()) file = LocalStore::configurationPath();
    auto config = store::loadStoreConfiguration(file, error);
    if (config && config->bundleIdentifier.empty()) config->bundleIdentifier = defaultBundleId;
    if (!config && error) support::warn("[local store] " + error->message);
    return config;
  }

  std::vector<std::shared_ptr<SKPaymentTransactionObserver>> liveObservers() {
    support::MutexLock lock(mutex);
    std::vector<std::shared_ptr<SKPaymentTransactionObserver>> live;
    std::erase_if(observers, [](const auto& weak) { return weak.expired(); });
    for (const auto& weak : observers) {
      if (auto observer = weak.lock()) live.push_back(std::move(observer));
    }
    return live;
  }

  // On the main queue: records the new snapshots and tells every observer.
  void deliver(LocalStore& store, const std::vector<SKPaymentTransactionPtr>& batch) {
    {
      support::MutexLock lock(mutex);
      for (const auto& transaction : batch) {
        auto same = std::find_if(pending.begin(), pending.end(), [&](const auto& existing) {
          return existing->transactionIdentifier == transaction->transactionIdentifier;
        });
        if (same != pending.end()) {
          *same = transaction;
        } else {
          pending.push_back(transaction);
        }
      }
    }
    for (const auto& observer : liveObservers()) observer->updatedTransactions(store, batch);
  }

  void fail(LocalStore& store, const SKPaymentTransaction& transaction, Error error) {
    deliver(store, {withState(transaction, SKPaymentTransactionState::failed, std::move(error))});
  }

  void writeReceipt(const std::string& bundleId, const std::vector<StoredTransaction>& history,
                    Error* error) {
    auto payload = store::receiptPayload(bundleId, history, toMs(Clock::now()));
    if (!signer.writeReceipt(receiptPath, payload, error) && error) {
      support::warn("[local store] " + error->message);
    }
  }

  // On the main queue: a payment enters the queue.
  void beginPayment(LocalStore& store, const SKPayment& payment) {
    auto purchasing = std::make_shared<SKPaymentTransaction>(
        SKPaymentTransaction{.transactionIdentifier = newTransactionId(),
                             .transactionState = SKPaymentTransactionState::purchasing,
                             .transactionDate = Clock::now(),
                             .payment = payment,
                             .error = std::nullopt,
                             .originalTransaction = nullptr});
    deliver(store, {purchasing});

    Error error;
    auto config = configuration(&error);
    SKProductPtr product;
    std::optional<Error> problem;
    if (!config) {
      problem = error;
    } else if (!config->canMakePayments) {
      problem = makeSKError(SKErrorCode::paymentNotAllowed,
                            "Payments are turned off in " + config->file.string() + ".");
    } else if (!(product = config->product(payment.productIdentifier()))) {
      problem = makeSKError(
          SKErrorCode::storeProductNotAvailable,
          "No product \"" + payment.productIdentifier() + "\" in " + config->file.string() + ".");
    } else if (payment.quantity() < 1) {
      problem = makeSKError(SKErrorCode::paymentInvalid, "The quantity must be at least 1.");
    } else if (payment.paymentDiscount()) {
      problem = checkOffer(*config, *product, payment);
    }
    if (problem) {
      onMain(store, std::chrono::milliseconds(0),
             [purchasing, problem](LocalStore& s) { s.impl_->fail(s, *purchasing, *problem); });
      return;
    }

    ScriptedOutcome outcome;
    {
      support::MutexLock lock(mutex);
      if (nextOutcome) {
        outcome = *nextOutcome;
        nextOutcome.reset();
      } else if (auto it = outcomes.find(product->productIdentifier); it != outcomes.end()) {
        outcome = it->second;
      } else if (auto cfg = config->outcomes.find(product->productIdentifier);
                 cfg != config->outcomes.end()) {
        outcome = cfg->second;
      } else if (payment.simulatesAskToBuyInSandbox()) {
        outcome.outcome = Outcome::askToBuy;
      }
    }
    onMain(store, outcome.delay,
           [purchasing, outcome, product, bundleId = config->bundleIdentifier](LocalStore& s) {
             s.impl_->settle(s, purchasing, outcome, product, bundleId);
           });
  }

  // On the main queue: a payment's scripted outcome.
  void settle(LocalStore& store, const SKPaymentTransactionPtr& transaction,
              const ScriptedOutcome& outcome, const SKProductPtr& product,
              const std::string& bundleId) {
    switch (outcome.outcome) {
      case Outcome::success:
        completePurchase(store, *transaction, *product, bundleId);
        return;
      case Outcome::cancel:
        fail(store, *transaction,
             makeSKError(SKErrorCode::paymentCancelled, "The payment was cancelled."));
        return;
      case Outcome::fail:
        fail(store, *transaction,
             Error{kSKErrorDomain, outcome.errorCode, "The payment failed (scripted outcome)."});
        return;
      case Outcome::defer:
        deliver(store, {withState(*transaction, SKPaymentTransactionState::deferred)});
        return;
      case Outcome::askToBuy: {
        auto deferred = withState(*transaction, SKPaymentTransactionState::deferred);
        {
          support::MutexLock lock(mutex);
          awaitingParent.emplace_back(deferred, product);
        }
        deliver(store, {deferred});
        return;
      }
    }
  }

  // Adds a bought transaction to the history and rewrites the receipt.
  // Other processes sharing the folder change the history too: it is read,
  // changed and written (with the receipt made from it) under the lock.
  // The problem when it could not be recorded.
  std::optional<std::string> recordPurchase(StoredTransaction& stored, const SKProduct& product,
                                            const std::string& bundleId) {
    store::HistoryLock lock(historyFile);
    auto history = store::loadHistory(historyFile);
    if (product.productType == SKProductType::autoRenewable) {
      stored.expiresDateMs = store::addPeriods(stored.purchaseDateMs, *product.subscriptionPeriod);
      // Later purchases in a subscription group share the first one's original id.
      for (const auto& earlier : history) {
        bool sameGroup = stored.subscriptionGroup.empty()
                             ? earlier.productId == stored.productId
                             : earlier.subscriptionGroup == stored.subscriptionGroup;
        if (earlier.productType == SKProductType::autoRenewable && sameGroup) {
          stored.originalTransactionId = earlier.originalTransactionId;
          break;
        }
      }
    }
    history.push_back(stored);
    std::string problem;
    if (!store::saveHistory(historyFile, history, &problem)) return problem;
    Error receiptProblem;
    writeReceipt(bundleId, history, &receiptProblem);
    return std::nullopt;
  }

  // On the main queue: records a bought transaction, rewrites the receipt and
  // reports the purchase.
  void completePurchase(LocalStore& store, const SKPaymentTransaction& transaction,
                        const SKProduct& product, const std::string& bundleId) {
    auto purchased = withState(transaction, SKPaymentTransactionState::purchased);
    StoredTransaction stored{.transactionId = purchased->transactionIdentifier,
                             .originalTransactionId = purchased->transactionIdentifier,
                             .productId = product.productIdentifier,
                             .productType = product.productType,
                             .quantity = purchased->payment.quantity(),
                             .purchaseDateMs = toMs(*purchased->transactionDate),
                             .expiresDateMs = std::nullopt,
                             .subscriptionGroup = product.subscriptionGroupIdentifier,
                             .offerId = std::nullopt,
                             .appAccountToken = purchased->payment.applicationUsername(),
                             .finished = false,
                             .ownerPid = ::getpid()};
    if (const auto& discount = purchased->payment.paymentDiscount()) {
      stored.offerId = discount->identifier;
    }
    if (auto problem = recordPurchase(stored, product, bundleId)) {
      support::warn("[local store] " + *problem);
      fail(store, transaction,
           makeSKError(SKErrorCode::unknown, "The purchase could not be recorded: " + *problem));
      return;
    }
    deliver(store, {purchased});
  }

  // On the main queue.
  void beginRestore(LocalStore& store) {
    Error error;
    auto config = configuration(&error);
    if (!config) {
      onMain(store, std::chrono::milliseconds(0), [error](LocalStore& s) {
        for (const auto& observer : s.impl_->liveObservers()) {
          observer->restoreCompletedTransactionsFailedWithError(s, error);
        }
      });
      return;
    }
    auto behaviour = config->restoreBehaviour.value_or(RestoreBehaviour::normal);
    auto delay = config->restoreDelay;
    {
      support::MutexLock lock(mutex);
      if (restoreOverride) std::tie(behaviour, delay) = *restoreOverride;
    }
    if (behaviour == RestoreBehaviour::hang) return;
    onMain(store, delay, [behaviour, bundleId = config->bundleIdentifier](LocalStore& s) {
      s.impl_->finishRestore(s, behaviour, bundleId);
    });
  }

  void finishRestore(LocalStore& store, RestoreBehaviour behaviour, const std::string& bundleId) {
    if (behaviour == RestoreBehaviour::fail) {
      Error error = makeSKError(SKErrorCode::unknown, "Restoring failed (scripted outcome).");
      for (const auto& observer : liveObservers()) {
        observer->restoreCompletedTransactionsFailedWithError(store, error);
      }
      return;
    }
    std::vector<StoredTransaction> history;
    {
      store::HistoryLock lock(historyFile);
      history = store::loadHistory(historyFile);
      Error receiptProblem;
      writeReceipt(bundleId, history, &receiptProblem);
    }
    std::vector<SKPaymentTransactionPtr> restored;
    std::vector<std::string> seenNonConsumables;
    for (const auto& stored : history) {
      if (!restorable(stored.productType)) continue;
      if (stored.productType == SKProductType::nonConsumable) {
        if (std::find(seenNonConsumables.begin(), seenNonConsumables.end(), stored.productId) !=
            seenNonConsumables.end()) {
          continue;
        }
        seenNonConsumables.push_back(stored.productId);
      }
      auto original = purchasedFromHistory(stored);
      auto transaction = std::make_shared<SKPaymentTransaction>(*original);
      transaction->transactionIdentifier = newTransactionId();
      transaction->transactionState = SKPaymentTransactionState::restored;
      transaction->transactionDate = Clock::now();
      transaction->originalTransaction = original;
      restored.push_back(std::move(transaction));
    }
    if (!restored.empty()) deliver(store, restored);
    for (const auto& observer : liveObservers()) {
      observer->restoreCompletedTransactionsFinished(store);
    }
  }

  // On the main queue: settles the oldest ask-to-buy purchase of a product.
  void answerParent(LocalStore& store, const std::string& productId, bool approved) {
    std::optional<std::pair<SKPaymentTransactionPtr, SKProductPtr>> waiting;
    {
      support::MutexLock lock(mutex);
      auto it = std::find_if(awaitingParent.begin(), awaitingParent.end(), [&](const auto& entry) {
        return entry.second->productIdentifier == productId;
      });
      if (it != awaitingParent.end()) {
        waiting = *it;
        awaitingParent.erase(it);
      }
    }
    if (!waiting) {
      support::warn("[local store] no ask-to-buy purchase of " + productId + " is waiting");
      return;
    }
    const auto& [transaction, product] = *waiting;
    if (!approved) {
      fail(store, *transaction,
           makeSKError(SKErrorCode::paymentNotAllowed, "The purchase request was declined."));
      return;
    }
    Error error;
    auto config = configuration(&error);
    if (!config) {
      fail(store, *transaction, error);
      return;
    }
    completePurchase(store, *transaction, *product, config->bundleIdentifier);
  }

  // On the main queue.
  void promote(LocalStore& store, const std::string& productId) {
    Error error;
    auto config = configuration(&error);
    if (!config) return;  // configuration() has warned
    auto product = config->product(productId);
    if (!product) {
      support::warn("[local store] cannot promote " + productId + ": no such product in " +
                    config->file.string());
      return;
    }
    SKPayment payment(*product);
    bool proceed = false;
    for (const auto& observer : liveObservers()) {
      // Every observer is asked, whatever the others answered.
      proceed = observer->shouldAddStorePayment(store, payment, product) || proceed;
    }
    if (proceed) beginPayment(store, payment);
  }

  // On the main queue: marks a bought transaction finished on disk.
  void recordFinished(const std::string& transactionId) {
    store::HistoryLock lock(historyFile);
    auto history = store::loadHistory(historyFile);
    bool changed = false;
    for (auto& stored : history) {
      if (stored.transactionId == transactionId && !stored.finished) {
        stored.finished = true;
        changed = true;
      }
    }
    std::string problem;
    if (changed && !store::saveHistory(historyFile, history, &problem)) {
      support::warn("[local store] " + problem);
    }
  }
};

// ---------------------------------------------------------------------------

void LocalStore::setConfigurationPath(std::filesystem::path path) {
  std::lock_guard lock(defaultPathMutex());
  defaultPathOverride() = std::move(path);
}

std::filesystem::path LocalStore::configurationPath() {
  {
    std::lock_guard lock(defaultPathMutex());
    if (!defaultPathOverride().empty()) return defaultPathOverride();
  }
  return Bundle::main().path() / "store-config.json";
}

std::shared_ptr<LocalStore> LocalStore::create(Options options) {
  return std::shared_ptr<LocalStore>(new LocalStore(std::move(options)));
}

std::shared_ptr<LocalStore> LocalStore::createDefault() {
  const Bundle& bundle = Bundle::main();
  Options options;
  options.storeDirectory = bundle.dataDirectory() / "StoreKit";
  options.receiptPath =
      bundle.appStoreReceiptPath().value_or(options.storeDirectory / "sandboxReceipt");
  options.defaultBundleIdentifier = bundle.bundleIdentifier();
  return create(std::move(options));
}

LocalStore::LocalStore(Options options) : impl_(std::make_shared<Impl>(std::move(options))) {
  // Bought transactions that were never finished come back, as on the
  // platform after a restart: this process's, and those of processes that
  // ended before finishing them (not those another running process of the
  // app is still verifying).
  std::vector<StoredTransaction> history;
  {
    store::HistoryLock lock(impl_->historyFile);
    history = store::loadHistory(impl_->historyFile);
  }
  for (const auto& stored : history) {
    if (!stored.finished && store::belongsToThisProcess(stored)) {
      impl_->pending.push_back(purchasedFromHistory(stored));
    }
  }
}

LocalStore::~LocalStore() = default;

std::shared_ptr<SKPaymentQueue> LocalStore::paymentQueue() {
  return std::static_pointer_cast<SKPaymentQueue>(shared_from_this());
}

void LocalStore::lookUpProducts(const std::set<std::string>& productIdentifiers,
                                ProductsHandler done) {
  Impl::onMain(*this, std::chrono::milliseconds(0),
               [productIdentifiers, done = std::move(done)](LocalStore& store) {
                 Error error;
                 auto config = store.impl_->configuration(&error);
                 if (!config) {
                   done({}, error);
                   return;
                 }
                 SKProductsResponse response;
                 for (const auto& product : config->products) {
                   if (productIdentifiers.count(product->productIdentifier)) {
                     response.products.push_back(product);
                   }
                 }
                 for (const auto& id : productIdentifiers) {
                   if (!config->product(id)) response.invalidProductIdentifiers.push_back(id);
                 }
                 done(std::move(response), std::nullopt);
               });
}

void LocalStore::refreshReceipt(DoneHandler done) {
  Impl::onMain(*this, std::chrono::milliseconds(0), [done = std::move(done)](LocalStore& store) {
    Error error;
    auto config = store.impl_->configuration(&error);
    if (!config) {
      done(error);
      return;
    }
    store::HistoryLock lock(store.impl_->historyFile);
    auto history = store::loadHistory(store.impl_->historyFile);
    auto payload = store::receiptPayload(config->bundleIdentifier, history, toMs(Clock::now()));
    if (!store.impl_->signer.writeReceipt(store.impl_->receiptPath, payload, &error)) {
      done(error);
      return;
    }
    done(std::nullopt);
  });
}

std::optional<std::filesystem::path> LocalStore::appStoreReceiptPath() const {
  return impl_->receiptPath;
}

void LocalStore::addTransactionObserver(std::weak_ptr<SKPaymentTransactionObserver> observer) {
  {
    support::MutexLock lock(impl_->mutex);
    for (const auto& existing : impl_->observers) {
      if (sameObserver(existing, observer)) return;
    }
    impl_->observers.push_back(observer);
  }
  // Tell the newcomer of what is still waiting to be finished.
  Impl::onMain(*this, std::chrono::milliseconds(0), [observer](LocalStore& store) {
    auto live = observer.lock();
    if (!live) return;
    std::vector<SKPaymentTransactionPtr> waiting;
    {
      support::MutexLock lock(store.impl_->mutex);
      bool registered = std::any_of(store.impl_->observers.begin(), store.impl_->observers.end(),
                                    [&](const auto& o) { return sameObserver(o, observer); });
      if (!registered) return;
      for (const auto& transaction : store.impl_->pending) {
        auto state = transaction->transactionState;
        if (state == SKPaymentTransactionState::purchased ||
            state == SKPaymentTransactionState::restored ||
            state == SKPaymentTransactionState::failed) {
          waiting.push_back(transaction);
        }
      }
    }
    if (!waiting.empty()) live->updatedTransactions(store, waiting);
  });
}

void LocalStore::removeTransactionObserver(
    const std::weak_ptr<SKPaymentTransactionObserver>& observer) {
  support::MutexLock lock(impl_->mutex);
  std::erase_if(impl_->observers,
                [&](const auto& existing) { return sameObserver(existing, observer); });
}

void LocalStore::addPayment(const SKPayment& payment) {
  Impl::onMain(*this, std::chrono::milliseconds(0),
               [payment](LocalStore& store) { store.impl_->beginPayment(store, payment); });
}

void LocalStore::finishTransaction(const SKPaymentTransactionPtr& transaction) {
  if (!transaction) return;
  if (transaction->transactionState == SKPaymentTransactionState::purchasing) {
    support::warn("[local store] a purchasing transaction cannot be finished");
    return;
  }
  const std::string id = transaction->transactionIdentifier;
  {
    support::MutexLock lock(impl_->mutex);
    std::erase_if(impl_->pending,
                  [&](const auto& existing) { return existing->transactionIdentifier == id; });
  }
  if (transaction->transactionState == SKPaymentTransactionState::purchased) {
    Impl::onMain(*this, std::chrono::milliseconds(0),
                 [id](LocalStore& store) { store.impl_->recordFinished(id); });
  }
}

void LocalStore::restoreCompletedTransactions(std::optional<std::string> /*applicationUsername*/) {
  // Every restorable purchase comes back, whichever account is named.
  Impl::onMain(*this, std::chrono::milliseconds(0),
               [](LocalStore& store) { store.impl_->beginRestore(store); });
}

bool LocalStore::canMakePayments() const {
  Error error;
  auto config = impl_->configuration(&error);
  return config && config->canMakePayments;
}

std::vector<SKPaymentTransactionPtr> LocalStore::transactions() const {
  support::MutexLock lock(impl_->mutex);
  return impl_->pending;
}

void LocalStore::setConfigurationFile(std::filesystem::path path) {
  support::MutexLock lock(impl_->mutex);
  impl_->configurationFile = std::move(path);
}

void LocalStore::setOutcome(const std::string& productIdentifier, ScriptedOutcome outcome) {
  support::MutexLock lock(impl_->mutex);
  impl_->outcomes[productIdentifier] = outcome;
}

void LocalStore::clearOutcome(const std::string& productIdentifier) {
  support::MutexLock lock(impl_->mutex);
  impl_->outcomes.erase(productIdentifier);
}

void LocalStore::setNextOutcome(ScriptedOutcome outcome) {
  support::MutexLock lock(impl_->mutex);
  impl_->nextOutcome = outcome;
}

void LocalStore::setRestoreBehaviour(RestoreBehaviour behaviour, std::chrono::milliseconds delay) {
  support::MutexLock lock(impl_->mutex);
  impl_->restoreOverride = std::make_pair(behaviour, delay);
}

void LocalStore::approveAskToBuy(const std::string& productIdentifier) {
  Impl::onMain(*this, std::chrono::milliseconds(0), [productIdentifier](LocalStore& store) {
    store.impl_->answerParent(store, productIdentifier, true);
  });
}

void LocalStore::declineAskToBuy(const std::string& productIdentifier) {
  Impl::onMain(*this, std::chrono::milliseconds(0), [productIdentifier](LocalStore& store) {
    store.impl_->answerParent(store, productIdentifier, false);
  });
}

void LocalStore::promote(const std::string& productIdentifier) {
  Impl::onMain(*this, std::chrono::milliseconds(0), [productIdentifier](LocalStore& store) {
    store.impl_->promote(store, productIdentifier);
  });
}

std::optional<std::string> LocalStore::receiptPublicKeyPem(Error* error) {
  return impl_->signer.publicKeyPem(error);
}

}  // namespace velquin
