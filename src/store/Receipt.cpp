#include "store/Receipt.h"

#include <openssl/err.h>

#include "store/StoreFiles.h"
#include "support/Console.h"
#include "velquin/StoreKit.h"

namespace velquin::store {
namespace {

Error receiptError(const std::string& message) {
  return makeSKError(SKErrorCode::unknown, "local store receipt: " + message);
}

}  // namespace

nlohmann::json receiptPayload(const std::string& bundleId,
                              const std::vector<StoredTransaction>& history,
                              std::int64_t createdMs) {
  nlohmann::json transactions = nlohmann::json::array();
  for (const auto& t : history) transactions.push_back(receiptEntry(t));
  return {{"bundle_id", bundleId},
          {"environment", "local"},
          {"receipt_creation_date_ms", createdMs},
          {"transactions", std::move(transactions)}};
}

ReceiptSigner::ReceiptSigner(std::filesystem::path storeDirectory)
    : directory_(std::move(storeDirectory)) {}

EVP_PKEY* ReceiptSigner::keyLocked(Error* error) {
  if (key_) return key_.get();
  const auto privateFile = directory_ / kSigningKeyFile;
  const auto publicFile = directory_ / kPublicKeyFile;

  // Two attempts: a second process may create the key between our read and
  // our exclusive create, and then we read theirs.
  for (int attempt = 0; attempt < 2 && !key_; ++attempt) {
    std::error_code ec;
    if (std::filesystem::exists(privateFile, ec)) {
      std::string problem;
      auto pem = readFile(privateFile, &problem);
      EvpKey key = pem ? readPrivateKeyPem(*pem) : nullptr;
      ERR_clear_error();
      if (isEd25519(key.get())) {
        key_ = std::move(key);
        break;
      }
      auto aside = moveAside(privateFile);
      support::warn("[local store] receipt signing key " + privateFile.string() +
                    " is unreadable; kept as " + aside.string() + ", making a new key");
    }
    EvpKey fresh = generateEd25519Key();
    std::string pem = fresh ? privateKeyPem(fresh.get()) : std::string();
    if (pem.empty()) {
      ERR_clear_error();
      if (error) *error = receiptError("cannot make an Ed25519 key");
      return nullptr;
    }
    std::string problem;
    if (createFileExclusively(privateFile, pem, 0600, &problem)) {
      key_ = std::move(fresh);
    } else if (!problem.empty()) {
      if (error) *error = receiptError(problem);
      return nullptr;
    }
  }
  if (!key_) {
    if (error) *error = receiptError("cannot settle on a signing key in " + directory_.string());
    return nullptr;
  }
  keyId_ = sha256Hex(rawPublicKey(key_.get())).substr(0, 16);

  // Keep the exported public half in step with the key.
  std::string pem = store::publicKeyPem(key_.get());
  std::string current;
  auto existing = readFile(publicFile, &current);
  if (!existing || *existing != pem) {
    std::string problem;
    if (!writeFileAtomically(publicFile, pem, 0644, &problem)) {
      support::warn("[local store] " + problem);
    }
  }
  return key_.get();
}

std::optional<std::string> ReceiptSigner::publicKeyPem(Error* error) {
  support::MutexLock lock(mutex_);
  EVP_PKEY* key = keyLocked(error);
  if (!key) return std::nullopt;
  return store::publicKeyPem(key);
}

bool ReceiptSigner::writeReceipt(const std::filesystem::path& receiptFile,
                                 const nlohmann::json& payload, Error* error) {
  // Account tokens come from the app; replace invalid UTF-8 rather than throw.
  std::string bytes = payload.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  std::optional<std::string> signature;
  std::string keyId;
  {
    support::MutexLock lock(mutex_);
    EVP_PKEY* key = keyLocked(error);
    if (!key) return false;
    signature = signEd25519(key, bytes);
    keyId = keyId_;
  }
  if (!signature) {
    ERR_clear_error();
    if (error) *error = receiptError("signing failed");
    return false;
  }
  nlohmann::json file = {
      {"payload", base64Encode(bytes)}, {"signature", base64Encode(*signature)}, {"key_id", keyId}};
  std::string problem;
  if (!writeFileAtomically(receiptFile, file.dump(), 0644, &problem)) {
    if (error) *error = receiptError(problem);
    return false;
  }
  return true;
}

std::optional<nlohmann::json> verifySignedReceipt(const std::string& fileBytes,
                                                  const std::string& publicKeyPem,
                                                  std::string* problem) {
  auto fail = [&](const std::string& what) -> std::optional<nlohmann::json> {
    ERR_clear_error();
    if (problem) *problem = what;
    return std::nullopt;
  };
  auto file = nlohmann::json::parse(fileBytes, nullptr, false);
  if (file.is_discarded() || !file.is_object()) return fail("the receipt is not a JSON object");
  auto payloadText = file.find("payload");
  auto signatureText = file.find("signature");
  if (payloadText == file.end() || !payloadText->is_string() || signatureText == file.end() ||
      !signatureText->is_string()) {
    return fail("the receipt lacks payload or signature text");
  }
  auto payload = base64Decode(payloadText->get<std::string>());
  auto signature = base64Decode(signatureText->get<std::string>());
  if (!payload || !signature) return fail("payload or signature is not base64");
  EvpKey key = readPublicKeyPem(publicKeyPem);
  if (!isEd25519(key.get())) return fail("the public key is not an Ed25519 PEM key");
  if (!verifyEd25519(key.get(), *payload, *signature)) return fail("the signature does not match");
  auto json = nlohmann::json::parse(*payload, nullptr, false);
  if (json.is_discarded()) return fail("the signed payload is not JSON");
  return json;
}

}  // namespace velquin::store
