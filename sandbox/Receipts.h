// Checks receipts written by the local store. A receipt travels as standard
// base64 of the receipt file, which is JSON:
//   {"payload": base64(payload JSON bytes),
//    "signature": base64(Ed25519 signature over exactly those bytes),
//    "key_id": "..."}
// The payload names the app ("bundle_id") and lists its transactions.
//
// Ownership and threads: a ReceiptVerifier is immutable once made; verify()
// may run on several threads at once (each check uses its own EVP context).
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Subscribers.h"

namespace velquin::sandbox {

struct VerifiedReceipt {
  std::string bundleId;
  std::vector<Purchase> purchases;
};

struct ReceiptProblem {
  enum class Kind {
    malformed,     // not a receipt: bad base64, JSON or fields
    badSignature,  // well formed, but no configured key signed it
  };
  Kind kind = Kind::malformed;
  std::string message;
};

class ReceiptVerifier {
 public:
  // Parses Ed25519 public keys in PEM (SubjectPublicKeyInfo). nullptr with
  // `error` naming the key when one is not such a key. An empty list makes
  // a verifier that accepts no receipt.
  static std::unique_ptr<ReceiptVerifier> create(const std::vector<std::string>& publicKeyPems,
                                                 std::string* error);
  ~ReceiptVerifier();
  ReceiptVerifier(const ReceiptVerifier&) = delete;
  ReceiptVerifier& operator=(const ReceiptVerifier&) = delete;

  // Decodes the base64 receipt, checks its signature against every key and
  // reads the signed payload. Never throws.
  std::optional<VerifiedReceipt> verify(const std::string& receiptBase64,
                                        ReceiptProblem* problem) const;

 private:
  struct Keys;
  explicit ReceiptVerifier(std::unique_ptr<Keys> keys);
  std::unique_ptr<Keys> keys_;
};

// Standard base64 with padding; line breaks and surrounding blanks are
// ignored on decoding. nullopt for anything else.
std::string base64Encode(const std::string& bytes);
std::optional<std::string> base64Decode(const std::string& text);

}  // namespace velquin::sandbox
