#include "Receipts.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <climits>
#include <limits>

namespace velquin::sandbox {
namespace {

struct PkeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct MdCtxFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
struct EncodeCtxFree {
  void operator()(EVP_ENCODE_CTX* ctx) const { EVP_ENCODE_CTX_free(ctx); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;

using nlohmann::json;

bool verifyEd25519(EVP_PKEY* key, const std::string& message, const std::string& signature) {
  std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
  // Ed25519 signs the message itself: no digest is named.
  bool ok = ctx && EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key) == 1 &&
            EVP_DigestVerify(ctx.get(), reinterpret_cast<const unsigned char*>(signature.data()),
                             signature.size(),
                             reinterpret_cast<const unsigned char*>(message.data()),
                             message.size()) == 1;
  ERR_clear_error();
  return ok;
}

// Reads one transaction of the payload; false with `problem` set when a
// field is missing or of the wrong type.
class TransactionReader {
 public:
  TransactionReader(const json& entry, std::size_t index) : entry_(entry), index_(index) {}

  bool read(Purchase& out, std::string* problem) {
    if (!entry_.is_object()) return fail("is not an object", problem);
    if (!text("transaction_id", true, out.transactionId, problem) ||
        !text("product_id", true, out.productId, problem)) {
      return false;
    }
    std::string original;
    if (!optionalText("original_transaction_id", original, problem)) return false;
    out.originalTransactionId = original.empty() ? out.transactionId : original;

    std::string type;
    if (!text("product_type", true, type, problem)) return false;
    auto parsed = productTypeFromName(type);
    if (!parsed) {
      return fail("\"product_type\" \"" + type +
                      "\" is none of auto-renewable, non-renewing, consumable, non-consumable",
                  problem);
    }
    out.productType = *parsed;

    std::optional<std::int64_t> purchase;
    if (!number("purchase_date_ms", purchase, problem)) return false;
    if (!purchase) return fail("lacks \"purchase_date_ms\"", problem);
    out.purchaseMs = *purchase;
    if (!number("expires_date_ms", out.expiresMs, problem)) return false;
    if (out.productType == ProductType::autoRenewable && !out.expiresMs) {
      return fail("is auto-renewable but has no \"expires_date_ms\"", problem);
    }
    std::optional<std::int64_t> quantity;
    if (!number("quantity", quantity, problem)) return false;

    std::string offer;
    if (!optionalText("offer_id", offer, problem)) return false;
    if (!offer.empty()) out.offerId = offer;
    std::string token;
    return optionalText("app_account_token", token, problem);
  }

 private:
  bool fail(const std::string& what, std::string* problem) const {
    if (problem) *problem = "receipt transaction " + std::to_string(index_) + " " + what;
    return false;
  }

  bool text(const char* key, bool required, std::string& out, std::string* problem) const {
    auto found = entry_.find(key);
    if (found == entry_.end() || found->is_null()) {
      return required ? fail(std::string("lacks \"") + key + "\"", problem) : true;
    }
    if (!found->is_string()) return fail(std::string("\"") + key + "\" is not text", problem);
    out = found->get<std::string>();
    if (required && out.empty()) return fail(std::string("\"") + key + "\" is empty", problem);
    return true;
  }

  bool optionalText(const char* key, std::string& out, std::string* problem) const {
    return text(key, false, out, problem);
  }

  bool number(const char* key, std::optional<std::int64_t>& out, std::string* problem) const {
    auto found = entry_.find(key);
    if (found == entry_.end() || found->is_null()) return true;
    bool fits = found->is_number_integer() &&
                !(found->is_number_unsigned() &&
                  found->get<std::uint64_t>() >
                      static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()));
    if (!fits) return fail(std::string("\"") + key + "\" is not a whole number", problem);
    out = found->get<std::int64_t>();
    return true;
  }

  const json& entry_;
  std::size_t index_;
};

std::optional<VerifiedReceipt> readPayload(const std::string& bytes, std::string* problem) {
  auto payload = json::parse(bytes, nullptr, /*allow_exceptions=*/false);
  if (payload.is_discarded() || !payload.is_object()) {
    if (problem) *problem = "the signed receipt payload is not a JSON object";
    return std::nullopt;
  }
  VerifiedReceipt receipt;
  auto bundle = payload.find("bundle_id");
  if (bundle == payload.end() || !bundle->is_string()) {
    if (problem) *problem = "the receipt payload has no \"bundle_id\" text";
    return std::nullopt;
  }
  receipt.bundleId = bundle->get<std::string>();
  auto transactions = payload.find("transactions");
  if (transactions == payload.end() || !transactions->is_array()) {
    if (problem) *problem = "the receipt payload has no \"transactions\" list";
    return std::nullopt;
  }
  for (std::size_t i = 0; i < transactions->size(); ++i) {
    Purchase purchase;
    if (!TransactionReader((*transactions)[i], i).read(purchase, problem)) return std::nullopt;
    receipt.purchases.push_back(std::move(purchase));
  }
  return receipt;
}

}  // namespace

struct ReceiptVerifier::Keys {
  std::vector<PkeyPtr> keys;
};

ReceiptVerifier::ReceiptVerifier(std::unique_ptr<Keys> keys) : keys_(std::move(keys)) {}

ReceiptVerifier::~ReceiptVerifier() = default;

std::unique_ptr<ReceiptVerifier> ReceiptVerifier::create(const std::vector<std::string>& pems,
                                                         std::string* error) {
  auto keys = std::make_unique<Keys>();
  for (std::size_t i = 0; i < pems.size(); ++i) {
    const std::string& pem = pems[i];
    PkeyPtr key;
    if (pem.size() <= static_cast<std::size_t>(INT_MAX)) {
      std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
      if (bio) key.reset(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
    }
    ERR_clear_error();
    if (!key || !EVP_PKEY_is_a(key.get(), "ED25519")) {
      if (error) {
        *error = "key " + std::to_string(i + 1) + " of " + std::to_string(pems.size()) +
                 " is not an Ed25519 public key in PEM (SubjectPublicKeyInfo)";
      }
      return nullptr;
    }
    keys->keys.push_back(std::move(key));
  }
  return std::unique_ptr<ReceiptVerifier>(new ReceiptVerifier(std::move(keys)));
}

std::optional<VerifiedReceipt> ReceiptVerifier::verify(const std::string& receiptBase64,
                                                       ReceiptProblem* problem) const {
  auto fail = [problem](ReceiptProblem::Kind kind, std::string message) {
    if (problem) *problem = {kind, std::move(message)};
    return std::nullopt;
  };
  using Kind = ReceiptProblem::Kind;
  try {
    if (receiptBase64.empty()) return fail(Kind::malformed, "the receipt is empty");
    auto fileBytes = base64Decode(receiptBase64);
    if (!fileBytes) return fail(Kind::malformed, "the receipt is not base64");
    auto file = json::parse(*fileBytes, nullptr, /*allow_exceptions=*/false);
    if (file.is_discarded() || !file.is_object()) {
      return fail(Kind::malformed, "the receipt is not a JSON object");
    }
    auto payloadText = file.find("payload");
    auto signatureText = file.find("signature");
    if (payloadText == file.end() || !payloadText->is_string()) {
      return fail(Kind::malformed, "the receipt has no \"payload\" text");
    }
    if (signatureText == file.end() || !signatureText->is_string()) {
      return fail(Kind::malformed, "the receipt has no \"signature\" text");
    }
    auto payload = base64Decode(payloadText->get<std::string>());
    if (!payload) return fail(Kind::malformed, "the receipt payload is not base64");
    auto signature = base64Decode(signatureText->get<std::string>());
    if (!signature) return fail(Kind::malformed, "the receipt signature is not base64");

    bool signedByUs = false;
    for (const auto& key : keys_->keys) {
      if (verifyEd25519(key.get(), *payload, *signature)) {
        signedByUs = true;
        break;
      }
    }
    if (!signedByUs) {
      return fail(Kind::badSignature,
                  keys_->keys.empty()
                      ? "receipt signature does not verify (no receipt public key is configured)"
                      : "receipt signature does not verify");
    }
    std::string message;
    auto receipt = readPayload(*payload, &message);
    if (!receipt) return fail(Kind::malformed, message);
    return receipt;
  } catch (const std::exception& e) {
    return fail(Kind::malformed, std::string("the receipt cannot be read: ") + e.what());
  }
}

std::string base64Encode(const std::string& bytes) {
  if (bytes.size() > static_cast<std::size_t>(INT_MAX / 4 * 3)) return {};
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<const unsigned char*>(bytes.data()),
                                static_cast<int>(bytes.size()));
  out.resize(written > 0 ? static_cast<std::size_t>(written) : 0);
  return out;
}

std::optional<std::string> base64Decode(const std::string& text) {
  if (text.size() > static_cast<std::size_t>(INT_MAX - 64)) return std::nullopt;
  std::unique_ptr<EVP_ENCODE_CTX, EncodeCtxFree> ctx(EVP_ENCODE_CTX_new());
  if (!ctx) return std::nullopt;
  EVP_DecodeInit(ctx.get());
  std::string out(text.size() / 4 * 3 + 64, '\0');
  auto* buffer = reinterpret_cast<unsigned char*>(out.data());
  int updated = 0;
  int finished = 0;
  if (EVP_DecodeUpdate(ctx.get(), buffer, &updated,
                       reinterpret_cast<const unsigned char*>(text.data()),
                       static_cast<int>(text.size())) < 0 ||
      EVP_DecodeFinal(ctx.get(), buffer + updated, &finished) != 1) {
    ERR_clear_error();
    return std::nullopt;
  }
  out.resize(static_cast<std::size_t>(updated + finished));
  return out;
}

}  // namespace velquin::sandbox
