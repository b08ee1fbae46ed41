#include "catalog/rsa_verifier.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <fstream>
#include <string>
#include <vector>

#include "catalog/base64.h"
#include "testing/testdata.h"
#include "zbiap/foundation/json.h"

namespace zbiap {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

Bytes fromHex(std::string_view hex) {
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return out;
}

// A fresh key pair, made with OpenSSL, to sign with.
class TestKey {
 public:
  explicit TestKey(unsigned bits = 2048) : key_(EVP_RSA_gen(bits)) {}
  ~TestKey() { EVP_PKEY_free(key_); }
  TestKey(const TestKey&) = delete;
  TestKey& operator=(const TestKey&) = delete;

  Bytes pkcs1() const { return encode(i2d_PublicKey); }
  Bytes subjectPublicKeyInfo() const { return encode(i2d_PUBKEY); }

  Bytes sign(const Bytes& message) const {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    size_t length = 0;
    Bytes signature;
    if (EVP_DigestSignInit(context, nullptr, EVP_sha256(), nullptr, key_) == 1 &&
        EVP_DigestSign(context, nullptr, &length, message.data(), message.size()) == 1) {
      signature.resize(length);
      EVP_DigestSign(context, signature.data(), &length, message.data(), message.size());
    }
    EVP_MD_CTX_free(context);
    return signature;
  }

 private:
  template <typename Encoder>
  Bytes encode(Encoder encoder) const {
    unsigned char* out = nullptr;
    int length = encoder(key_, &out);
    Bytes der(out, out + std::max(length, 0));
    OPENSSL_free(out);
    return der;
  }
  EVP_PKEY* key_;
};

struct Tally {
  int accepted = 0, rejected = 0;
};

// Runs every line of a converted Wycheproof file through import and verification.
Tally runVectors(const std::string& name) {
  Tally tally;
  std::ifstream in(testing::testdataDir() / "rsa" / name);
  std::string line;
  int lines = 0;
  while (std::getline(in, line)) {
    if (line.empty()) continue;
    ++lines;
    auto vector = parseJSON(line);
    if (!vector) {
      ADD_FAILURE() << "unreadable line " << lines << " of " << name;
      continue;
    }
    Value valid = (*vector)["valid"];
    std::string id = name + " tcId " + (*vector)["tcId"].description() + " (" +
                     (*vector)["comment"].description() + ")";
    auto key = RSAPublicKey::fromBase64(*(*vector)["key_b64"].asString());
    bool verified = key && key->verifySHA256(fromHex(*(*vector)["msg_hex"].asString()),
                                             *(*vector)["sig_b64"].asString());
    if (valid == Value(true)) {
      EXPECT_TRUE(key) << id;
      EXPECT_TRUE(verified) << id;
    } else if (valid == Value(false)) {
      EXPECT_FALSE(verified) << id;
    }
    (verified ? tally.accepted : tally.rejected)++;
  }
  EXPECT_GT(lines, 0) << name;
  return tally;
}

TEST(RSAVerifierVectorsTest, Wycheproof) {
  ZBIAP_REQUIRE_TESTDATA();
  Tally tally = runVectors("rsa_pkcs1_sha256_vectors.jsonl");
  EXPECT_GE(tally.accepted, 129);
  EXPECT_GE(tally.rejected, 1689);
}

TEST(RSAVerifierVectorsTest, GeneratedSignaturesAndOAuthlibVectors) {
  ZBIAP_REQUIRE_TESTDATA();
  EXPECT_EQ(runVectors("rsa_pkcs1_sha256_siggen_vectors.jsonl").rejected, 0);
  Tally oauthlib = runVectors("rsa_pkcs1_sha256_oauthlib_vectors.jsonl");
  EXPECT_EQ(oauthlib.accepted, 1);
  EXPECT_EQ(oauthlib.rejected, 4);
}

// The vectors hold every kind of bad signature; these are a fresh key's own, read from the text
// form, and another key's.
TEST(RSAVerifierTest, VerifiesOpenSSLSignaturesOfTheKeyOnly) {
  TestKey signer, other;
  auto key = RSAPublicKey::fromBase64(base64Encode(signer.pkcs1()));
  ASSERT_NE(key, nullptr);
  EXPECT_EQ(key->bits(), 2048);
  for (const Bytes& message : {bytesOf(R"({"products":[]})"), Bytes()}) {
    EXPECT_TRUE(key->verifySHA256(message, base64Encode(signer.sign(message))));
    EXPECT_FALSE(key->verifySHA256(message, other.sign(message)));
  }
}

TEST(RSAVerifierTest, ImportTakesExactlyOnePKCS1Key) {
  TestKey signer;
  Bytes der = signer.pkcs1();

  Bytes trailing = der;
  trailing.push_back(0);
  EXPECT_EQ(RSAPublicKey::fromPKCS1DER(trailing), nullptr);
  EXPECT_EQ(RSAPublicKey::fromPKCS1DER(Bytes(der.begin(), der.end() - 1)), nullptr);
  EXPECT_EQ(RSAPublicKey::fromPKCS1DER(signer.subjectPublicKeyInfo()), nullptr);
  EXPECT_EQ(RSAPublicKey::fromPKCS1DER(Bytes()), nullptr);
  EXPECT_EQ(RSAPublicKey::fromPKCS1DER(bytesOf("\x30")), nullptr);
  EXPECT_EQ(RSAPublicKey::fromPKCS1DER(bytesOf(std::string("\x30\x03\x02\x01\x00", 5))), nullptr);

  std::string text = base64Encode(der);
  EXPECT_EQ(RSAPublicKey::fromBase64(text.substr(0, 64) + "\n" + text.substr(64)), nullptr);
  EXPECT_EQ(RSAPublicKey::fromBase64(" " + text), nullptr);
  EXPECT_EQ(RSAPublicKey::fromBase64("not a key"), nullptr);
  EXPECT_EQ(RSAPublicKey::fromBase64(""), nullptr);
}

TEST(RSAVerifierTest, ArbitraryBytesNeverImportOrCrash) {
  Bytes der = TestKey(1024).pkcs1();
  for (size_t cut = 0; cut < der.size(); ++cut) {
    EXPECT_EQ(RSAPublicKey::fromPKCS1DER(Bytes(der.begin(), der.begin() + cut)), nullptr);
  }
  for (size_t i = 0; i < der.size(); ++i) {
    Bytes mutated = der;
    mutated[i] ^= 0xff;
    if (auto key = RSAPublicKey::fromPKCS1DER(mutated)) {
      EXPECT_FALSE(key->verifySHA256(der, der));
    }
  }
}

TEST(Base64Test, RoundTripsAndReadsStrictly) {
  EXPECT_EQ(base64Encode(std::string_view("")), "");
  EXPECT_EQ(base64Encode(std::string_view("f")), "Zg==");
  EXPECT_EQ(base64Encode(std::string_view("fo")), "Zm8=");
  EXPECT_EQ(base64Encode(std::string_view("foobar")), "Zm9vYmFy");
  Bytes all;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<uint8_t>(i));
  for (size_t n = 0; n <= all.size(); n += 37) {
    Bytes part(all.begin(), all.begin() + n);
    EXPECT_EQ(base64DecodeStrict(base64Encode(part)), part);
  }
  EXPECT_EQ(base64DecodeStrict(""), Bytes());
  EXPECT_EQ(base64DecodeStrict("Zm9vYg=="), bytesOf("foob"));
  EXPECT_EQ(base64DecodeStrict("+/+/"), (Bytes{0xfb, 0xff, 0xbf}));
  for (const char* bad : {"Zg", "Zg=", "Zm9vY", "Zg===", "====", "Z===", "Zg==Zg==", "Zm=v",
                          "Zm9v\n", "Zm9v YmFy", "Zm9v\r\nYmFy", "-_-_", "Zm9v\tYmFy", "Zm9v!"}) {
    EXPECT_EQ(base64DecodeStrict(bad), std::nullopt) << bad;
  }
  EXPECT_EQ(base64DecodeStrict(std::string_view("Zm9v\0YmF", 8)), std::nullopt);
}

}  // namespace
}  // namespace zbiap
