#include "catalog/rsa_verifier.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <climits>

#include "catalog/base64.h"

namespace zbiap {

namespace {

// Leaves no failure behind in the thread's OpenSSL error queue.
struct ErrorQueueGuard {
  ~ErrorQueueGuard() { ERR_clear_error(); }
};

// A PKCS #1 RSAPublicKey is a SEQUENCE whose first element is the modulus INTEGER; a
// SubjectPublicKeyInfo (which OpenSSL's decoders would also take) starts with the algorithm's
// SEQUENCE instead. Only the former is what the key text is meant to hold.
bool startsLikePKCS1(std::span<const uint8_t> der) {
  if (der.size() < 2 || der[0] != 0x30) return false;
  size_t offset = 2;
  if (der[1] & 0x80) offset += der[1] & 0x7f;
  return offset < der.size() && der[offset] == 0x02;
}

}  // namespace

std::shared_ptr<const RSAPublicKey> RSAPublicKey::fromPKCS1DER(std::span<const uint8_t> der) {
  ErrorQueueGuard guard;
  if (der.empty() || der.size() > LONG_MAX || !startsLikePKCS1(der)) return nullptr;
  const unsigned char* cursor = der.data();
  EVP_PKEY* key = d2i_PublicKey(EVP_PKEY_RSA, nullptr, &cursor, static_cast<long>(der.size()));
  if (!key) return nullptr;
  if (cursor != der.data() + der.size() || EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) {
    EVP_PKEY_free(key);
    return nullptr;
  }
  return std::shared_ptr<const RSAPublicKey>(new RSAPublicKey(key));
}

std::shared_ptr<const RSAPublicKey> RSAPublicKey::fromBase64(std::string_view text) {
  auto der = base64DecodeStrict(text);
  if (!der) return nullptr;
  return fromPKCS1DER(*der);
}

RSAPublicKey::~RSAPublicKey() { EVP_PKEY_free(key_); }

int RSAPublicKey::bits() const { return EVP_PKEY_get_bits(key_); }

bool RSAPublicKey::verifySHA256(std::span<const uint8_t> message,
                                std::span<const uint8_t> signature) const {
  ErrorQueueGuard guard;
  if (signature.empty()) return false;
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  if (!context) return false;
  EVP_PKEY_CTX* keyContext = nullptr;
  bool valid = EVP_DigestVerifyInit(context, &keyContext, EVP_sha256(), nullptr, key_) == 1 &&
               EVP_PKEY_CTX_set_rsa_padding(keyContext, RSA_PKCS1_PADDING) == 1 &&
               EVP_DigestVerify(context, signature.data(), signature.size(), message.data(),
                                message.size()) == 1;
  EVP_MD_CTX_free(context);
  return valid;
}

bool RSAPublicKey::verifySHA256(std::span<const uint8_t> message,
                                std::string_view base64Signature) const {
  auto signature = base64DecodeStrict(base64Signature);
  return signature && verifySHA256(message, *signature);
}

}  // namespace zbiap
