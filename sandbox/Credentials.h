// Key material the sandbox keeps in its data directory:
//  - its own certificate authority (EC P-256, self-signed) and a server
//    certificate signed by it for DNS:localhost and IP:127.0.0.1;
//  - an ECDSA P-256 key that signs promotional offers.
// Everything is created on first use and reused afterwards; private keys are
// written with mode 0600.
//
// Ownership and threads: values; OfferSigner is safe to use from several
// threads at once (each signature uses its own EVP context).
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace velquin::sandbox {

struct TlsMaterial {
  std::string caCertificatePem;
  std::string serverCertificatePem;
  std::string serverKeyPem;
};

// Loads the CA and server certificate from `dir`, creating whatever is
// missing or unusable (a server certificate not signed by the CA is
// replaced). nullopt with `error` set when OpenSSL or the disk fails.
std::optional<TlsMaterial> loadOrCreateTlsMaterial(const std::filesystem::path& dir,
                                                   std::string* error);

class OfferSigner {
 public:
  static constexpr const char* kKeyId = "sandbox-offer-key-1";

  // Loads the key from `dir` or creates it, and writes its public half
  // beside it as offer-public-key.pem.
  static std::unique_ptr<OfferSigner> loadOrCreate(const std::filesystem::path& dir,
                                                   std::string* error);
  ~OfferSigner();
  OfferSigner(const OfferSigner&) = delete;
  OfferSigner& operator=(const OfferSigner&) = delete;

  const std::string& publicKeyPem() const { return publicKeyPem_; }

  // Base64 of the DER ECDSA-SHA256 signature over `message`; empty on failure.
  std::string signBase64(const std::string& message) const;

 private:
  struct Key;
  explicit OfferSigner(std::unique_ptr<Key> key, std::string publicKeyPem);
  std::unique_ptr<Key> key_;
  std::string publicKeyPem_;
};

// The text an offer signature covers: the fields joined with U+2063
// (invisible separator), the app user id lower-cased.
std::string offerSignaturePayload(const std::string& bundleId, const std::string& keyId,
                                  const std::string& productId, const std::string& offerId,
                                  const std::string& appUserId, const std::string& nonce,
                                  std::int64_t timestampMs);

// A random UUID in lower-case text.
std::string lowerCaseUuid();

}  // namespace velquin::sandbox
