#include "zbiap/devserver/catalog_server.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <set>
#include <string>

#include "catalog/oauth1_signer.h"
#include "catalog/rsa_verifier.h"
#include "testing/http_test_server.h"
#include "testing/test_platform.h"
#include "zbiap/catalog/product_feature.h"
#include "zbiap/catalog/product_info.h"
#include "zbiap/catalog/product_info_v1_fetcher.h"
#include "zbiap/foundation/json.h"
#include "zbiap/foundation/value.h"

namespace zbiap {
namespace {

namespace fs = std::filesystem;

constexpr char kPath[] = "/api/v1/in_app_purchases/products_description";

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::span<const uint8_t> bytes(const std::string& text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

struct Outcome {
  std::shared_ptr<ZBIAPProductInfoResponse> response;
  ZBIAPErrorPtr error;
  bool succeeded = false;
};

Outcome fetch(const std::shared_ptr<ZBIAPProductInfoV1Fetcher>& fetcher) {
  auto promise = std::make_shared<std::promise<Outcome>>();
  auto future = promise->get_future();
  fetcher->fetchWithSuccess(
      [promise](auto response) {
        promise->set_value({std::move(response), nullptr, true});
      },
      [promise](auto error) {
        promise->set_value({nullptr, std::move(error), false});
      });
  if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
    ADD_FAILURE() << "the fetcher never called back";
    return {};
  }
  return future.get();
}

// A request signed as the catalogue client signs it, sent with a plain HTTP client.
httplib::Result post(
    const CatalogServer& server, const std::string& target, const std::string& body,
    const std::string& contentType, const std::string& consumerKey,
    const std::string& consumerSecret,
    const std::function<void(std::string& target, std::string& body)>& tamper = nullptr) {
  HttpRequest request;
  request.method = "POST";
  request.url = server.baseURL() + target;
  request.setHeader("Content-Type", contentType);
  request.setBody(body);
  auto signer = OAuth1Signer::create(consumerKey, consumerSecret, "_");
  EXPECT_TRUE(signer->authorizeRequest(request, "nonce-1", "1700000000"));
  std::string sentTarget = target;
  std::string sentBody = body;
  if (tamper) tamper(sentTarget, sentBody);
  httplib::Client client("127.0.0.1", server.port());
  httplib::Headers headers{{"Authorization", *request.headerValue("Authorization")}};
  return client.Post(sentTarget, headers, sentBody, contentType);
}

class CatalogServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform_.writeInfoDictionary(
        {{"CFBundleShortVersionString", "1.0"}, {"CFBundleVersion", "7"}});
    server_ = CatalogServer::create();
    ASSERT_NE(server_, nullptr);
    ASSERT_TRUE(server_->start());
  }

  std::shared_ptr<ZBIAPProductInfoV1Fetcher> fetcher(const std::string& baseURL,
                                                     const std::string& secret) {
    auto made = ZBIAPProductInfoV1Fetcher::initWithBaseURL(
        baseURL, "application/json", server_->consumerKey(), secret, server_->publicKeyBase64());
    EXPECT_NE(made, nullptr);
    EXPECT_NE(made->signatureKey(), nullptr) << "the server's public key did not import";
    return made;
  }

  testing::TestPlatform platform_;
  std::unique_ptr<CatalogServer> server_;
};

TEST_F(CatalogServerTest, FetcherGetsTheCatalogueEndToEnd) {
  // Both base URL forms a host may give; the slash one sends "//api/...".
  for (const std::string& base : {server_->baseURL(), server_->baseURL() + "/"}) {
    SCOPED_TRACE(base);
    Outcome outcome = fetch(fetcher(base, server_->consumerSecret()));
    ASSERT_TRUE(outcome.succeeded) << (outcome.error ? outcome.error->description() : "null");
    ASSERT_TRUE(outcome.response->productInfos());
    EXPECT_EQ(outcome.response->productInfos()->size(), 4u);
    ASSERT_NE(outcome.response->htmlStoreHeader(), std::nullopt);
    EXPECT_TRUE(outcome.response->featureSet().has_value());
  }
  auto seen = server_->requests();
  ASSERT_EQ(seen.size(), 2u);
  for (const auto& request : seen) {
    EXPECT_TRUE(request.authorized) << request.rejection;
    EXPECT_EQ(request.status, 200);
    // The body is the device description the fetcher builds.
    auto body = parseJSON(request.body);
    ASSERT_TRUE(body && body->isDictionary()) << request.body;
  }
}

TEST_F(CatalogServerTest, WrongSecretIsRejectedAndTheFetcherFails) {
  Outcome outcome = fetch(fetcher(server_->baseURL(), server_->consumerSecret() + "x"));
  EXPECT_FALSE(outcome.succeeded);
  // The 401 carries no signature, so the fetcher stops at the signature check.
  EXPECT_EQ(outcome.error, nullptr);
  auto seen = server_->requests();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_FALSE(seen[0].authorized);
  EXPECT_EQ(seen[0].status, 401);
  EXPECT_EQ(seen[0].rejection, "signature does not match");
}

TEST_F(CatalogServerTest, FetcherWithAnotherServersKeyRejectsTheAnswer) {
  auto other = CatalogServer::create();
  ASSERT_NE(other, nullptr);
  auto made = ZBIAPProductInfoV1Fetcher::initWithBaseURL(
      server_->baseURL(), "application/json", server_->consumerKey(), server_->consumerSecret(),
      other->publicKeyBase64());
  Outcome outcome = fetch(made);
  EXPECT_FALSE(outcome.succeeded);
  ASSERT_EQ(server_->requestCount(), 1u);
  EXPECT_TRUE(server_->requests()[0].authorized);
}

TEST_F(CatalogServerTest, AnswerIsTheCatalogueBytesSignedExactly) {
  std::string catalog = R"({"products":[],"gold_description":"Größer \u00e9"})";
  ASSERT_TRUE(server_->setCatalog(catalog));
  auto result = post(*server_, kPath, "{}", "application/json", server_->consumerKey(),
                     server_->consumerSecret());
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 200);
  EXPECT_EQ(result->body, catalog);
  auto key = RSAPublicKey::fromBase64(server_->publicKeyBase64());
  ASSERT_NE(key, nullptr);
  EXPECT_EQ(key->bits(), 2048);
  std::string signature = result->get_header_value("X-Tessil-Signature");
  EXPECT_TRUE(key->verifySHA256(bytes(result->body), signature));
  EXPECT_FALSE(key->verifySHA256(bytes(result->body + " "), signature));
}

TEST_F(CatalogServerTest, RejectsRequestsNotSignedByTheConsumer) {
  const std::string& key = server_->consumerKey();
  const std::string& secret = server_->consumerSecret();
  struct Case {
    const char* name;
    httplib::Result result;
    const char* rejection;
  };
  httplib::Client client("127.0.0.1", server_->port());
  Case cases[] = {
      {"no header", client.Post(kPath, "{}", "application/json"), "no Authorization header"},
      {"bearer", client.Post(kPath, {{"Authorization", "Bearer x"}}, "{}", "application/json"),
       "the Authorization header is not OAuth parameters"},
      {"other consumer", post(*server_, kPath, "{}", "application/json", key + "x", secret),
       "unknown consumer key"},
      {"query changed",
       post(*server_, std::string(kPath) + "?country=DE", "{}", "application/json", key, secret,
            [](std::string& target, std::string&) { target.back() = 'E' + 1; }),
       "signature does not match"},
      // Form bodies are signed; JSON bodies are not.
      {"form body changed",
       post(*server_, kPath, "country=DE", "application/x-www-form-urlencoded", key, secret,
            [](std::string&, std::string& body) { body = "country=FR"; }),
       "signature does not match"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(c.result);
    EXPECT_EQ(c.result->status, 401);
    EXPECT_FALSE(c.result->has_header("X-Tessil-Signature"));
    EXPECT_NE(c.result->body.find(c.rejection), std::string::npos) << c.result->body;
  }
  auto accepted = post(*server_, kPath, "country=DE", "application/x-www-form-urlencoded", key,
                       secret, [](std::string&, std::string&) {});
  ASSERT_TRUE(accepted);
  EXPECT_EQ(accepted->status, 200);
  auto jsonBodyChanged = post(*server_, kPath, "{}", "application/json", key, secret,
                              [](std::string&, std::string& body) { body = "[1]"; });
  ASSERT_TRUE(jsonBodyChanged);
  EXPECT_EQ(jsonBodyChanged->status, 200);
}

TEST_F(CatalogServerTest, BadCatalogueLeavesTheServedOneUnchanged) {
  std::string before = server_->catalog();
  std::string error;
  EXPECT_FALSE(server_->setCatalog("{\"products\": [", &error));
  EXPECT_NE(error.find("not JSON"), std::string::npos);
  EXPECT_FALSE(server_->loadCatalogFile(platform_.makeTempDir("missing") / "none.json", &error));
  EXPECT_NE(error.find("cannot read"), std::string::npos);
  EXPECT_FALSE(server_->loadCatalogFile(platform_.makeTempDir("dir"), &error));
  EXPECT_EQ(server_->catalog(), before);
  EXPECT_EQ(CatalogServer::create(""), nullptr);
}

// The shipped example: the same document as the built-in catalogue, and every product of the
// example StoreKit configuration described, readable by the records reader in each language.
TEST(ExampleCatalogTest, MatchesTheStoreKitExampleAndReadsInEveryLanguage) {
  fs::path examples = fs::path(ZBIAP_SOURCE_DIR) / "examples";
  auto shipped = parseJSON(readFile(examples / "catalog.json"));
  ASSERT_TRUE(shipped);
  auto builtIn = parseJSON(CatalogServer::exampleCatalog());
  ASSERT_TRUE(builtIn);
  EXPECT_TRUE(*shipped == *builtIn) << "examples/catalog.json and the built-in catalogue differ";

  auto storekit = parseJSON(readFile(examples / "Example.storekit"));
  ASSERT_TRUE(storekit);
  std::set<std::string> storeIdentifiers;
  for (const Value& product : *(*storekit)["products"].asArray()) {
    storeIdentifiers.insert(*product["productID"].asString());
  }
  for (const Value& group : *(*storekit)["subscriptionGroups"].asArray()) {
    for (const Value& product : *group["subscriptions"].asArray()) {
      storeIdentifiers.insert(*product["productID"].asString());
    }
  }

  testing::TestPlatform platform;
  for (const char* language : {"en", "de", "fr"}) {
    SCOPED_TRACE(language);
    platform.setPreferredLanguages({language});
    std::set<std::string> catalogIdentifiers;
    std::set<std::string> titles;
    bool oldPrice = false;
    for (const Value& entry : *(*shipped)["products"].asArray()) {
      auto info = ZBIAPProductInfoV1::create(entry);
      ASSERT_NE(info, nullptr) << entry.description();
      catalogIdentifiers.insert(info->productIdentifier());
      ASSERT_NE(info->localizedTitle(), nullptr);
      titles.insert(*info->localizedTitle());
      EXPECT_TRUE(info->backgroundColor().has_value());
      EXPECT_TRUE(info->titleColor().has_value());
      EXPECT_NE(info->featureSet(), nullptr);
      oldPrice = oldPrice || info->oldPrice().has_value();
    }
    EXPECT_EQ(catalogIdentifiers, storeIdentifiers);
    EXPECT_TRUE(oldPrice);
    // Each language has its own texts (not the German fallback).
    EXPECT_EQ(titles.count(std::string(language) == "de"   ? "Pro monatlich"
                           : std::string(language) == "fr" ? "Pro mensuel"
                                                           : "Pro Monthly"),
              1u);
    for (const Value& feature : *(*shipped)["features_metadata"].asArray()) {
      EXPECT_NE(ZBIAPProductFeatureV1::create(feature), nullptr) << feature.description();
    }
  }
  EXPECT_TRUE(platform.logLines().empty()) << platform.logLines().front();
}

}  // namespace
}  // namespace zbiap
