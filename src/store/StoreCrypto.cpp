#include "store/StoreCrypto.h"

#include <openssl/bio.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <cctype>
#include <cstdint>
#include <cstring>
#include <vector>

namespace velquin::store {
namespace {

struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
using Bio = std::unique_ptr<BIO, BioFree>;

struct MdCtxFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using MdCtx = std::unique_ptr<EVP_MD_CTX, MdCtxFree>;

const unsigned char* bytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

Bio memoryBio(std::string_view text) {
  return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

std::string drain(BIO* bio) {
  char* data = nullptr;
  long length = BIO_get_mem_data(bio, &data);
  return length > 0 ? std::string(data, static_cast<size_t>(length)) : std::string();
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) {
    text.remove_prefix(1);
  }
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) {
    text.remove_suffix(1);
  }
  return text;
}

}  // namespace

std::string base64Encode(std::string_view bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytesOf(bytes),
                               static_cast<int>(bytes.size()));
  text.resize(length > 0 ? static_cast<size_t>(length) : 0);
  return text;
}

std::optional<std::string> base64Decode(std::string_view text) {
  text = trim(text);
  if (text.size() % 4 != 0) return std::nullopt;
  if (text.empty()) return std::string();
  std::string bytes(text.size() / 4 * 3, '\0');
  int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()), bytesOf(text),
                               static_cast<int>(text.size()));
  if (length < 0) return std::nullopt;
  // EVP_DecodeBlock counts the padding as zero bytes; drop them.
  size_t padding = 0;
  if (text.back() == '=') ++padding;
  if (text.size() >= 2 && text[text.size() - 2] == '=') ++padding;
  bytes.resize(static_cast<size_t>(length) - padding);
  return bytes;
}

std::string sha256Hex(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
  static const char* hex = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < length; ++i) {
    text += hex[digest[i] >> 4];
    text += hex[digest[i] & 0xf];
  }
  return text;
}

EvpKey generateEd25519Key() { return EvpKey(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519")); }

EvpKey readPrivateKeyPem(std::string_view pem) {
  Bio bio = memoryBio(pem);
  if (!bio) return nullptr;
  EvpKey key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
  if (!key) ERR_clear_error();
  return key;
}

EvpKey readPublicKeyPem(std::string_view pem) {
  Bio bio = memoryBio(pem);
  if (!bio) return nullptr;
  EvpKey key(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
  if (!key) ERR_clear_error();
  return key;
}

std::string privateKeyPem(EVP_PKEY* key) {
  Bio bio(BIO_new(BIO_s_mem()));
  if (!bio || !PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr)) {
    return {};
  }
  return drain(bio.get());
}

std::string publicKeyPem(EVP_PKEY* key) {
  Bio bio(BIO_new(BIO_s_mem()));
  if (!bio || !PEM_write_bio_PUBKEY(bio.get(), key)) return {};
  return drain(bio.get());
}

std::string rawPublicKey(EVP_PKEY* key) {
  size_t length = 0;
  if (!EVP_PKEY_get_raw_public_key(key, nullptr, &length)) return {};
  std::string raw(length, '\0');
  if (!EVP_PKEY_get_raw_public_key(key, reinterpret_cast<unsigned char*>(raw.data()), &length)) {
    return {};
  }
  raw.resize(length);
  return raw;
}

bool isEd25519(EVP_PKEY* key) { return key && EVP_PKEY_is_a(key, "ED25519"); }

bool isP256(EVP_PKEY* key) {
  if (!key || !EVP_PKEY_is_a(key, "EC")) return false;
  char group[64] = {};
  size_t length = 0;
  if (!EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group,
                                      &length)) {
    return false;
  }
  return std::strcmp(group, "prime256v1") == 0 || std::strcmp(group, "P-256") == 0;
}

std::optional<std::string> signEd25519(EVP_PKEY* key, std::string_view message) {
  MdCtx ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, nullptr, nullptr, key) != 1) {
    return std::nullopt;
  }
  size_t length = 0;
  if (EVP_DigestSign(ctx.get(), nullptr, &length, bytesOf(message), message.size()) != 1) {
    return std::nullopt;
  }
  std::string signature(length, '\0');
  if (EVP_DigestSign(ctx.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                     bytesOf(message), message.size()) != 1) {
    return std::nullopt;
  }
  signature.resize(length);
  return signature;
}

bool verifyEd25519(EVP_PKEY* key, std::string_view message, std::string_view signature) {
  MdCtx ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key) != 1) return false;
  bool valid = EVP_DigestVerify(ctx.get(), bytesOf(signature), signature.size(),
                                bytesOf(message), message.size()) == 1;
  ERR_clear_error();  // a mismatch leaves an entry behind
  return valid;
}

bool verifyEcdsaSha256(EVP_PKEY* key, std::string_view message, std::string_view derSignature) {
  MdCtx ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key) != 1) {
    return false;
  }
  bool valid = EVP_DigestVerifyUpdate(ctx.get(), message.data(), message.size()) == 1 &&
               EVP_DigestVerifyFinal(ctx.get(), bytesOf(derSignature), derSignature.size()) == 1;
  ERR_clear_error();  // a malformed or mismatching signature leaves an entry behind
  return valid;
}

}  // namespace velquin::store
