#include "catalog/oauth1_signer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <future>
#include <set>
#include <string>

#include "testing/testdata.h"
#include "zbiap/foundation/json.h"
#include "zbiap/platform/http_client.h"
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

// The status and report of an answer: the peer below says 200 when a signature holds, 401 when
// not.
std::string send(HttpRequest request) {
  std::promise<std::string> promise;
  HttpClient::shared()->send(std::move(request), [&](auto response, auto error) {
    promise.set_value(response ? std::to_string(response->statusCode) + " " +
                                     std::string(response->bodyText())
                               : error->description());
  });
  auto future = promise.get_future();
  if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) return "no answer";
  return future.get();
}

// An independent OAuth 1.0 implementation, testing/oauth_peer.py with python3-oauthlib, judges
// every request it receives; it announces its port on its first line and stops on GET /quit.
class OAuthPeer {
 public:
  OAuthPeer(const std::string& key, const std::string& secret) {
    std::string command = "exec /usr/bin/python3 '" +
                          (testing::sourceDir() / "testing" / "oauth_peer.py").string() + "' '" +
                          key + "' '" + secret + "' _ '' 2>/dev/null";
    out_ = popen(command.c_str(), "r");
    char line[64] = {};
    if (out_ && fgets(line, sizeof(line), out_)) sscanf(line, "PORT %d", &port_);
  }
  ~OAuthPeer() {
    if (port_ > 0) send(get("/quit"));
    if (out_) pclose(out_);
  }
  bool running() const { return port_ > 0; }
  HttpRequest get(const std::string& path) const {
    HttpRequest request;
    request.url = "http://127.0.0.1:" + std::to_string(port_) + path;
    return request;
  }

 private:
  FILE* out_ = nullptr;
  int port_ = 0;
};

// The catalogue request, and queries and form bodies with awkward characters; and the peer does
// judge: a request signed with another secret fails.
TEST(OAuth1PeerTest, AcceptsOurSignaturesOnly) {
  const std::string key = "zbiap-test-consumer", secret = "s3cr*t&=%/ key";
  OAuthPeer peer(key, secret);
  if (!peer.running()) GTEST_SKIP() << "the OAuth peer did not start (python3-oauthlib?)";
  HttpRequest catalogue = peer.get("/api/v1/in_app_purchases/products_description");
  catalogue.method = "POST";
  catalogue.setHeader("Content-Type", "application/json");
  catalogue.setBody(R"({"client_device":"Linux PC","store_country":"DE"})");
  HttpRequest query = peer.get("/v1/p?q=a+b%2Bc&empty=&name=%E2%82%AC%20x&dup=2&dup=1&flag");
  HttpRequest form = peer.get("/form?z=1");
  form.method = "POST";
  form.setHeader("Content-Type", "application/x-www-form-urlencoded");
  form.setBody("status=Hello%20Ladies%20%2B%20Gentlemen&a=%C3%A6%C3%A5%C3%B8&b=~-._*");
  for (HttpRequest& request : {std::ref(catalogue), std::ref(query), std::ref(form)}) {
    HttpRequest other = request;
    ASSERT_TRUE(OAuth1Signer::create(key, secret, "_")->authorizeRequest(request));
    EXPECT_THAT(send(request), ::testing::StartsWith("200 "));
    ASSERT_TRUE(OAuth1Signer::create(key, "other secret", "_")->authorizeRequest(other));
    EXPECT_THAT(send(other), ::testing::StartsWith("401 "));
  }
}

}  // namespace
}  // namespace zbiap
