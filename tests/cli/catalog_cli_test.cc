// The zbiap tool's catalog command: check reads saved answers through the fetcher's own parser,
// verify checks signatures with real RSA keys, fetch talks to a development catalogue server on
// 127.0.0.1.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "cli_runner.h"
#include "zbiap/devserver/catalog_server.h"
#include "zbiap/foundation/json.h"

namespace {

using zbiap::CatalogServer;
using zbiap::Value;
using zbiap::testing::CliOutcome;

// A product that reads, with the given extra keys ("," then JSON members) appended.
std::string product(const std::string& identifier, const std::string& extra = "") {
  return R"({"identifier":")" + identifier +
         R"(","inactive":false,"sort_key":1,"title":{"en":"T","de":"D"})" + extra + "}";
}

class CatalogCLITest : public zbiap::testing::CliTest {
 protected:
  std::string examplePath() {
    return (zbiap::testing::sourceDir() / "examples" / "catalog.json").string();
  }

  Value checkJSON(const std::string& answer, const std::string& options, int expectedStatus) {
    CliOutcome outcome =
        run("catalog check --json " + options + " '" + file("answer.json", answer).string() + "'");
    EXPECT_EQ(outcome.status, expectedStatus) << outcome.err;
    std::optional<Value> report = zbiap::parseJSON(outcome.out);
    EXPECT_TRUE(report.has_value()) << outcome.out;
    return report.value_or(Value());
  }
};

TEST_F(CatalogCLITest, CheckShowsEveryRecordOfTheExampleCatalogue) {
  CliOutcome outcome = run("catalog check --json --lang en '" + examplePath() + "'");
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  std::optional<Value> report = zbiap::parseJSON(outcome.out);
  ASSERT_TRUE(report) << outcome.out;
  const zbiap::Array& products = *(*report)["products"].asArray();
  ASSERT_EQ(products.size(), 4u);
  for (size_t i = 0; i < products.size(); ++i) {
    EXPECT_EQ(products[i]["index"], Value(static_cast<int64_t>(i)));
    EXPECT_EQ(products[i]["accepted"], Value(true));
    EXPECT_TRUE(products[i]["messages"].asArray()->empty());
  }
  const Value& lifetime = products[1]["record"];
  EXPECT_EQ(lifetime["productIdentifier"], Value("com.example.app.lifetime"));
  EXPECT_EQ(lifetime["localizedTitle"], Value("Lifetime Unlock"));
  EXPECT_EQ(lifetime["titleColor"], Value("#ffffff"));
  EXPECT_EQ(lifetime["backgroundColor"], Value("#37474f"));
  EXPECT_EQ(lifetime["oldPrice"], Value("14.99"));
  // Sorted, whatever the catalogue's order ("sync", "export", "themes").
  EXPECT_EQ(zbiap::toJSON(lifetime["featureSet"]), R"(["export","sync","themes"])");
  EXPECT_EQ(lifetime["featureMetadata"][0]["identifier"], Value("themes"));
  // Nil properties are left out rather than shown as null.
  EXPECT_FALSE(lifetime.asDictionary()->contains("subscriptionGroupID"));
  EXPECT_FALSE(lifetime.asDictionary()->contains("localizedFreeTrialTitle"));

  EXPECT_NE((*report)["htmlStoreHeader"].asString()->find("Go further"), std::string::npos);
  EXPECT_TRUE((*report)["featureGroups"].isDictionary());
  EXPECT_EQ((*report)["featureSet"].asArray()->size(), 4u);
  EXPECT_TRUE((*report)["error"].isNull());

  CliOutcome text = run("catalog check --lang de '" + examplePath() + "'");
  EXPECT_EQ(text.status, 0);
  EXPECT_NE(text.out.find("localizedTitle: Dauerhafte Freischaltung"), std::string::npos);
  EXPECT_NE(text.out.find("accepted: 4 of 4 products"), std::string::npos) << text.out;
}

TEST_F(CatalogCLITest, CheckAttributesMessagesToTheProductThatWroteThem) {
  // The middle element lacks its identifier; the others read. Partial success is acceptance.
  std::string answer = R"({"products":[)" + product("a") + R"(,{"inactive":false},)" +
                       product("c", R"(,"old_price":"cheap")") + "]}";
  Value report = checkJSON(answer, "", 0);
  const zbiap::Array& products = *report["products"].asArray();
  ASSERT_EQ(products.size(), 3u);
  EXPECT_EQ(products[0]["accepted"], Value(true));
  EXPECT_TRUE(products[0]["messages"].asArray()->empty());
  EXPECT_EQ(products[1]["accepted"], Value(false));
  EXPECT_TRUE(products[1]["record"].isNull());
  ASSERT_EQ(products[1]["messages"].asArray()->size(), 1u);
  EXPECT_NE(products[1]["messages"][0].asString()->find("'identifier'"), std::string::npos);
  // An old price that is no number reads as not-a-number.
  EXPECT_EQ(products[2]["record"]["oldPrice"], Value("NaN"));
  EXPECT_TRUE(report["error"].isNull());
}

TEST_F(CatalogCLITest, CheckRejectsBadEnvelopesWithTheFetchersText) {
  struct Case {
    std::string answer;
    std::string error;
  };
  const Case cases[] = {
      {"not json", "JSON parsing failed."},
      {"[]", "Top-level JSON object is not a dictionary."},
      {R"({"products":{}})", "No products array or object has wrong type."},
      {R"({"products":[],"feature_groups":[]})", "Feature Groups is not a dictionary."},
      {R"({"products":[],"features_metadata":{}})", "Feature metadata array has wrong type."},
      {R"({"products":[{"inactive":false}]})", "All products failed to parse."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.answer);
    Value report = checkJSON(c.answer, "", 1);
    EXPECT_EQ(report["error"], Value(c.error));
    EXPECT_TRUE(report["htmlStoreHeader"].isNull());
  }
  CliOutcome text = run("catalog check '" + file("bad.json", "[]").string() + "'");
  EXPECT_EQ(text.status, 1);
  EXPECT_NE(text.out.find("rejected: Top-level JSON object is not a dictionary."),
            std::string::npos);
}

TEST_F(CatalogCLITest, VerifyChecksSignaturesWithARealKey) {
  auto server = CatalogServer::create();
  ASSERT_NE(server, nullptr);
  const std::string body = R"({"products":[]})";
  const std::string path = file("answer.json", body).string();
  const std::string key = "--signature-key '" + server->publicKeyBase64() + "' ";

  CliOutcome valid =
      run("catalog verify " + key + "--signature '" + server->sign(body) + "' '" + path + "'");
  EXPECT_EQ(valid.status, 0) << valid.err;
  EXPECT_EQ(valid.out, "valid\n");

  const std::string other = server->sign(body + " ");
  EXPECT_EQ(run("catalog verify " + key + "--signature '" + other + "' '" + path + "'").status, 1);
  // Strict base64: a line break inside the signature makes it invalid, not an error of usage.
  std::string broken = server->sign(body);
  broken.insert(10, "\n");
  EXPECT_EQ(run("catalog verify " + key + "--signature '" + broken + "' '" + path + "'").status, 1);
}

TEST_F(CatalogCLITest, BadUsageExitsWithTwoAndSaysWhy) {
  const std::string example = "'" + examplePath() + "'";
  struct Case {
    std::string arguments;
    std::string says;
  };
  const Case cases[] = {
      {"catalog", "a subcommand is needed"},
      {"catalog list", "unknown subcommand 'list'"},
      {"catalog check", "a file is needed"},
      {"catalog check --colour " + example, "unknown option '--colour'"},
      {"catalog check --lang", "--lang needs a value"},
      {"catalog verify --signature x " + example, "--signature-key is required"},
      {"catalog verify --signature-key bm9wZQ== --signature x " + example,
       "not a base64 PKCS #1 RSA public key"},
      {"catalog fetch --base-url http://127.0.0.1:1/ --accept a --consumer-key k",
       "--consumer-secret is required"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments);
    CliOutcome outcome = run(c.arguments);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_NE(outcome.err.find(c.says), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("usage: zbiap catalog"), std::string::npos);
  }
}

TEST_F(CatalogCLITest, FetchReadsASignedCatalogueFromTheServer) {
  auto server = CatalogServer::create();
  ASSERT_NE(server, nullptr);
  ASSERT_TRUE(server->start());
  const std::string common = "catalog fetch --json --base-url '" + server->baseURL() +
                             "' --accept application/json --consumer-key '" +
                             server->consumerKey() + "' --consumer-secret '" +
                             server->consumerSecret() + "' --country FR ";

  CliOutcome good = run(common + "--signature-key '" + server->publicKeyBase64() + "'");
  ASSERT_EQ(good.status, 0) << good.err;
  std::optional<Value> report = zbiap::parseJSON(good.out);
  ASSERT_TRUE(report) << good.out;
  EXPECT_EQ((*report)["products"].asArray()->size(), 4u);
  ASSERT_EQ(server->requests().size(), 1u);
  EXPECT_TRUE(server->requests()[0].authorized) << server->requests()[0].rejection;
  // The country goes out in the request body.
  EXPECT_NE(server->requests()[0].body.find("FR"), std::string::npos);

  // Answers signed by another key are refused before they are read.
  auto stranger = CatalogServer::create();
  ASSERT_NE(stranger, nullptr);
  CliOutcome forged = run(common + "--signature-key '" + stranger->publicKeyBase64() + "'");
  EXPECT_EQ(forged.status, 1);
  report = zbiap::parseJSON(forged.out);
  ASSERT_TRUE(report) << forged.out;
  EXPECT_TRUE((*report)["products"].asArray()->empty());
  EXPECT_FALSE((*report)["error"].isNull());

  // Nobody listening: the transport's error, exit 1.
  const int port = server->port();
  server->stop();
  CliOutcome closed = run("catalog fetch --base-url http://127.0.0.1:" + std::to_string(port) +
                          " --accept a --consumer-key k --consumer-secret s");
  EXPECT_EQ(closed.status, 1);
  EXPECT_NE(closed.out.find("rejected: "), std::string::npos) << closed.out;
}

}  // namespace
