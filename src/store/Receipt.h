// Signed receipts of the local store.
//
// The receipt file is JSON: {"payload": base64(JSON bytes), "signature":
// base64(Ed25519 signature of those bytes), "key_id": ...}. The payload lists
// the bundle id and every stored transaction. The signing key lives in the
// store folder (receipt-signing-key.pem, mode 0600) beside its public half
// (receipt-public-key.pem), so a backend can check receipts.
//
// Ownership and threads: ReceiptSigner may be called from any thread; its key
// is loaded once under its own lock. verifySignedReceipt is stateless.
#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "store/StoreCrypto.h"
#include "store/TransactionHistory.h"
#include "support/Mutex.h"
#include "velquin/Error.h"

namespace velquin::store {

inline constexpr const char* kSigningKeyFile = "receipt-signing-key.pem";
inline constexpr const char* kPublicKeyFile = "receipt-public-key.pem";

nlohmann::json receiptPayload(const std::string& bundleId,
                              const std::vector<StoredTransaction>& history,
                              std::int64_t createdMs);

class ReceiptSigner {
 public:
  explicit ReceiptSigner(std::filesystem::path storeDirectory);

  std::optional<std::string> publicKeyPem(Error* error);
  // Signs the payload and writes the receipt file atomically.
  bool writeReceipt(const std::filesystem::path& receiptFile, const nlohmann::json& payload,
                    Error* error);

 private:
  // Loads the key pair, making it on first use. Caller holds mutex_.
  EVP_PKEY* keyLocked(Error* error) REQUIRES(mutex_);

  const std::filesystem::path directory_;
  support::Mutex mutex_;
  EvpKey key_ GUARDED_BY(mutex_);
  std::string keyId_ GUARDED_BY(mutex_);
};

// Checks a receipt file's signature with a PEM public key and returns its
// payload; absent with *problem set when anything does not check out.
std::optional<nlohmann::json> verifySignedReceipt(const std::string& fileBytes,
                                                  const std::string& publicKeyPem,
                                                  std::string* problem);

}  // namespace velquin::store
