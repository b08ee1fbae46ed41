#include "catalog/rsa_verifier.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <fstream>
#include <string>
#include <vector>

#include "catalog/base64.h"
#include "testing/testdata.h"
#include "zbiap/devserver/answer_signing_key.h"
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

// Runs every line of a converted Wycheproof file through import and verification; returns how
// many signatures were accepted and how many rejected.
std::pair<int, int> runVectors(const std::string& name) {
  std::pair<int, int> tally;
  std::ifstream in(testing::testdataDir() / "rsa" / name);
  std::string line;
  while (std::getline(in, line)) {
    auto vector = parseJSON(line);
    if (!vector) continue;
    std::string id = name + " tcId " + (*vector)["tcId"].description();
    auto key = RSAPublicKey::fromBase64(*(*vector)["key_b64"].asString());
    bool verified = key && key->verifySHA256(fromHex(*(*vector)["msg_hex"].asString()),
                                             *(*vector)["sig_b64"].asString());
    if ((*vector)["valid"] == Value(true)) {
      EXPECT_TRUE(verified) << id;
    } else if ((*vector)["valid"] == Value(false)) {
      EXPECT_FALSE(verified) << id;
    }
    (verified ? tally.first : tally.second)++;
  }
  return tally;
}

TEST(RSAVerifierTest, Vectors) {
  ZBIAP_REQUIRE_TESTDATA();
  auto [accepted, rejected] = runVectors("rsa_pkcs1_sha256_vectors.jsonl");
  EXPECT_GE(accepted, 129);
  EXPECT_GE(rejected, 1689);
  EXPECT_EQ(runVectors("rsa_pkcs1_sha256_siggen_vectors.jsonl"), std::pair(88, 0));
  EXPECT_EQ(runVectors("rsa_pkcs1_sha256_oauthlib_vectors.jsonl"), std::pair(1, 4));
}

// The vectors hold every kind of bad signature; these are a fresh key's own and another key's.
TEST(RSAVerifierTest, VerifiesSignaturesOfTheKeyOnly) {
  auto signer = AnswerSigningKey::generate(2048), other = AnswerSigningKey::generate(2048);
  auto key = RSAPublicKey::fromBase64(signer->publicKeyBase64());
  ASSERT_NE(key, nullptr);
  EXPECT_EQ(key->bits(), 2048);
  for (const char* message : {R"({"products":[]})", ""}) {
    EXPECT_TRUE(key->verifySHA256(bytesOf(message), signer->sign(message)));
    EXPECT_FALSE(key->verifySHA256(bytesOf(message), other->sign(message)));
  }

  // Exactly one PKCS #1 key is taken: no trailing byte, no SubjectPublicKeyInfo (which OpenSSL
  // alone would take), no line breaks or blanks in the text.
  std::string text = signer->publicKeyBase64();
  Bytes der = *base64DecodeStrict(text);
  const unsigned char* cursor = der.data();
  EVP_PKEY* pair = d2i_PublicKey(EVP_PKEY_RSA, nullptr, &cursor, static_cast<long>(der.size()));
  unsigned char* info = nullptr;
  int length = i2d_PUBKEY(pair, &info);
  Bytes subjectPublicKeyInfo(info, info + std::max(length, 0));
  OPENSSL_free(info);
  EVP_PKEY_free(pair);
  Bytes trailing = der;
  trailing.push_back(0);
  for (const Bytes& bad :
       {trailing, Bytes(der.begin(), der.end() - 1), subjectPublicKeyInfo, Bytes(), bytesOf("\x30"),
        bytesOf(std::string("\x30\x03\x02\x01\x00", 5))}) {
    EXPECT_EQ(RSAPublicKey::fromPKCS1DER(bad), nullptr) << bad.size();
  }
  for (const std::string& bad :
       {text.substr(0, 64) + "\n" + text.substr(64), " " + text, std::string("not a key")}) {
    EXPECT_EQ(RSAPublicKey::fromBase64(bad), nullptr) << bad;
  }
}

TEST(Base64Test, RoundTripsAndReadsStrictly) {
  const std::pair<const char*, const char*> rows[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foobar", "Zm9vYmFy"}, {"foob", "Zm9vYg=="}};
  for (const auto& [plain, encoded] : rows) {
    EXPECT_EQ(base64Encode(std::string_view(plain)), encoded);
    EXPECT_EQ(base64DecodeStrict(encoded), bytesOf(plain));
  }
  Bytes all;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<uint8_t>(i));
  for (size_t n = 0; n <= all.size(); n += 37) {
    Bytes part(all.begin(), all.begin() + n);
    EXPECT_EQ(base64DecodeStrict(base64Encode(part)), part);
  }
  EXPECT_EQ(base64DecodeStrict("+/+/"), (Bytes{0xfb, 0xff, 0xbf}));
  for (const std::string bad :
       {"Zg", "Zg=", "Zm9vY", "Zg===", "====", "Z===", "Zg==Zg==", "Zm=v", "Zm9v\n", "Zm9v YmFy",
        "Zm9v\r\nYmFy", "-_-_", "Zm9v\tYmFy", "Zm9v!"}) {
    EXPECT_EQ(base64DecodeStrict(bad), std::nullopt) << bad;
  }
  EXPECT_EQ(base64DecodeStrict(std::string_view("Zm9v\0YmF", 8)), std::nullopt);
}

}  // namespace
}  // namespace zbiap
