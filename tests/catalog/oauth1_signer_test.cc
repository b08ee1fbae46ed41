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
  return parseJSON(testing::readFile(testing::testdataDir() / "oauth1" / name)).value();
}

std::string text(const Value& value) { return value.asString() ? *value.asString() : ""; }

// The value of one parameter of an Authorization header, still encoded.
std::string authorizationField(const std::string& header, const std::string& name) {
  auto start = header.find(name + "=\"");
  if (start == std::string::npos) return {};
  start += name.size() + 2;
  return header.substr(start, header.find('"', start) - start);
}

// Each vector's signing key, base string and signature; and the signer itself signs every
// request vector it can express (version 1.0, no extra protocol parameters, form parameters in
// the body) to the expected signature.
TEST(OAuth1SignerTest, PublishedVectors) {
  ZBIAP_REQUIRE_TESTDATA();
  int signatures = 0, requests = 0;
  const Value vectors = loadJSON("vectors.json");
  for (const Value& vector : *vectors.asArray()) {
    SCOPED_TRACE(text(vector["id"]));
    const std::string kind = text(vector["kind"]), url = text(vector["url"]);
    const std::string consumerSecret = text(vector["consumer_secret"]);
    const std::string tokenSecret = text(vector["token_secret"]);
    const std::string baseString = text(vector["expected_base_string"]);
    EXPECT_EQ(oauthSigningKey(consumerSecret, tokenSecret), text(vector["expected_signing_key"]));
    if (kind != "hmac") {
      // The signed parameters besides the URL's query: the form's (from the body when there is
      // one) and the protocol's.
      OAuthParameters params;
      if (vector["body"].isString()) {
        params = parseFormURLEncoded(text(vector["body"]));
      } else if (const Array* form = vector["params"]["form"].asArray()) {
        for (const Value& pair : *form) params.emplace_back(text(pair[0]), text(pair[1]));
      }
      for (const char* name :
           {"consumer_key", "token", "nonce", "timestamp", "signature_method", "version"}) {
        if (vector[name].isString())
          params.emplace_back("oauth_" + std::string(name), text(vector[name]));
      }
      if (const Array* extra = vector["extra_oauth_params"].asArray()) {
        for (const Value& pair : *extra) params.emplace_back(text(pair[0]), text(pair[1]));
      }
      EXPECT_EQ(oauthBaseStringURI(url).value_or(""), text(vector["base_string_uri"]));
      EXPECT_EQ(oauthSignatureBaseString(text(vector["method"]), url, params), baseString);
    }
    if (!vector["expected_signature"].isString()) continue;
    ++signatures;
    EXPECT_EQ(oauthHMACSHA1Signature(baseString, consumerSecret, tokenSecret),
              text(vector["expected_signature"]));
    if (kind != "request" || text(vector["version"]) != "1.0" ||
        vector["extra_oauth_params"].size() != 0 ||
        (!vector["body"].isString() && vector["params"]["form"].size() != 0)) {
      continue;
    }
    auto signer = OAuth1Signer::create(text(vector["consumer_key"]), consumerSecret,
                                       vector["token"].isString()
                                           ? std::optional<std::string>(text(vector["token"]))
                                           : std::nullopt,
                                       tokenSecret);
    HttpRequest request;
    request.method = text(vector["method"]);
    request.url = url;
    if (vector["body"].isString()) {
      request.setHeader("Content-Type", "application/x-www-form-urlencoded");
      request.setBody(text(vector["body"]));
    }
    ASSERT_TRUE(
        signer->authorizeRequest(request, text(vector["nonce"]), text(vector["timestamp"])));
    std::string signature =
        authorizationField(*request.headerValue("Authorization"), "oauth_signature");
    EXPECT_EQ(parseFormURLEncoded("x=" + signature)[0].second, text(vector["expected_signature"]));
    ++requests;
  }
  EXPECT_GE(signatures, 18);
  EXPECT_GE(requests, 8);

  Value encoding = loadJSON("encoding_vectors.json");
  ASSERT_GT(encoding["percent_encoding"].size(), 0u);
  for (const Value& row : *encoding["percent_encoding"].asArray()) {
    EXPECT_EQ(oauthPercentEncode(text(row["input"])), text(row["encoded"]));
  }
  ASSERT_GT(encoding["normalize_parameters"].size(), 0u);
  for (const Value& row : *encoding["normalize_parameters"].asArray()) {
    EXPECT_EQ(oauthNormalizedParameters(parseFormURLEncoded(text(row["form_urlencoded_input"]))),
              text(row["normalized"]));
  }
}

TEST(OAuth1SignerTest, BaseStringURIAndForms) {
  // clang-format off
  const std::pair<const char*, std::optional<std::string>> rows[] = {
      {"HTTP://Example.COM:80", "http://example.com/"}, {"http://h.test?a=b", "http://h.test/"},
      {"HTTPS://AZ.Example:443/a/B?x=1#frag", "https://az.example/a/B"},
      {"https://example.com:80/", "https://example.com:80/"},
      {"http://user:pw@host.test:8080/p%20q", "http://host.test:8080/p%20q"},
      {"http://[::1]:8080/x", "http://[::1]:8080/x"}, {"http://h.test//api", "http://h.test//api"},
      {"", std::nullopt}, {"example.com/path", std::nullopt}, {"http://", std::nullopt},
      {"http://:80/", std::nullopt}, {"://h/", std::nullopt}, {"http://h:8x/", std::nullopt},
      {"ht tp://h/", std::nullopt},
  };
  // clang-format on
  for (const auto& [url, uri] : rows) EXPECT_EQ(oauthBaseStringURI(url), uri) << url;
  // Form reading is forgiving.
  EXPECT_EQ(
      parseFormURLEncoded("a=1&&b&=v&c=%zz&d=%4&e=%41+%42"),
      (OAuthParameters{{"a", "1"}, {"b", ""}, {"", "v"}, {"c", "%zz"}, {"d", "%4"}, {"e", "A B"}}));
  EXPECT_TRUE(parseFormURLEncoded("").empty());
}

TEST(OAuth1SignerTest, AuthorizationHeaderCarriesTheProtocolParameters) {
  EXPECT_EQ(OAuth1Signer::create("", "secret"), nullptr);
  auto signer = OAuth1Signer::create("key with space", "secret", "_");
  HttpRequest request;
  request.method = "POST";
  request.url = "https://catalog.example/api/v1/in_app_purchases/products_description";
  request.setBody("{\"store_country\":\"DE\"}");
  ASSERT_TRUE(signer->authorizeRequest(request));
  std::string header = *request.headerValue("Authorization");
  EXPECT_TRUE(header.starts_with("OAuth "));
  EXPECT_EQ(authorizationField(header, "oauth_consumer_key"), "key%20with%20space");
  EXPECT_EQ(authorizationField(header, "oauth_token"), "_");
  EXPECT_EQ(authorizationField(header, "oauth_signature_method"), "HMAC-SHA1");
  EXPECT_EQ(authorizationField(header, "oauth_version"), "1.0");
  int64_t now = Platform::current().now().microsSince1970() / 1000000;
  EXPECT_LE(std::abs(std::stoll(authorizationField(header, "oauth_timestamp")) - now), 60);

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
