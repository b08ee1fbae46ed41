// zbiap::AnswerSigningKey: the RSA private key that signs catalogue answers, as the catalogue
// service holds it. It signs a body with PKCS #1 v1.5 over SHA-256 and gives the signature in
// base64, the value of the answer's "X-Tessil-Signature" header; publicKeyBase64() is the text a
// fetcher is configured with to check those signatures (base64 of the DER PKCS #1
// RSAPublicKey). Used by the development catalogue server and by `zbiap keygen` and
// `zbiap catalog sign`.
//
// Contracts: immutable once made; sign() may be called from many threads at once.
#ifndef ZBIAP_DEVSERVER_ANSWER_SIGNING_KEY_H_
#define ZBIAP_DEVSERVER_ANSWER_SIGNING_KEY_H_

#include <memory>
#include <string>
#include <string_view>

struct evp_pkey_st;

namespace zbiap {

class AnswerSigningKey {
 public:
  static constexpr int kDefaultBits = 3072;
  static constexpr int kMinimumBits = 2048;
  static constexpr int kMaximumBits = 8192;

  // A new key of `bits` bits (kMinimumBits to kMaximumBits); null when out of range or when
  // OpenSSL cannot make one.
  static std::unique_ptr<AnswerSigningKey> generate(int bits = kDefaultBits);
  // Reads an unencrypted RSA private key in PEM ("PRIVATE KEY" or "RSA PRIVATE KEY"). Null, with
  // the reason in `error` when given, for anything else; never asks for a passphrase.
  static std::unique_ptr<AnswerSigningKey> fromPEM(std::string_view pem,
                                                   std::string* error = nullptr);

  ~AnswerSigningKey();
  AnswerSigningKey(const AnswerSigningKey&) = delete;
  AnswerSigningKey& operator=(const AnswerSigningKey&) = delete;

  int bits() const;
  // The private key as unencrypted PKCS #8 PEM.
  std::string privateKeyPEM() const;
  // Base64 of the DER PKCS #1 RSAPublicKey, on one line.
  const std::string& publicKeyBase64() const { return publicKey_; }
  // The base64 signature of `body`, byte for byte as given; empty only if OpenSSL fails.
  std::string sign(std::string_view body) const;

 private:
  explicit AnswerSigningKey(evp_pkey_st* key);
  evp_pkey_st* key_;
  std::string publicKey_;
};

}  // namespace zbiap

#endif  // ZBIAP_DEVSERVER_ANSWER_SIGNING_KEY_H_
