// The store interface's shared pieces: decimal prices, requests and the
// process-wide active store.
#include "velquin/StoreKit.h"
#include "velquin/LocalStore.h"

#include <cctype>
#include <charconv>

#include "velquin/MainQueue.h"

namespace velquin {

Error makeSKError(SKErrorCode code, std::string message) {
  return Error{kSKErrorDomain, static_cast<std::int64_t>(code), std::move(message)};
}

// ---------------------------------------------------------------------------

std::optional<SKDecimalNumber> SKDecimalNumber::fromString(std::string_view text) {
  size_t i = 0;
  if (i < text.size() && text[i] == '-') ++i;
  size_t digits = 0;
  while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i, ++digits;
  if (digits == 0) return std::nullopt;
  if (i < text.size() && text[i] == '.') {
    ++i;
    size_t fraction = 0;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i, ++fraction;
    if (fraction == 0) return std::nullopt;
  }
  if (i != text.size()) return std::nullopt;
  SKDecimalNumber number;
  number.text_ = std::string(text);
  return number;
}

SKDecimalNumber SKDecimalNumber::fromDouble(double value) {
  char buffer[400];  // room for the largest double in fixed notation
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed);
  SKDecimalNumber number;
  if (result.ec == std::errc()) number.text_.assign(buffer, result.ptr);
  return number;
}

double SKDecimalNumber::doubleValue() const {
  double value = 0;
  std::from_chars(text_.data(), text_.data() + text_.size(), value);
  return value;
}

// ---------------------------------------------------------------------------

void SKRequest::setDelegate(std::weak_ptr<SKRequestDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

std::shared_ptr<SKRequestDelegate> SKRequest::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void SKRequest::start() {
  {
    std::lock_guard lock(mutex_);
    if (started_ || done_) return;
    started_ = true;
  }
  run();
}

void SKRequest::cancel() {
  std::lock_guard lock(mutex_);
  done_ = true;
}

bool SKRequest::claimAnswer() {
  std::lock_guard lock(mutex_);
  if (done_) return false;
  done_ = true;
  return true;
}

std::shared_ptr<SKProductsRequest> SKProductsRequest::create(std::set<std::string> ids) {
  return std::shared_ptr<SKProductsRequest>(new SKProductsRequest(std::move(ids)));
}

void SKProductsRequest::run() {
  // The handler holds the request, which keeps it alive until the answer.
  auto self = std::static_pointer_cast<SKProductsRequest>(shared_from_this());
  StoreKit::current()->lookUpProducts(
      identifiers_, [self](SKProductsResponse response, std::optional<Error> error) {
        if (!self->claimAnswer()) return;
        auto delegate = self->delegate();
        if (!delegate) return;
        if (error) {
          delegate->requestDidFailWithError(*self, *error);
          return;
        }
        if (auto products = std::dynamic_pointer_cast<SKProductsRequestDelegate>(delegate)) {
          products->productsRequestDidReceiveResponse(*self, response);
        }
        delegate->requestDidFinish(*self);
      });
}

std::shared_ptr<SKReceiptRefreshRequest> SKReceiptRefreshRequest::create() {
  return std::shared_ptr<SKReceiptRefreshRequest>(new SKReceiptRefreshRequest());
}

void SKReceiptRefreshRequest::run() {
  auto self = std::static_pointer_cast<SKReceiptRefreshRequest>(shared_from_this());
  StoreKit::current()->refreshReceipt([self](std::optional<Error> error) {
    if (!self->claimAnswer()) return;
    auto delegate = self->delegate();
    if (!delegate) return;
    if (error) {
      delegate->requestDidFailWithError(*self, *error);
    } else {
      delegate->requestDidFinish(*self);
    }
  });
}

// ---------------------------------------------------------------------------

namespace {

std::mutex& activeStoreMutex() {
  static std::mutex mutex;
  return mutex;
}

// The installed store, or the default one once made. Guarded by activeStoreMutex().
std::shared_ptr<StoreBackend>& activeStore() {
  static auto* store = new std::shared_ptr<StoreBackend>();  // lives for the process
  return *store;
}

}  // namespace

std::shared_ptr<StoreBackend> StoreKit::current() {
  std::lock_guard lock(activeStoreMutex());
  auto& store = activeStore();
  if (!store) store = LocalStore::createDefault();
  return store;
}

void StoreKit::install(std::shared_ptr<StoreBackend> backend) {
  std::lock_guard lock(activeStoreMutex());
  activeStore() = std::move(backend);
}

std::optional<std::filesystem::path> StoreKit::appStoreReceiptPath() {
  return current()->appStoreReceiptPath();
}

std::shared_ptr<SKPaymentQueue> SKPaymentQueue::defaultQueue() {
  return StoreKit::current()->paymentQueue();
}

}  // namespace velquin
