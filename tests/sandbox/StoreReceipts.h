// Receipts made the way the local store makes them: an Ed25519 key of the
// test's own, the payload JSON signed byte for byte, the file JSON in base64.
#pragma once

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace velquin::sandbox::testing {

inline std::string toBase64(const std::string& bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                          reinterpret_cast<const unsigned char*>(bytes.data()),
                          static_cast<int>(bytes.size()));
  out.resize(static_cast<std::size_t>(n));
  return out;
}

inline std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

constexpr std::int64_t kDayMs = 24LL * 60 * 60 * 1000;

class StoreKey {
 public:
  StoreKey() : key_(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), EVP_PKEY_free) {
    if (!key_) throw std::runtime_error("cannot make an Ed25519 key");
  }

  std::string publicKeyPem() const {
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
    PEM_write_bio_PUBKEY(bio.get(), key_.get());
    char* data = nullptr;
    long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(length));
  }

  std::string sign(const std::string& message) const {
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    std::size_t length = 64;
    std::string signature(length, '\0');
    if (EVP_DigestSignInit(ctx.get(), nullptr, nullptr, nullptr, key_.get()) != 1 ||
        EVP_DigestSign(ctx.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                       reinterpret_cast<const unsigned char*>(message.data()),
                       message.size()) != 1) {
      throw std::runtime_error("signing failed");
    }
    signature.resize(length);
    return signature;
  }

  // The receipt as ReceiptRequest.receipt carries it.
  std::string receipt(const nlohmann::json& payload) const {
    std::string bytes = payload.dump();
    return fileBase64(bytes, sign(bytes));
  }

  static std::string fileBase64(const std::string& payloadBytes, const std::string& signature) {
    nlohmann::json file = {{"payload", toBase64(payloadBytes)},
                           {"signature", toBase64(signature)},
                           {"key_id", "test-key"}};
    return toBase64(file.dump());
  }

 private:
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key_;
};

struct Txn {
  std::string id;
  std::string originalId;  // the id itself when empty
  std::string productId;
  std::string type = "auto-renewable";
  std::int64_t purchaseMs = 0;
  std::optional<std::int64_t> expiresMs;
  std::optional<std::string> offerId;

  Txn renewalOf(const std::string& original) const {
    Txn t = *this;
    t.originalId = original;
    return t;
  }
  Txn withOffer(const std::string& offer) const {
    Txn t = *this;
    t.offerId = offer;
    return t;
  }
};

// An auto-renewable transaction; `type` may say "non-renewing" instead.
inline Txn subscriptionTxn(const std::string& id, const std::string& productId,
                           std::int64_t purchaseMs, std::int64_t expiresMs,
                           const std::string& type = "auto-renewable") {
  Txn t;
  t.id = id;
  t.productId = productId;
  t.type = type;
  t.purchaseMs = purchaseMs;
  t.expiresMs = expiresMs;
  return t;
}

// A consumable or non-consumable transaction.
inline Txn oneTimeTxn(const std::string& id, const std::string& productId,
                      const std::string& type, std::int64_t purchaseMs) {
  Txn t;
  t.id = id;
  t.productId = productId;
  t.type = type;
  t.purchaseMs = purchaseMs;
  return t;
}

inline nlohmann::json payload(const std::vector<Txn>& transactions,
                              const std::string& bundleId = "com.velquin.demo") {
  nlohmann::json list = nlohmann::json::array();
  for (const auto& t : transactions) {
    nlohmann::json entry = {{"transaction_id", t.id},
                            {"original_transaction_id", t.originalId.empty() ? t.id : t.originalId},
                            {"product_id", t.productId},
                            {"product_type", t.type},
                            {"quantity", 1},
                            {"purchase_date_ms", t.purchaseMs}};
    if (t.expiresMs) entry["expires_date_ms"] = *t.expiresMs;
    if (t.offerId) entry["offer_id"] = *t.offerId;
    list.push_back(std::move(entry));
  }
  return {{"bundle_id", bundleId},
          {"environment", "local"},
          {"receipt_creation_date_ms", nowMs()},
          {"transactions", std::move(list)}};
}

}  // namespace velquin::sandbox::testing
