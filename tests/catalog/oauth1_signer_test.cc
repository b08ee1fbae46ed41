#include "catalog/oauth1_signer.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "testing/testdata.h"
#include "zbiap/foundation/json.h"
#include "zbiap/platform/platform.h"

namespace zbiap {
namespace {

Value loadJSON(const std::string& name) {
  std::string error;
  auto text = testing::readFile(testing::testdataDir() / "oauth1" / name);
  auto value = parseJSON(text, &error);
  EXPECT_TRUE(value.has_value()) << name << ": " << error;
  return value.value_or(Value());
}

std::optional<std::string> text(const Value& value) {
  if (auto* s = value.asString()) return *s;
  return std::nullopt;
}

OAuthParameters pairs(const Value& list) {
  OAuthParameters out;
  if (auto* array = list.asArray()) {
    for (const Value& pair : *array) out.emplace_back(*pair[0].asString(), *pair[1].asString());
  }
  return out;
}

// The parameters a vector signs besides the URL's query: its form parameters (read from its
// body when it has one) and the oauth_* ones it names.
OAuthParameters signedParameters(const Value& vector) {
  OAuthParameters params;
  if (auto body = text(vector["body"])) {
    params = parseFormURLEncoded(*body);
  } else {
    params = pairs(vector["params"]["form"]);
  }
  auto add = [&](const char* name, const char* key) {
    if (auto value = text(vector[key])) params.emplace_back(name, *value);
  };
  add("oauth_consumer_key", "consumer_key");
  add("oauth_token", "token");
  add("oauth_nonce", "nonce");
  add("oauth_timestamp", "timestamp");
  add("oauth_signature_method", "signature_method");
  add("oauth_version", "version");
  for (auto& extra : pairs(vector["extra_oauth_params"])) params.push_back(extra);
  return params;
}

// The value of one parameter of an Authorization header, still encoded.
std::string authorizationField(const std::string& header, const std::string& name) {
  auto start = header.find(name + "=\"");
  if (start == std::string::npos) return {};
  start += name.size() + 2;
  return header.substr(start, header.find('"', start) - start);
}

std::string percentDecode(std::string_view text) {
  auto decoded = parseFormURLEncoded("x=" + std::string(text));
  return decoded.empty() ? std::string() : decoded[0].second;
}

TEST(OAuth1VectorsTest, EveryPublishedVectorReproduces) {
  ZBIAP_REQUIRE_TESTDATA();
  Value vectors = loadJSON("vectors.json");
  ASSERT_TRUE(vectors.isArray());
  ASSERT_GE(vectors.size(), 23u);
  int signatures = 0;
  for (const Value& vector : *vectors.asArray()) {
    std::string id = *vector["id"].asString();
    SCOPED_TRACE(id);
    std::string kind = *vector["kind"].asString();
    std::string consumerSecret = text(vector["consumer_secret"]).value_or("");
    std::string tokenSecret = text(vector["token_secret"]).value_or("");
    EXPECT_EQ(oauthSigningKey(consumerSecret, tokenSecret),
              *vector["expected_signing_key"].asString());
    std::string baseString = *vector["expected_base_string"].asString();
    if (kind == "request" || kind == "base_string") {
      std::string url = *vector["url"].asString();
      EXPECT_EQ(oauthBaseStringURI(url), text(vector["base_string_uri"]));
      EXPECT_EQ(
          oauthSignatureBaseString(*vector["method"].asString(), url, signedParameters(vector)),
          baseString);
    } else {
      ASSERT_EQ(kind, "hmac");
    }
    if (auto expected = text(vector["expected_signature"])) {
      EXPECT_EQ(oauthHMACSHA1Signature(baseString, consumerSecret, tokenSecret), *expected);
      ++signatures;
    }
  }
  EXPECT_GE(signatures, 18);
}

// The signer itself (not only its parts) reproduces every request vector it can express: one
// with version 1.0, no extra protocol parameters, and its form parameters in its body.
TEST(OAuth1VectorsTest, SignerReproducesRequestVectors) {
  ZBIAP_REQUIRE_TESTDATA();
  Value vectors = loadJSON("vectors.json");
  int signedCount = 0;
  for (const Value& vector : *vectors.asArray()) {
    SCOPED_TRACE(*vector["id"].asString());
    if (*vector["kind"].asString() != "request" || text(vector["version"]) != "1.0" ||
        vector["extra_oauth_params"].size() != 0 ||
        (!text(vector["body"]) && vector["params"]["form"].size() != 0)) {
      continue;
    }
    auto signer = OAuth1Signer::create(
        *vector["consumer_key"].asString(), text(vector["consumer_secret"]).value_or(""),
        text(vector["token"]), text(vector["token_secret"]).value_or(""));
    ASSERT_NE(signer, nullptr);
    HttpRequest request;
    request.method = *vector["method"].asString();
    request.url = *vector["url"].asString();
    if (auto body = text(vector["body"])) {
      request.setHeader("Content-Type", "application/x-www-form-urlencoded");
      request.setBody(*body);
    }
    ASSERT_TRUE(signer->authorizeRequest(request, *vector["nonce"].asString(),
                                         *vector["timestamp"].asString()));
    auto header = request.headerValue("Authorization");
    ASSERT_TRUE(header);
    EXPECT_TRUE(header->starts_with("OAuth "));
    EXPECT_EQ(percentDecode(authorizationField(*header, "oauth_signature")),
              *vector["expected_signature"].asString());
    ++signedCount;
  }
  EXPECT_GE(signedCount, 8);
}

TEST(OAuth1VectorsTest, EncodingAndNormalisation) {
  ZBIAP_REQUIRE_TESTDATA();
  Value vectors = loadJSON("encoding_vectors.json");
  ASSERT_GT(vectors["percent_encoding"].size(), 0u);
  for (const Value& row : *vectors["percent_encoding"].asArray()) {
    EXPECT_EQ(oauthPercentEncode(*row["input"].asString()), *row["encoded"].asString());
  }
  ASSERT_GT(vectors["normalize_parameters"].size(), 0u);
  for (const Value& row : *vectors["normalize_parameters"].asArray()) {
    EXPECT_EQ(
        oauthNormalizedParameters(parseFormURLEncoded(*row["form_urlencoded_input"].asString())),
        *row["normalized"].asString());
  }
}

TEST(OAuth1SignerTest, BaseStringURINormalisation) {
  // clang-format off
  const std::pair<const char*, std::optional<std::string>> rows[] = {
      {"HTTP://Example.COM:80", "http://example.com/"}, {"http://h.test?a=b", "http://h.test/"},
      {"https://example.com:443/a/B?x=1#frag", "https://example.com/a/B"},
      {"https://example.com:80/", "https://example.com:80/"},
      {"http://user:pw@host.test:8080/p%20q", "http://host.test:8080/p%20q"},
      {"http://[::1]:8080/x", "http://[::1]:8080/x"}, {"http://h.test//api", "http://h.test//api"},
      {"", std::nullopt}, {"example.com/path", std::nullopt}, {"http://", std::nullopt},
      {"http://:80/", std::nullopt}, {"://h/", std::nullopt}, {"http://h:8x/", std::nullopt},
      {"ht tp://h/", std::nullopt},
  };
  // clang-format on
  for (const auto& [url, uri] : rows) EXPECT_EQ(oauthBaseStringURI(url), uri) << url;
}

TEST(OAuth1SignerTest, FormReadingIsForgiving) {
  EXPECT_EQ(
      parseFormURLEncoded("a=1&&b&=v&c=%zz&d=%4&e=%41+%42"),
      (OAuthParameters{{"a", "1"}, {"b", ""}, {"", "v"}, {"c", "%zz"}, {"d", "%4"}, {"e", "A B"}}));
  EXPECT_TRUE(parseFormURLEncoded("").empty());
}

TEST(OAuth1SignerTest, AuthorizationHeaderCarriesTheProtocolParameters) {
  EXPECT_EQ(OAuth1Signer::create("", "secret"), nullptr);
  auto signer = OAuth1Signer::create("key with space", "secret", "_");
  ASSERT_NE(signer, nullptr);
  HttpRequest request;
  request.method = "POST";
  request.url = "https://catalog.example/api/v1/in_app_purchases/products_description";
  request.setHeader("Content-Type", "application/json");
  request.setBody("{\"store_country\":\"DE\"}");
  ASSERT_TRUE(signer->authorizeRequest(request));
  std::string header = *request.headerValue("Authorization");
  EXPECT_EQ(authorizationField(header, "oauth_consumer_key"), "key%20with%20space");
  EXPECT_EQ(authorizationField(header, "oauth_token"), "_");
  EXPECT_EQ(authorizationField(header, "oauth_signature_method"), "HMAC-SHA1");
  EXPECT_EQ(authorizationField(header, "oauth_version"), "1.0");
  int64_t now = Platform::current().now().microsSince1970() / 1000000;
  int64_t stamp = std::stoll(authorizationField(header, "oauth_timestamp"));
  EXPECT_LE(std::abs(stamp - now), 60);

  // Nonces are fresh for every signature.
  std::set<std::string> nonces;
  for (int i = 0; i < 20; ++i) {
    HttpRequest again = request;
    ASSERT_TRUE(signer->authorizeRequest(again));
    nonces.insert(authorizationField(*again.headerValue("Authorization"), "oauth_nonce"));
  }
  EXPECT_EQ(nonces.size(), 20u);

  HttpRequest unsignable;
  unsignable.url = "not a url";
  EXPECT_FALSE(signer->authorizeRequest(unsignable));
  EXPECT_FALSE(unsignable.headerValue("Authorization"));
}

}  // namespace
}  // namespace zbiap
