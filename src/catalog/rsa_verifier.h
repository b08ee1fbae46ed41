// zbiap::RSAPublicKey: an RSA public key imported from the DER of a PKCS #1 RSAPublicKey
// (modulus and public exponent, nothing around it), and PKCS #1 v1.5 signature verification
// with SHA-256 over the message as given (the key hashes it). Immutable once made; one key may
// verify from many threads at once.
#ifndef ZBIAP_SRC_CATALOG_RSA_VERIFIER_H_
#define ZBIAP_SRC_CATALOG_RSA_VERIFIER_H_

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

struct evp_pkey_st;

namespace zbiap {

class RSAPublicKey {
 public:
  // Null unless `der` is exactly one PKCS #1 RSAPublicKey, every byte of it consumed.
  static std::shared_ptr<const RSAPublicKey> fromPKCS1DER(std::span<const uint8_t> der);
  // The same from strict base64 text; null when the text is not base64 or not such a key.
  static std::shared_ptr<const RSAPublicKey> fromBase64(std::string_view text);

  ~RSAPublicKey();
  RSAPublicKey(const RSAPublicKey&) = delete;
  RSAPublicKey& operator=(const RSAPublicKey&) = delete;

  // The modulus's size in bits.
  int bits() const;

  // Whether `signature` is this key's PKCS #1 v1.5 signature of SHA-256(message). Any input is
  // safe: a signature of the wrong length or not base64 simply fails.
  bool verifySHA256(std::span<const uint8_t> message, std::span<const uint8_t> signature) const;
  bool verifySHA256(std::span<const uint8_t> message, std::string_view base64Signature) const;

 private:
  explicit RSAPublicKey(evp_pkey_st* key) : key_(key) {}
  evp_pkey_st* key_;
};

}  // namespace zbiap

#endif  // ZBIAP_SRC_CATALOG_RSA_VERIFIER_H_
