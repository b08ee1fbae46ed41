#include "zbiap/devserver/answer_signing_key.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdint>
#include <vector>

#include "catalog/base64.h"

namespace zbiap {
namespace {

// Leaves no failure behind in the thread's OpenSSL error queue.
struct ErrorQueueGuard {
  ~ErrorQueueGuard() { ERR_clear_error(); }
};

// The passphrase callback of PEM reading: there is none, so an encrypted key fails at once
// instead of OpenSSL prompting on the terminal.
int noPassphrase(char*, int, int, void*) { return -1; }

void fail(std::string* error, const char* reason) {
  if (error != nullptr) *error = reason;
}

}  // namespace

AnswerSigningKey::AnswerSigningKey(EVP_PKEY* key) : key_(key) {
  unsigned char* der = nullptr;
  int length = i2d_PublicKey(key_, &der);
  if (length > 0) publicKey_ = base64Encode(std::span<const uint8_t>(der, length));
  OPENSSL_free(der);
}

AnswerSigningKey::~AnswerSigningKey() { EVP_PKEY_free(key_); }

std::unique_ptr<AnswerSigningKey> AnswerSigningKey::generate(int bits) {
  ErrorQueueGuard guard;
  if (bits < kMinimumBits || bits > kMaximumBits) return nullptr;
  EVP_PKEY* key = EVP_RSA_gen(static_cast<unsigned>(bits));
  if (key == nullptr) return nullptr;
  std::unique_ptr<AnswerSigningKey> made(new AnswerSigningKey(key));
  if (made->publicKey_.empty()) return nullptr;
  return made;
}

std::unique_ptr<AnswerSigningKey> AnswerSigningKey::fromPEM(std::string_view pem,
                                                            std::string* error) {
  ErrorQueueGuard guard;
  constexpr size_t kLargestPEM = 1 << 20;
  if (pem.size() > kLargestPEM) {
    fail(error, "too large for a PEM private key");
    return nullptr;
  }
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  if (bio == nullptr) {
    fail(error, "out of memory");
    return nullptr;
  }
  EVP_PKEY* key = PEM_read_bio_PrivateKey(bio, nullptr, noPassphrase, nullptr);
  BIO_free(bio);
  if (key == nullptr) {
    fail(error, "not an unencrypted PEM private key");
    return nullptr;
  }
  if (EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) {
    EVP_PKEY_free(key);
    fail(error, "not an RSA key");
    return nullptr;
  }
  if (EVP_PKEY_get_bits(key) < kMinimumBits) {
    EVP_PKEY_free(key);
    fail(error, "an RSA key of fewer than 2048 bits is too weak to sign answers");
    return nullptr;
  }
  std::unique_ptr<AnswerSigningKey> made(new AnswerSigningKey(key));
  if (made->publicKey_.empty()) {
    fail(error, "the public half cannot be written");
    return nullptr;
  }
  return made;
}

int AnswerSigningKey::bits() const { return EVP_PKEY_get_bits(key_); }

std::string AnswerSigningKey::privateKeyPEM() const {
  ErrorQueueGuard guard;
  BIO* bio = BIO_new(BIO_s_mem());
  std::string pem;
  if (bio != nullptr &&
      PEM_write_bio_PrivateKey(bio, key_, nullptr, nullptr, 0, nullptr, nullptr) == 1) {
    char* data = nullptr;
    long length = BIO_get_mem_data(bio, &data);
    if (length > 0) pem.assign(data, static_cast<size_t>(length));
  }
  BIO_free(bio);
  return pem;
}

std::string AnswerSigningKey::sign(std::string_view body) const {
  ErrorQueueGuard guard;
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  size_t length = 0;
  std::vector<uint8_t> signature;
  auto bytes = reinterpret_cast<const uint8_t*>(body.data());
  if (context != nullptr &&
      EVP_DigestSignInit(context, nullptr, EVP_sha256(), nullptr, key_) == 1 &&
      EVP_DigestSign(context, nullptr, &length, bytes, body.size()) == 1) {
    signature.resize(length);
    if (EVP_DigestSign(context, signature.data(), &length, bytes, body.size()) == 1) {
      signature.resize(length);
    } else {
      signature.clear();
    }
  }
  EVP_MD_CTX_free(context);
  return base64Encode(signature);
}

}  // namespace zbiap
