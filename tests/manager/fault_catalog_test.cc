// The manager through the catalogue server's faults, over real loopback HTTP with signed answers:
// the server down, answering 500, slower than the time-out, with a truncated body, a wrong
// signature, garbage. In each the manager keeps its last good catalogue (in memory and saved),
// reports the failure, and takes the next good answer.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "testing/fake_store.h"
#include "testing/http_test_server.h"
#include "testing/test_platform.h"
#include "zbiap/catalog/product_info_v1_fetcher.h"
#include "zbiap/devserver/catalog_server.h"
#include "zbiap/manager/manager.h"
#include "zbiap/manager/manager_configuration.h"
#include "zbiap/platform/http_client.h"

namespace zbiap::testing {
namespace {

constexpr char kCountryProduct[] = "com.example.a";
constexpr char kSavedKey[] = "ZBIAPProductInfos";

std::string catalogue(const std::vector<std::string>& ids) {
  std::string products;
  for (const std::string& id : ids) {
    if (!products.empty()) products += ",";
    products += R"({"identifier":")" + id +
                R"(","inactive":false,"sort_key":1,"default_visible":true,"title":{"en":")" + id +
                R"("}})";
  }
  return R"({"products":[)" + products + "]}";
}

enum class Fault { kNone, kStatus500, kSilent, kTruncated, kWrongSignature, kGarbage };

class CatalogFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform_ = std::make_unique<TestPlatform>();
    signer_ = CatalogServer::create();
    other_ = CatalogServer::create();
    ASSERT_TRUE(signer_ && other_);
    HttpClient::Options options;
    options.maxTimeout = std::chrono::milliseconds(300);
    previousClient_ = HttpClient::installShared(HttpClient::createCurl(options));
    ASSERT_TRUE(startServer(0));

    store_ = FakeStore::create();
    store_->scriptCountry(Answer::kAtOnce, "US");
    auto fetcher = ZBIAPProductInfoV1Fetcher::initWithBaseURL(
        server_->url(), "application/json", "key", "secret", signer_->publicKeyBase64());
    manager_ = ZBIAPManager::initWithConfiguration(
        ZBIAPManagerConfiguration::initWithStore(store_, kCountryProduct, "US", fetcher));
    ASSERT_NE(manager_, nullptr);
  }

  void TearDown() override {
    store_->dropPending();
    manager_.reset();
    server_.reset();
    HttpClient::installShared(previousClient_);
    platform_.reset();
  }

  // A server on `port` (0: any) that answers the catalogue path as the fault says.
  bool startServer(int port) {
    server_ = std::make_unique<HttpTestServer>();
    server_->server().Post(
        ZBIAPProductInfoV1Fetcher::kProductsDescriptionPath,
        [this](const httplib::Request&, httplib::Response& response) { answer(response); });
    return server_->start(port);
  }

  // What the server answers from now on; the server's threads read it.
  void serve(std::string body, Fault fault = Fault::kNone) {
    std::lock_guard lock(mutex_);
    body_ = std::move(body);
    fault_ = fault;
  }

  void answer(httplib::Response& response) {
    std::string body;
    Fault fault;
    {
      std::lock_guard lock(mutex_);
      body = body_;
      fault = fault_;
    }
    std::string signature = signer_->sign(body);
    switch (fault) {
      case Fault::kNone:
        break;
      case Fault::kStatus500:
        body = "<html>Internal Server Error</html>";
        signature = signer_->sign(body);
        response.status = 500;
        break;
      case Fault::kSilent:
        server_->holdUntilReleased();
        return;
      case Fault::kTruncated: {
        // Promises the whole body, sends half, and drops the connection.
        const std::string half = body.substr(0, body.size() / 2);
        response.set_header(ZBIAPProductInfoV1Fetcher::kSignatureHeader, signature);
        response.set_content_provider(body.size(), "application/json",
                                      [half](size_t offset, size_t, httplib::DataSink& sink) {
                                        if (offset == 0) sink.write(half.data(), half.size());
                                        return false;
                                      });
        return;
      }
      case Fault::kWrongSignature:
        signature = other_->sign(body);
        break;
      case Fault::kGarbage:
        body = "\x01\x02 not a catalogue \xff";
        signature = signer_->sign(body);
        break;
    }
    response.set_header(ZBIAPProductInfoV1Fetcher::kSignatureHeader, signature);
    response.set_content(body, "application/json");
  }

  // Refreshes and waits; the refresh's error (null on success).
  ZBIAPErrorPtr refresh() {
    bool done = false;
    ZBIAPErrorPtr error;
    manager_->refreshDynamicProductInfosWithCompletion([&](ZBIAPErrorPtr e) {
      error = std::move(e);
      done = true;
    });
    EXPECT_TRUE(platform_->runUntil([&] { return done; }));
    return error;
  }

  std::vector<std::string> catalogueIds() const {
    std::vector<std::string> ids;
    for (const auto& info : manager_->dynamicProductInfos())
      ids.push_back(info->productIdentifier());
    return ids;
  }

  std::optional<Data> saved() { return platform_->userDefaults().dataForKey(kSavedKey); }

  // Ready with catalogue {a, b}, saved.
  void becomeReadyWithFirstCatalogue() {
    serve(catalogue({"com.example.a", "com.example.b"}));
    manager_->commitConfiguration();
    ASSERT_TRUE(platform_->runUntil([&] { return catalogueIds().size() == 2; }));
    ASSERT_TRUE(manager_->isReady());
    ASSERT_TRUE(saved().has_value());
  }

  std::unique_ptr<TestPlatform> platform_;
  std::unique_ptr<CatalogServer> signer_;
  std::unique_ptr<CatalogServer> other_;
  std::shared_ptr<HttpClient> previousClient_;
  std::unique_ptr<HttpTestServer> server_;
  std::shared_ptr<FakeStore> store_;
  std::shared_ptr<ZBIAPManager> manager_;
  std::mutex mutex_;
  std::string body_;
  Fault fault_ = Fault::kNone;
};

TEST_F(CatalogFaultTest, EachFaultKeepsTheLastGoodCatalogueUntilTheServerRecovers) {
  becomeReadyWithFirstCatalogue();
  const std::vector<std::string> good = catalogueIds();
  const std::optional<Data> goodSaved = saved();

  struct Case {
    Fault fault;
    const char* name;
    // A refused signature fails the fetch without an error object, by design of the fetcher.
    bool errorObject;
  };
  const Case cases[] = {
      {Fault::kStatus500, "500 with a signed error page", true},
      {Fault::kSilent, "slower than the time-out", true},
      {Fault::kTruncated, "truncated body", true},
      {Fault::kWrongSignature, "signed by another key", false},
      {Fault::kGarbage, "signed garbage", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    // The next catalogue is ready on the server, but the fault keeps it from arriving.
    serve(catalogue({"com.example.c"}), c.fault);
    EXPECT_EQ(refresh() != nullptr, c.errorObject);
    EXPECT_EQ(catalogueIds(), good);
    EXPECT_EQ(saved(), goodSaved);
    EXPECT_TRUE(manager_->isReady());
  }
  server_->release();  // the request the silent server parked

  // The fault ends: the next refresh takes the new catalogue and saves it.
  serve(catalogue({"com.example.b", "com.example.c"}));
  EXPECT_EQ(refresh(), nullptr);
  EXPECT_EQ(catalogueIds(), (std::vector<std::string>{"com.example.b", "com.example.c"}));
  EXPECT_NE(saved(), goodSaved);
  EXPECT_EQ(manager_->state(), ZBIAPManagerStateReadyStoreProducts);
}

TEST_F(CatalogFaultTest, AServerThatIsDownAndComesBack) {
  becomeReadyWithFirstCatalogue();
  const std::vector<std::string> good = catalogueIds();
  const std::optional<Data> goodSaved = saved();
  const int port = server_->port();

  server_.reset();  // nobody listens on the port
  serve(catalogue({"com.example.c"}));
  ZBIAPErrorPtr error = refresh();
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), kNSURLErrorDomain);
  EXPECT_EQ(catalogueIds(), good);
  EXPECT_EQ(saved(), goodSaved);

  // A new launch while the server is down starts from what was saved.
  platform_->reopenUserDefaults();
  auto fetcher = ZBIAPProductInfoV1Fetcher::initWithBaseURL(
      "http://127.0.0.1:" + std::to_string(port), "application/json", "key", "secret",
      signer_->publicKeyBase64());
  auto relaunched = ZBIAPManager::initWithConfiguration(
      ZBIAPManagerConfiguration::initWithStore(store_, kCountryProduct, "US", fetcher));
  relaunched->commitConfiguration();
  ASSERT_TRUE(platform_->runUntil([&] { return relaunched->isReady(); }));
  EXPECT_EQ(relaunched->dynamicProductInfos().size(), good.size());
  relaunched.reset();

  ASSERT_TRUE(startServer(port));
  EXPECT_EQ(refresh(), nullptr);
  EXPECT_EQ(catalogueIds(), std::vector<std::string>{"com.example.c"});
}

}  // namespace
}  // namespace zbiap::testing
