#include "StoreTestSupport.h"

#include <openssl/bio.h>
#include <openssl/pem.h>

#include <fstream>

#include "velquin/MainQueue.h"

namespace velquin::testing {

void Recorder::updatedTransactions(SKPaymentQueue&,
                                   const std::vector<SKPaymentTransactionPtr>& batch) {
  bool onMain = MainQueue::shared().isCurrent();
  record([&] {
    batches_.push_back(batch);
    allOnMainQueue_ = allOnMainQueue_ && onMain;
  });
}

void Recorder::restoreCompletedTransactionsFinished(SKPaymentQueue&) {
  bool onMain = MainQueue::shared().isCurrent();
  record([&] {
    ++restoreFinished_;
    allOnMainQueue_ = allOnMainQueue_ && onMain;
  });
}

void Recorder::restoreCompletedTransactionsFailedWithError(SKPaymentQueue&, const Error& error) {
  bool onMain = MainQueue::shared().isCurrent();
  record([&] {
    restoreErrors_.push_back(error);
    allOnMainQueue_ = allOnMainQueue_ && onMain;
  });
}

bool Recorder::shouldAddStorePayment(SKPaymentQueue&, const SKPayment& payment,
                                     const SKProductPtr& product) {
  record([&] { promoted_.push_back(payment.productIdentifier() + "/" + product->productIdentifier); });
  return answerPromotion;
}

SKPaymentTransactionPtr Recorder::waitForState(const std::string& productId,
                                               SKPaymentTransactionState state) {
  auto found = waitForAll(productId, state, 1);
  return found.empty() ? nullptr : found.front();
}

std::vector<SKPaymentTransactionPtr> Recorder::waitForAll(const std::string& productId,
                                                          SKPaymentTransactionState state,
                                                          size_t count) {
  std::vector<SKPaymentTransactionPtr> found;
  waitUntil([&] {
    found.clear();
    for (const auto& batch : batches_) {
      for (const auto& t : batch) {
        if (t->payment.productIdentifier() == productId && t->transactionState == state &&
            found.size() < count) {
          found.push_back(t);
        }
      }
    }
    return found.size() == count;
  });
  return found;
}

bool Recorder::waitForRestoreAnswer(std::chrono::milliseconds timeout) {
  return waitUntil([&] { return restoreFinished_ > 0 || !restoreErrors_.empty(); }, timeout);
}

bool Recorder::waitForPromotions(size_t count) {
  return waitUntil([&] { return promoted_.size() >= count; });
}

std::vector<SKPaymentTransactionPtr> Recorder::updates() {
  std::lock_guard lock(mutex_);
  std::vector<SKPaymentTransactionPtr> all;
  for (const auto& batch : batches_) all.insert(all.end(), batch.begin(), batch.end());
  return all;
}

std::vector<std::vector<SKPaymentTransactionPtr>> Recorder::batches() {
  std::lock_guard lock(mutex_);
  return batches_;
}

int Recorder::restoreFinished() {
  std::lock_guard lock(mutex_);
  return restoreFinished_;
}

std::vector<Error> Recorder::restoreErrors() {
  std::lock_guard lock(mutex_);
  return restoreErrors_;
}

std::vector<std::string> Recorder::promotedProducts() {
  std::lock_guard lock(mutex_);
  return promoted_;
}

bool Recorder::allOnMainQueue() {
  std::lock_guard lock(mutex_);
  return allOnMainQueue_;
}

void ProductsDelegate::productsRequestDidReceiveResponse(SKProductsRequest& request,
                                                         const SKProductsResponse& response) {
  record([&] {
    response_ = response;
    answered_ = &request;
  });
}

void ProductsDelegate::requestDidFinish(SKRequest& request) {
  record([&] {
    ++finishes_;
    answered_ = &request;
  });
}

void ProductsDelegate::requestDidFailWithError(SKRequest& request, const Error& error) {
  record([&] {
    error_ = error;
    answered_ = &request;
  });
}

bool ProductsDelegate::waitForAnswer(std::chrono::milliseconds timeout) {
  return waitUntil([&] { return finishes_ > 0 || error_.has_value(); }, timeout);
}

std::optional<SKProductsResponse> ProductsDelegate::response() {
  std::lock_guard lock(mutex_);
  return response_;
}

std::optional<Error> ProductsDelegate::error() {
  std::lock_guard lock(mutex_);
  return error_;
}

int ProductsDelegate::finishes() {
  std::lock_guard lock(mutex_);
  return finishes_;
}

const SKRequest* ProductsDelegate::answeredRequest() {
  std::lock_guard lock(mutex_);
  return answered_;
}

// ---------------------------------------------------------------------------

StoreTest::StoreTest() {
  env_.installAsMainBundle();
  writeConfiguration(standardConfiguration());
}

nlohmann::json StoreTest::standardConfiguration() {
  return nlohmann::json::parse(R"({
    "bundle_id": "com.example.velquintest",
    "locale": "en_US",
    "currency": "USD",
    "products": [
      {"type": "auto-renewable", "id": "pro.monthly", "title": "Pro", "description": "All of it",
       "price": "9.99", "subscription_period": {"unit": "month", "count": 1}, "group": "pro",
       "introductory_offer": {"price": 0, "payment_mode": "free_trial",
                              "period": {"unit": "week", "count": 1}},
       "promotional_offers": [{"id": "winback", "price": 4.99}]},
      {"type": "non-consumable", "id": "lifetime", "title": "Lifetime", "price": 49,
       "currency": "EUR", "locale": "de_DE"},
      {"type": "consumable", "id": "coins", "title": "Coins", "price": "0.99"},
      {"type": "non-renewing", "id": "season", "title": "Season", "price": "19.99"}
    ]
  })");
}

void StoreTest::writeConfiguration(const nlohmann::json& config) {
  writeConfigurationText(config.dump(2));
}

void StoreTest::writeConfigurationText(const std::string& text) {
  std::ofstream(configPath(), std::ios::trunc) << text;
}

std::filesystem::path StoreTest::storeDirectory() const {
  return env_.root() / "data" / env_.bundleId() / "StoreKit";
}

std::filesystem::path StoreTest::receiptPath() const { return storeDirectory() / "sandboxReceipt"; }

std::shared_ptr<LocalStore> StoreTest::makeStore() {
  return LocalStore::create({.configurationPath = configPath(),
                             .storeDirectory = storeDirectory(),
                             .receiptPath = receiptPath(),
                             .defaultBundleIdentifier = env_.bundleId()});
}

std::shared_ptr<Recorder> StoreTest::observe(const std::shared_ptr<LocalStore>& store) {
  auto recorder = std::make_shared<Recorder>();
  store->addTransactionObserver(recorder);
  return recorder;
}

// ---------------------------------------------------------------------------

OfferSigningKey::OfferSigningKey() : key_(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256")) {}

OfferSigningKey::~OfferSigningKey() { EVP_PKEY_free(key_); }

std::string OfferSigningKey::publicKeyPem() const {
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PUBKEY(bio, key_);
  char* data = nullptr;
  long length = BIO_get_mem_data(bio, &data);
  std::string pem(data, static_cast<size_t>(length));
  BIO_free(bio);
  return pem;
}

std::string OfferSigningKey::sign(const std::string& message) const {
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  size_t length = 0;
  EVP_DigestSignInit(ctx, nullptr, EVP_sha256(), nullptr, key_);
  EVP_DigestSign(ctx, nullptr, &length, reinterpret_cast<const unsigned char*>(message.data()),
                 message.size());
  std::string der(length, '\0');
  EVP_DigestSign(ctx, reinterpret_cast<unsigned char*>(der.data()), &length,
                 reinterpret_cast<const unsigned char*>(message.data()), message.size());
  EVP_MD_CTX_free(ctx);
  der.resize(length);
  return base64(der);
}

std::string base64(const std::string& bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                          reinterpret_cast<const unsigned char*>(bytes.data()),
                          static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(n));
  return text;
}

std::string unbase64(const std::string& text) {
  std::string bytes(text.size(), '\0');
  int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                          reinterpret_cast<const unsigned char*>(text.data()),
                          static_cast<int>(text.size()));
  if (n < 0) return {};
  size_t padding = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
  bytes.resize(static_cast<size_t>(n) - padding);
  return bytes;
}

bool ed25519Verifies(const std::string& publicKeyPem, const std::string& message,
                     const std::string& signature) {
  BIO* bio = BIO_new_mem_buf(publicKeyPem.data(), static_cast<int>(publicKeyPem.size()));
  EVP_PKEY* key = PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  if (!key) return false;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  bool ok = EVP_DigestVerifyInit(ctx, nullptr, nullptr, nullptr, key) == 1 &&
            EVP_DigestVerify(ctx, reinterpret_cast<const unsigned char*>(signature.data()),
                             signature.size(),
                             reinterpret_cast<const unsigned char*>(message.data()),
                             message.size()) == 1;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(key);
  return ok;
}

}  // namespace velquin::testing
