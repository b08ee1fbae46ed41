// The development catalogue server's checks that the CLI and the demo rely on: it answers only
// requests signed by its consumer, and signs exactly the bytes it answers.
#include "zbiap/devserver/catalog_server.h"

#include <gtest/gtest.h>

#include <string>

#include "catalog/oauth1_signer.h"
#include "catalog/rsa_verifier.h"
#include "testing/http_test_server.h"
#include "testing/test_platform.h"

namespace zbiap {
namespace {

constexpr char kPath[] = "/api/v1/in_app_purchases/products_description";

// A request signed as the catalogue client signs it, then changed by `tamper`, sent with a
// plain HTTP client.
httplib::Result post(const CatalogServer& server, const std::string& target,
                     const std::string& body, const std::string& contentType,
                     const std::string& consumerKey,
                     const std::function<void(std::string& target, std::string& body)>& tamper) {
  HttpRequest request;
  request.method = "POST";
  request.url = server.baseURL() + target;
  request.setHeader("Content-Type", contentType);
  request.setBody(body);
  auto signer = OAuth1Signer::create(consumerKey, server.consumerSecret(), "_");
  EXPECT_TRUE(signer->authorizeRequest(request, "nonce-1", "1700000000"));
  std::string sentTarget = target;
  std::string sentBody = body;
  tamper(sentTarget, sentBody);
  httplib::Client client("127.0.0.1", server.port());
  httplib::Headers headers{{"Authorization", *request.headerValue("Authorization")}};
  return client.Post(sentTarget, headers, sentBody, contentType);
}

TEST(CatalogServerTest, AnswersOnlyItsConsumerAndSignsTheCatalogueBytes) {
  testing::TestPlatform platform;
  auto server = CatalogServer::create();
  ASSERT_NE(server, nullptr);
  ASSERT_TRUE(server->start());
  const std::string catalog = R"({"products":[],"gold_description":"Größer \u00e9"})";
  ASSERT_TRUE(server->loadCatalogFile(platform.writeResource("catalog.json", catalog).string()));
  // A catalogue that cannot be read or is no JSON leaves the served one as it was.
  std::string error;
  EXPECT_FALSE(server->setCatalog("{\"products\": [", &error));
  EXPECT_NE(error.find("not JSON"), std::string::npos);
  EXPECT_FALSE(server->loadCatalogFile(platform.makeTempDir("dir").string(), &error));
  EXPECT_NE(error.find("cannot read"), std::string::npos);
  EXPECT_FALSE(
      server->loadCatalogFile((platform.makeTempDir("none") / "catalog.json").string(), &error));
  const std::string& key = server->consumerKey();
  auto keep = [](std::string&, std::string&) {};
  httplib::Client client("127.0.0.1", server->port());
  // Form bodies are signed; JSON bodies are not.
  const struct {
    const char* name;
    httplib::Result result;
    const char* rejection;  // null: answered
  } cases[] = {
      {"no header", client.Post(kPath, "{}", "application/json"), "no Authorization header"},
      {"bearer", client.Post(kPath, {{"Authorization", "Bearer x"}}, "{}", "application/json"),
       "the Authorization header is not OAuth parameters"},
      {"other consumer", post(*server, kPath, "{}", "application/json", key + "x", keep),
       "unknown consumer key"},
      {"query changed",
       post(*server, std::string(kPath) + "?country=DE", "{}", "application/json", key,
            [](std::string& target, std::string&) { target.back() = 'F'; }),
       "signature does not match"},
      {"form body changed",
       post(*server, kPath, "country=DE", "application/x-www-form-urlencoded", key,
            [](std::string&, std::string& body) { body = "country=FR"; }),
       "signature does not match"},
      {"form body",
       post(*server, kPath, "country=DE", "application/x-www-form-urlencoded", key, keep), nullptr},
      {"JSON body changed",
       post(*server, kPath, "{}", "application/json", key,
            [](std::string&, std::string& body) { body = "[1]"; }),
       nullptr},
  };
  auto publicKey = RSAPublicKey::fromBase64(server->publicKeyBase64());
  ASSERT_NE(publicKey, nullptr);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(c.result);
    const std::string signature = c.result->get_header_value("X-Tessil-Signature");
    if (c.rejection) {
      EXPECT_EQ(c.result->status, 401);
      EXPECT_EQ(signature, "");
      EXPECT_NE(c.result->body.find(c.rejection), std::string::npos) << c.result->body;
      continue;
    }
    EXPECT_EQ(c.result->status, 200);
    EXPECT_EQ(c.result->body, catalog);
    auto bytes = [](const std::string& text) {
      return std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    };
    EXPECT_TRUE(publicKey->verifySHA256(bytes(c.result->body), signature));
    EXPECT_FALSE(publicKey->verifySHA256(bytes(c.result->body + " "), signature));
  }
}

}  // namespace
}  // namespace zbiap
