#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "catalog/base64.h"
#include "testing/fake_store.h"
#include "testing/http_test_server.h"
#include "testing/test_platform.h"
#include "zbiap/catalog/device_characteristics.h"
#include "zbiap/catalog/product_info_v1_fetcher.h"
#include "zbiap/devserver/answer_signing_key.h"
#include "zbiap/foundation/json.h"
#include "zbiap/platform/http_client.h"
#include "zbiap/support/date_tools.h"

namespace zbiap {
namespace {

constexpr char kAccept[] = "application/vnd.example.catalog+json";
constexpr char kProduct[] =
    R"({"identifier":"com.example.pro","inactive":false,"title":"Pro","sort_key":1})";
const std::string kCatalog = std::string(R"({"products":[)") + kProduct + "]}";

class TestOwner final : public ProductInfoFetcherOwner {
 public:
  std::optional<std::string> country, fallback;
  std::shared_ptr<ZBIAPStore> store;
  std::optional<std::string> appStoreCountry() const override { return country; }
  std::optional<std::string> appStoreFallbackCountryCode() const override { return fallback; }
  std::shared_ptr<ZBIAPStore> storeForRequests() const override { return store; }
};

// One caller's outcome: a response, else the error given (maybe none).
struct Outcome {
  std::shared_ptr<ZBIAPProductInfoResponse> response;
  ZBIAPErrorPtr error;
  std::thread::id thread;

  // "2 products header H 1 features groups", or "Domain/code description (underlying)".
  std::string summary() const {
    if (response) {
      std::string text = std::to_string(response->productInfos()->size()) + " products";
      if (auto header = response->htmlStoreHeader()) text += " header " + *header;
      if (auto set = response->featureSet())
        text += " " + std::to_string(set->size()) + " features";
      return text + (response->featureGroups() ? " groups" : "");
    }
    if (!error) return "no error";
    const std::string* text = error->userInfo()[ZBIAPErrorInternalDescriptionKey].asString();
    std::string out =
        error->domain() + "/" + std::to_string(error->code()) + (text ? " " + *text : "");
    if (const auto& under = error->underlyingError()) out += " (" + under->domain() + ")";
    return out;
  }
};

// Collects one caller's outcome.
class Waiter {
 public:
  ZBIAPProductInfoFetcher::SuccessBlock success() {
    return [p = promise_](auto response) { p->set_value({response, nullptr, this_thread()}); };
  }
  ZBIAPProductInfoFetcher::FailureBlock failure() {
    return [p = promise_](auto error) { p->set_value({nullptr, error, this_thread()}); };
  }
  static std::thread::id this_thread() { return std::this_thread::get_id(); }
  std::shared_ptr<ZBIAPProductInfoV1FetcherBlocks> blocks() {
    auto blocks = std::make_shared<ZBIAPProductInfoV1FetcherBlocks>();
    blocks->success = success();
    blocks->failure = failure();
    return blocks;
  }
  bool done() { return future_.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
  Outcome get() {
    if (future_.wait_for(std::chrono::seconds(30)) == std::future_status::ready)
      return future_.get();
    ADD_FAILURE() << "no callback";
    return {};
  }

 private:
  std::shared_ptr<std::promise<Outcome>> promise_ = std::make_shared<std::promise<Outcome>>();
  std::future<Outcome> future_ = promise_->get_future();
};

enum class Signature { kValid, kNone, kWrong, kNotBase64 };

class FetcherTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { key_ = AnswerSigningKey::generate(2048).release(); }
  static void TearDownTestSuite() { delete key_; }

  void SetUp() override {
    platform_.setEnv("ZBIAPDYNAMICPRODUCTINFOFETCHER_LOGGING", "1");
    server_.server().Post(R"(/+api/v1/in_app_purchases/products_description)",
                          [this](const auto& req, auto& res) { answer(req, res); });
    ASSERT_TRUE(server_.start());
  }

  void answer(const httplib::Request& req, httplib::Response& res) {
    std::unique_lock lock(mutex_);
    requests_.push_back(req);
    if (hold_) {
      lock.unlock();
      server_.holdUntilReleased();
      lock.lock();
    }
    if (signature_ != Signature::kNone) {
      res.set_header(ZBIAPProductInfoV1Fetcher::kSignatureHeader,
                     signature_ == Signature::kNotBase64
                         ? "%%%"
                         : key_->sign(signature_ == Signature::kWrong ? body_ + " " : body_));
    }
    res.status = status_;
    res.set_content(body_, "application/json");
  }
  void serve(std::string body, Signature signature = Signature::kValid, int status = 200) {
    std::lock_guard lock(mutex_);
    body_ = std::move(body);
    signature_ = signature;
    status_ = status;
  }
  std::shared_ptr<ZBIAPProductInfoV1Fetcher> makeFetcher(
      std::optional<std::string> signatureKey = key_->publicKeyBase64(), std::string url = "") {
    return ZBIAPProductInfoV1Fetcher::initWithBaseURL(url.empty() ? server_.url() : url, kAccept,
                                                      "consumer-key", "consumer secret&*",
                                                      std::move(signatureKey));
  }
  static Outcome fetch(ZBIAPProductInfoV1Fetcher& fetcher, bool bundle = false) {
    Waiter waiter;
    fetcher.fetchWithSuccess(waiter.success(), waiter.failure(), bundle);
    return waiter.get();
  }
  std::vector<httplib::Request> requests() {
    std::lock_guard lock(mutex_);
    return requests_;
  }

  static AnswerSigningKey* key_;
  testing::TestPlatform platform_;
  testing::HttpTestServer server_;
  std::mutex mutex_;
  std::vector<httplib::Request> requests_;
  std::string body_ = kCatalog;
  Signature signature_ = Signature::kValid;
  int status_ = 200;
  bool hold_ = false;
};

AnswerSigningKey* FetcherTest::key_ = nullptr;

TEST_F(FetcherTest, SignedRequestAndAnswerOnTheNetworkThread) {
  serve(R"({"products":[)" + std::string(kProduct) +
        R"(],"gold_description":{"en":"<b>Gold</b>","de":"<b>Gold DE</b>"},)"
        R"("feature_groups":{"g":{"order":1}},"features_metadata":[{"identifier":"sync"},7]})");
  auto fetcher = makeFetcher();
  Outcome out = fetch(*fetcher);
  EXPECT_EQ(out.summary(), "1 products header <b>Gold</b> 1 features groups");
  EXPECT_NE(out.thread, std::this_thread::get_id());
  EXPECT_TRUE(fetcher->completionBlocks().empty());

  httplib::Request request = requests().back();
  EXPECT_EQ(request.path, "/api/v1/in_app_purchases/products_description");
  for (const auto& [name, value] : {std::pair{"Accept", kAccept},
                                    {"Accept-Encoding", "gzip, deflate"},
                                    {"Content-Type", "application/json"},
                                    {"Accept-Language", "en-US;q=1"}}) {
    EXPECT_EQ(request.get_header_value(name), value) << name;
  }
  EXPECT_TRUE(request.get_header_value("Authorization").starts_with("OAuth "));
  EXPECT_EQ(parseJSON(request.body), Value(fetcher->deviceCharacteristics()));
}

// The signature decides before the body; the status is never examined.
TEST_F(FetcherTest, AnswersOverTheWire) {
  const struct {
    std::string body;
    Signature signature;
    int status;
    bool keyed;
    const char* summary;
  } rows[] = {
      {kCatalog, Signature::kNone, 200, true, "no error"},
      {kCatalog, Signature::kWrong, 200, true, "no error"},
      {kCatalog, Signature::kNotBase64, 200, true, "no error"},
      {kCatalog, Signature::kNone, 200, false, "1 products"},
      {"<html>Internal Server Error</html>", Signature::kValid, 500, true,
       "ZBIAPErrorDomain/1 JSON parsing failed. (NSCocoaErrorDomain)"},
      {R"({"products":[]})", Signature::kValid, 503, true, "0 products"},
      {"", Signature::kNone, 200, false, "no error"},
      {"", Signature::kValid, 200, true, "no error"},
  };
  auto keyed = makeFetcher();
  auto unkeyed = makeFetcher(std::nullopt);
  for (const auto& row : rows) {
    serve(row.body, row.signature, row.status);
    EXPECT_EQ(fetch(row.keyed ? *keyed : *unkeyed).summary(), row.summary) << row.body;
  }
  EXPECT_EQ(requests().size(), std::size(rows));

  // A key text that is no key checks nothing.
  for (const std::string& text :
       {std::string("not base64!"), base64Encode(std::string_view("not a key"))}) {
    auto fetcher = makeFetcher(text);
    ASSERT_NE(fetcher, nullptr);
    EXPECT_EQ(fetcher->signatureKey(), nullptr);
  }
}

TEST_F(FetcherTest, URLsAndKeys) {
  EXPECT_EQ(fetch(*makeFetcher(std::nullopt, "no url")).error->code(), kNSURLErrorBadURL);
  // The base URL is joined as text.
  EXPECT_EQ(fetch(*makeFetcher(std::nullopt, server_.url("/"))).summary(), "1 products");
  EXPECT_EQ(requests().back().path, "//api/v1/in_app_purchases/products_description");

  EXPECT_EQ(ZBIAPProductInfoV1Fetcher::initWithBaseURL(server_.url(), kAccept, "", "secret"),
            nullptr);
  EXPECT_TRUE(platform_.logContains("Failed to initialize OAuth!"));
}

TEST_F(FetcherTest, CallersJoinTheRunningFetch) {
  hold_ = true;
  auto fetcher = makeFetcher();
  Waiter first, second, bundle;
  fetcher->fetchWithSuccess(first.success(), first.failure());
  while (server_.heldCount() == 0) std::this_thread::yield();
  fetcher->fetchWithSuccess(second.success(), second.failure());
  // A bundle load joins too: no file exists, yet it succeeds with the server's answer.
  fetcher->fetchWithSuccess(bundle.success(), bundle.failure(), true);
  EXPECT_EQ(fetcher->completionBlocks().size(), 3u);
  EXPECT_FALSE(first.done() || second.done() || bundle.done());
  server_.release();

  Outcome a = first.get(), b = second.get(), c = bundle.get();
  ASSERT_EQ(a.summary(), "1 products");
  EXPECT_EQ(a.response, b.response);
  EXPECT_EQ(a.response, c.response);
  EXPECT_EQ(requests().size(), 1u);
}

TEST_F(FetcherTest, ACallbackMayStartTheNextFetch) {
  auto fetcher = makeFetcher();
  Waiter first, second;
  fetcher->fetchWithSuccess(
      [&, success = first.success()](auto response) {
        fetcher->fetchWithSuccess(second.success(), second.failure());
        success(response);
      },
      first.failure());
  EXPECT_EQ(first.get().summary(), "1 products");
  EXPECT_EQ(second.get().summary(), "1 products");
  EXPECT_EQ(requests().size(), 2u);
}

TEST_F(FetcherTest, BundleCopyIsReadInsideTheCallAndNeverChecked) {
  auto fetcher = makeFetcher();
  Waiter missing;
  fetcher->fetchWithSuccess(missing.success(), missing.failure(), true);
  ASSERT_TRUE(missing.done());
  Outcome out = missing.get();
  EXPECT_EQ(out.summary(), "ZBIAPErrorDomain/1");
  EXPECT_TRUE(out.error->userInfo().empty());

  platform_.writeResource("ZBIAPPInfos", kCatalog);
  Waiter present;
  fetcher->fetchWithSuccess(present.success(), present.failure(), true);
  ASSERT_TRUE(present.done());
  out = present.get();
  EXPECT_EQ(out.summary(), "1 products");
  EXPECT_EQ(out.thread, std::this_thread::get_id());
  EXPECT_TRUE(requests().empty());
}

// What a request tells of the device, the app and the owner: the store's country, else the
// fallback, else "DE"; the purchases held, in order, their expirations in whole seconds.
TEST_F(FetcherTest, RequestBodyDescribesTheDeviceAndTheOwner) {
  platform_.writeInfoJSON(R"({"CFBundleShortVersionString":"2.1","CFBundleVersion":210})");
  auto fetcher = makeFetcher();
  EXPECT_EQ(fetcher->deviceCharacteristics(), (Dictionary{{"client_device", Value("Test Device")},
                                                          {"client_device_version", Value("6.1.0")},
                                                          {"client_version", Value("2.1 - 210")},
                                                          {"store_country", Value("DE")}}));
  auto owner = std::make_shared<TestOwner>();
  owner->country = "";
  owner->fallback = "AT";
  auto store = testing::FakeStore::create();
  const Date bought = Date::fromTimeIntervalSince1970(1700000000);
  const Date past = Date::fromTimeIntervalSince1970(1600000000);
  const Date future = Date::fromTimeIntervalSince1970(1900000000.5);
  auto purchase = [&](std::string id, std::optional<Date> expiration,
                      std::optional<Date> cancellation = std::nullopt) {
    return ZBIAPReceiptIAP::initWithProductIdentifier(std::move(id), 1, "1", std::nullopt, bought,
                                                      bought, expiration, cancellation, 0, true);
  };
  store->setInAppPurchases({purchase("monthly", future), purchase("cancelled", future, past),
                            purchase("lifetime", std::nullopt), purchase("lapsed", past)});
  owner->store = store;
  fetcher->setOwner(owner);
  Dictionary body = fetcher->deviceCharacteristics();
  EXPECT_EQ(body["store_country"], Value("AT"));
  auto stamp = [](Date d) { return ZBIAPDateTools::dateTools().rfc3339StringFromDate(d); };
  EXPECT_EQ(toJSON(body["available_iaps"]),
            R"([{"product_id":"monthly","expiration":")" +
                stamp(Date::fromTimeIntervalSince1970(1900000000)) +
                R"("},{"product_id":"lifetime"},{"product_id":"lapsed","expiration":")" +
                stamp(past) + R"("}])");
  owner->country = "FR";
  store->setInAppPurchases({purchase("monthly", future, future), nullptr});
  body = fetcher->deviceCharacteristics();
  EXPECT_EQ(body["store_country"], Value("FR"));
  EXPECT_FALSE(body.contains("available_iaps"));  // only cancelled purchases
  owner.reset();
  EXPECT_EQ(fetcher->deviceCharacteristics()["store_country"], Value("DE"));

  // The version and the machine as the formatter writes them.
  for (const char* info : {R"({"CFBundleShortVersionString":"3.0","CFBundleVersion":"x"})", "{}"}) {
    platform_.writeInfoJSON(info);
    std::string version = *fetcher->deviceCharacteristics()["client_version"].asString();
    EXPECT_EQ(version, std::string(info) == "{}" ? "(null) - (null)" : "3.0 - x");
  }
  std::filesystem::remove(platform_.bundleDir() / "Info.json");
  EXPECT_EQ(fetcher->deviceCharacteristics()["client_version"], Value("(null) - (null)"));
  EXPECT_EQ(ZBIAPDeviceCharacteristics::machineModel(), "x86_64");
  platform_.setDeviceInfo({"Linux", "Linux", "6.1", ""});
  EXPECT_EQ(ZBIAPDeviceCharacteristics::machineModel(), "Just an Apple Computer");
}

// The envelope, checked in this order; every caller receives the one outcome.
TEST_F(FetcherTest, Envelope) {
  const std::string parseFailure = "ZBIAPErrorDomain/1 JSON parsing failed. (NSCocoaErrorDomain)";
  const std::string noProducts = "ZBIAPErrorDomain/1 No products array or object has wrong type.";
  const std::string noGroups = "ZBIAPErrorDomain/1 Feature Groups is not a dictionary.";
  const struct {
    std::string json;
    std::string summary;
    const char* log;
  } rows[] = {
      {"{", parseFailure, "Response parsing failed"},
      // A bare scalar is no document: refused by the parser, not by the envelope check.
      {"42", parseFailure, nullptr},
      {R"("text")", parseFailure, nullptr},
      {"null", parseFailure, nullptr},
      {"true", parseFailure, nullptr},
      {"[1]", "ZBIAPErrorDomain/1 Top-level JSON object is not a dictionary.",
       "Response malformed (top-level)."},
      {R"({"feature_groups":[],"products":[]})", noGroups, "Response malformed (gold)."},
      {R"({"feature_groups":null,"products":[]})", noGroups, "Response malformed (gold)."},
      {R"({"features_metadata":null,"products":[]})",
       "ZBIAPErrorDomain/1 Feature metadata array has wrong type.",
       "Response malformed (feature metadata)."},
      {R"({"products":{}})", noProducts, "Response malformed (products)."},
      {R"({"gold_description":"x"})", noProducts, "Response malformed (products)."},
      {R"({"products":[{"inactive":false,"title":"T","sort_key":2},3]})",
       "ZBIAPErrorDomain/1 All products failed to parse.",
       "Response malformed (products content)."},
      {R"({"products":[{"inactive":false},)" + std::string(kProduct) + "]}", "1 products",
       "Response partially malformed (products content). Can continue."},
      {R"({"products":[],"feature_groups":{}})", "0 products groups", "successfully parsed"},
      {R"({"products":[],"gold_description":"Plain"})", "0 products header Plain", nullptr},
      {R"({"products":[],"gold_description":{"en":5,"de":"Deutsch"}})", "0 products header Deutsch",
       nullptr},
      {R"({"products":[],"features_metadata":[1,{"metadata":{}},{"identifier":"a"}]})",
       "0 products 1 features", nullptr},
  };
  auto fetcher = makeFetcher();
  auto process = [&](std::string_view json) {
    Waiter first, second;
    fetcher->processResponse(json, {first.blocks(), second.blocks()});
    Outcome out = first.get(), other = second.get();
    EXPECT_EQ(other.summary(), out.summary());
    EXPECT_EQ(other.response, out.response);
    return out.summary();
  };
  for (const auto& row : rows) {
    platform_.clearLog();
    EXPECT_EQ(process(row.json), row.summary) << row.json;
    if (row.log) {
      EXPECT_TRUE(platform_.logContains(row.log)) << row.json;
    }
  }
  for (const char* gold : {"12", "null", "[]", R"({"fr":"x"})", R"({"en":1,"de":2})"}) {
    EXPECT_EQ(process(std::string(R"({"products":[],"gold_description":)") + gold + "}"),
              "0 products")
        << gold;
  }
  platform_.setEnv("ZBIAP_OVERRIDE_LOCALE", "fr");
  EXPECT_EQ(process(R"({"products":[],"gold_description":{"en":"English","fr":"Français"}})"),
            "0 products header Français");
}

}  // namespace
}  // namespace zbiap
