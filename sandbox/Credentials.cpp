#include "Credentials.h"

#include <fcntl.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <sstream>
#include <vector>

#include "support/Uuid.h"

namespace velquin::sandbox {
namespace {

namespace fs = std::filesystem;

struct PkeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct X509Free {
  void operator()(X509* cert) const { X509_free(cert); }
};
struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct PkeyCtxFree {
  void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
struct MdCtxFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
struct BnFree {
  void operator()(BIGNUM* bn) const { BN_free(bn); }
};
struct ExtFree {
  void operator()(X509_EXTENSION* ext) const { X509_EXTENSION_free(ext); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;
using BioPtr = std::unique_ptr<BIO, BioFree>;

constexpr const char* kCaKeyFile = "ca-key.pem";
constexpr const char* kCaCertFile = "ca-cert.pem";
constexpr const char* kServerKeyFile = "server-key.pem";
constexpr const char* kServerCertFile = "server-cert.pem";
constexpr const char* kOfferKeyFile = "offer-key.pem";
constexpr const char* kOfferPublicKeyFile = "offer-public-key.pem";

constexpr long kDay = 24L * 60 * 60;

std::optional<std::string> readFile(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Writes through a temporary file and a rename, so a crash never leaves half
// a key behind. `mode` applies from creation on (0600 for private keys).
bool writeFile(const fs::path& file, const std::string& content, mode_t mode, std::string* error) {
  fs::path temp = file;
  temp += ".tmp";
  int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) {
    if (error) *error = "cannot write " + temp.string();
    return false;
  }
  std::size_t done = 0;
  while (done < content.size()) {
    ssize_t n = ::write(fd, content.data() + done, content.size() - done);
    if (n <= 0) {
      ::close(fd);
      if (error) *error = "cannot write " + temp.string();
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  ::fsync(fd);
  ::close(fd);
  std::error_code ec;
  fs::rename(temp, file, ec);
  if (ec) {
    if (error) *error = "cannot rename " + temp.string() + ": " + ec.message();
    return false;
  }
  return true;
}

std::string drain(BIO* bio) {
  std::string out(BIO_ctrl_pending(bio), '\0');
  int n = BIO_read(bio, out.data(), static_cast<int>(out.size()));
  out.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  return out;
}

PkeyPtr generateP256Key() {
  std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> ctx(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
  if (!ctx || EVP_PKEY_keygen_init(ctx.get()) <= 0 ||
      EVP_PKEY_CTX_set_group_name(ctx.get(), "P-256") <= 0) {
    return nullptr;
  }
  EVP_PKEY* key = nullptr;
  if (EVP_PKEY_generate(ctx.get(), &key) <= 0) return nullptr;
  return PkeyPtr(key);
}

std::string privateKeyPem(EVP_PKEY* key) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    return {};
  }
  return drain(bio.get());
}

std::string subjectPublicKeyPem(EVP_PKEY* key) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_PUBKEY(bio.get(), key) != 1) return {};
  return drain(bio.get());
}

std::string certificatePem(X509* cert) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_X509(bio.get(), cert) != 1) return {};
  return drain(bio.get());
}

PkeyPtr parseKey(const std::string& pem) {
  BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (!bio) return nullptr;
  return PkeyPtr(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
}

X509Ptr parseCertificate(const std::string& pem) {
  BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (!bio) return nullptr;
  return X509Ptr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}

bool addExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  std::unique_ptr<X509_EXTENSION, ExtFree> ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
  return ext && X509_add_ext(cert, ext.get(), -1) == 1;
}

bool setName(X509_NAME* name, const char* commonName) {
  auto add = [name](const char* field, const char* value) {
    return X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8,
                                      reinterpret_cast<const unsigned char*>(value), -1, -1,
                                      0) == 1;
  };
  return add("O", "Velquin Sandbox") && add("CN", commonName);
}

struct Extension {
  int nid;
  const char* value;
};

// A certificate for `subjectKey`, signed by `issuerKey`; `issuer` null means
// self-signed.
X509Ptr makeCertificate(EVP_PKEY* subjectKey, const char* commonName, X509* issuer,
                        EVP_PKEY* issuerKey, long validDays,
                        std::initializer_list<Extension> extensions) {
  X509Ptr cert(X509_new());
  if (!cert || X509_set_version(cert.get(), X509_VERSION_3) != 1) return nullptr;
  std::unique_ptr<BIGNUM, BnFree> serial(BN_new());
  if (!serial || BN_rand(serial.get(), 127, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) != 1 ||
      !BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert.get()))) {
    return nullptr;
  }
  if (!X509_gmtime_adj(X509_getm_notBefore(cert.get()), -kDay) ||
      !X509_gmtime_adj(X509_getm_notAfter(cert.get()), validDays * kDay)) {
    return nullptr;
  }
  if (!setName(X509_get_subject_name(cert.get()), commonName)) return nullptr;
  X509_NAME* issuerName = issuer ? X509_get_subject_name(issuer) : X509_get_subject_name(cert.get());
  if (X509_set_issuer_name(cert.get(), issuerName) != 1) return nullptr;
  if (X509_set_pubkey(cert.get(), subjectKey) != 1) return nullptr;
  X509* extensionIssuer = issuer ? issuer : cert.get();
  for (const auto& extension : extensions) {
    if (!addExtension(cert.get(), extensionIssuer, extension.nid, extension.value)) return nullptr;
  }
  if (X509_sign(cert.get(), issuerKey, EVP_sha256()) <= 0) return nullptr;
  return cert;
}

bool stillValid(X509* cert) {
  return X509_cmp_current_time(X509_get0_notAfter(cert)) > 0 &&
         X509_cmp_current_time(X509_get0_notBefore(cert)) < 0;
}

std::string opensslFailure(const std::string& what) { return "OpenSSL failed to " + what; }

}  // namespace

std::optional<TlsMaterial> loadOrCreateTlsMaterial(const fs::path& dir, std::string* error) {
  // The certificate authority.
  PkeyPtr caKey;
  X509Ptr caCert;
  {
    auto keyPem = readFile(dir / kCaKeyFile);
    auto certPem = readFile(dir / kCaCertFile);
    if (keyPem && certPem) {
      caKey = parseKey(*keyPem);
      caCert = parseCertificate(*certPem);
      if (!caKey || !caCert || X509_check_private_key(caCert.get(), caKey.get()) != 1 ||
          !stillValid(caCert.get())) {
        caKey.reset();
        caCert.reset();
      }
    }
  }
  bool freshCa = false;
  if (!caKey) {
    caKey = generateP256Key();
    if (!caKey) {
      if (error) *error = opensslFailure("generate the CA key");
      return std::nullopt;
    }
    caCert = makeCertificate(caKey.get(), "Velquin Sandbox CA", nullptr, caKey.get(), 3650,
                             {{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
                              {NID_key_usage, "critical,keyCertSign,cRLSign"},
                              {NID_subject_key_identifier, "hash"}});
    if (!caCert) {
      if (error) *error = opensslFailure("create the CA certificate");
      return std::nullopt;
    }
    if (!writeFile(dir / kCaKeyFile, privateKeyPem(caKey.get()), 0600, error) ||
        !writeFile(dir / kCaCertFile, certificatePem(caCert.get()), 0644, error)) {
      return std::nullopt;
    }
    freshCa = true;
  }

  // The server certificate, reused only while the CA it was issued by is ours.
  PkeyPtr serverKey;
  X509Ptr serverCert;
  if (!freshCa) {
    auto keyPem = readFile(dir / kServerKeyFile);
    auto certPem = readFile(dir / kServerCertFile);
    if (keyPem && certPem) {
      serverKey = parseKey(*keyPem);
      serverCert = parseCertificate(*certPem);
      if (!serverKey || !serverCert ||
          X509_check_private_key(serverCert.get(), serverKey.get()) != 1 ||
          X509_verify(serverCert.get(), X509_get0_pubkey(caCert.get())) != 1 ||
          !stillValid(serverCert.get())) {
        serverKey.reset();
        serverCert.reset();
      }
    }
  }
  if (!serverKey) {
    serverKey = generateP256Key();
    if (!serverKey) {
      if (error) *error = opensslFailure("generate the server key");
      return std::nullopt;
    }
    serverCert = makeCertificate(serverKey.get(), "localhost", caCert.get(), caKey.get(), 825,
                                 {{NID_basic_constraints, "critical,CA:FALSE"},
                                  {NID_key_usage, "critical,digitalSignature,keyAgreement"},
                                  {NID_ext_key_usage, "serverAuth"},
                                  {NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1"},
                                  {NID_subject_key_identifier, "hash"},
                                  {NID_authority_key_identifier, "keyid:always"}});
    if (!serverCert) {
      if (error) *error = opensslFailure("create the server certificate");
      return std::nullopt;
    }
    if (!writeFile(dir / kServerKeyFile, privateKeyPem(serverKey.get()), 0600, error) ||
        !writeFile(dir / kServerCertFile, certificatePem(serverCert.get()), 0644, error)) {
      return std::nullopt;
    }
  }

  TlsMaterial material{certificatePem(caCert.get()), certificatePem(serverCert.get()),
                       privateKeyPem(serverKey.get())};
  if (material.caCertificatePem.empty() || material.serverCertificatePem.empty() ||
      material.serverKeyPem.empty()) {
    if (error) *error = opensslFailure("write PEM text");
    return std::nullopt;
  }
  return material;
}

struct OfferSigner::Key {
  PkeyPtr pkey;
};

OfferSigner::OfferSigner(std::unique_ptr<Key> key, std::string publicKeyPemText)
    : key_(std::move(key)), publicKeyPem_(std::move(publicKeyPemText)) {}

OfferSigner::~OfferSigner() = default;

std::unique_ptr<OfferSigner> OfferSigner::loadOrCreate(const fs::path& dir, std::string* error) {
  PkeyPtr pkey;
  if (auto pem = readFile(dir / kOfferKeyFile)) {
    pkey = parseKey(*pem);
    if (pkey && !EVP_PKEY_is_a(pkey.get(), "EC")) pkey.reset();
  }
  if (!pkey) {
    pkey = generateP256Key();
    if (!pkey) {
      if (error) *error = opensslFailure("generate the offer signing key");
      return nullptr;
    }
    if (!writeFile(dir / kOfferKeyFile, privateKeyPem(pkey.get()), 0600, error)) return nullptr;
  }
  std::string publicPem = subjectPublicKeyPem(pkey.get());
  if (publicPem.empty()) {
    if (error) *error = opensslFailure("export the offer public key");
    return nullptr;
  }
  if (readFile(dir / kOfferPublicKeyFile) != publicPem &&
      !writeFile(dir / kOfferPublicKeyFile, publicPem, 0644, error)) {
    return nullptr;
  }
  auto key = std::make_unique<Key>();
  key->pkey = std::move(pkey);
  return std::unique_ptr<OfferSigner>(new OfferSigner(std::move(key), std::move(publicPem)));
}

std::string OfferSigner::signBase64(const std::string& message) const {
  std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key_->pkey.get()) != 1) {
    return {};
  }
  const auto* data = reinterpret_cast<const unsigned char*>(message.data());
  std::size_t length = 0;
  if (EVP_DigestSign(ctx.get(), nullptr, &length, data, message.size()) != 1) return {};
  std::vector<unsigned char> der(length);
  if (EVP_DigestSign(ctx.get(), der.data(), &length, data, message.size()) != 1) return {};
  der.resize(length);
  std::string encoded(4 * ((der.size() + 2) / 3) + 1, '\0');
  int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()), der.data(),
                                static_cast<int>(der.size()));
  encoded.resize(written > 0 ? static_cast<std::size_t>(written) : 0);
  return encoded;
}

std::string offerSignaturePayload(const std::string& bundleId, const std::string& keyId,
                                  const std::string& productId, const std::string& offerId,
                                  const std::string& appUserId, const std::string& nonce,
                                  std::int64_t timestampMs) {
  static const std::string separator = "\u2063";
  std::string user = appUserId;
  for (char& c : user) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return bundleId + separator + keyId + separator + productId + separator + offerId + separator +
         user + separator + nonce + separator + std::to_string(timestampMs);
}

std::string lowerCaseUuid() { return support::randomUuid(support::UuidCase::lower); }

}  // namespace velquin::sandbox
