// Thin wrappers over OpenSSL 3 (EVP) for the local store: base64, Ed25519
// receipt signatures, ECDSA P-256 offer signatures, PEM keys. Stateless; any
// thread.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace velquin::store {

struct EvpKeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using EvpKey = std::unique_ptr<EVP_PKEY, EvpKeyFree>;

std::string base64Encode(std::string_view bytes);
// Strict: standard alphabet with padding; surrounding white space is ignored.
std::optional<std::string> base64Decode(std::string_view text);

// Lower-case hex SHA-256 digest.
std::string sha256Hex(std::string_view bytes);

EvpKey generateEd25519Key();
EvpKey readPrivateKeyPem(std::string_view pem);
EvpKey readPublicKeyPem(std::string_view pem);
// PKCS#8 for the private half, SubjectPublicKeyInfo for the public half.
std::string privateKeyPem(EVP_PKEY* key);
std::string publicKeyPem(EVP_PKEY* key);
// The raw public key bytes (32 for Ed25519).
std::string rawPublicKey(EVP_PKEY* key);

bool isEd25519(EVP_PKEY* key);
// An EC key on the NIST P-256 curve.
bool isP256(EVP_PKEY* key);

std::optional<std::string> signEd25519(EVP_PKEY* key, std::string_view message);
bool verifyEd25519(EVP_PKEY* key, std::string_view message, std::string_view signature);
// A DER-encoded ECDSA signature over SHA-256 of the message.
bool verifyEcdsaSha256(EVP_PKEY* key, std::string_view message, std::string_view derSignature);

}  // namespace velquin::store
