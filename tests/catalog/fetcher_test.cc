#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "catalog/base64.h"
#include "testing/fake_store.h"
#include "testing/http_test_server.h"
#include "zbiap/catalog/product_info_v1_fetcher.h"
#include "zbiap/foundation/json.h"
#include "zbiap/platform/http_client.h"
#include "zbiap/platform/linux_platform.h"

namespace zbiap {
namespace {

constexpr char kConsumerKey[] = "consumer-key";
constexpr char kConsumerSecret[] = "consumer secret&*";
constexpr char kAccept[] = "application/vnd.example.catalog+json";
constexpr char kProduct[] =
    R"({"identifier":"com.example.pro","inactive":false,"title":{"en":"Pro","de":"Profi"},)"
    R"("sort_key":1})";

// The default platform on a temporary bundle, with captured system log and its own environment.
class CapturingPlatform final : public Platform {
 public:
  explicit CapturingPlatform(const std::filesystem::path& bundle)
      : base_(LinuxPlatform::Options{bundle, bundle / "defaults.sqlite", 1}) {}

  void setEnvironment(const std::string& name, const std::string& value) {
    std::lock_guard lock(mutex_);
    environment_[name] = value;
  }
  std::vector<std::string> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  int count(std::string_view line) {
    std::lock_guard lock(mutex_);
    return static_cast<int>(std::count(lines_.begin(), lines_.end(), line));
  }

  MainQueue& mainQueue() override { return base_.mainQueue(); }
  TaskQueue& globalQueue() override { return base_.globalQueue(); }
  Date now() override { return Date::fromSysTime(std::chrono::system_clock::now()); }
  std::optional<std::string> environmentValue(std::string_view name) override {
    std::lock_guard lock(mutex_);
    auto found = environment_.find(std::string(name));
    if (found == environment_.end()) return std::nullopt;
    return found->second;
  }
  UserDefaults& standardUserDefaults() override { return base_.standardUserDefaults(); }
  Bundle& mainBundle() override { return base_.mainBundle(); }
  DeviceInfo deviceInfo() override { return {"iPhone", "iOS", "17.4", "iPhone15,2"}; }
  std::vector<std::string> preferredLanguages() override { return {"en-GB", "de-DE"}; }
  void systemLog(std::string_view line) override {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
  }

 private:
  LinuxPlatform base_;
  std::mutex mutex_;
  std::map<std::string, std::string> environment_;
  std::vector<std::string> lines_;
};

class TestOwner final : public ProductInfoFetcherOwner {
 public:
  std::optional<std::string> country;
  std::optional<std::string> fallback;
  std::shared_ptr<ZBIAPStore> store;
  std::optional<std::string> appStoreCountry() const override { return country; }
  std::optional<std::string> appStoreFallbackCountryCode() const override { return fallback; }
  std::shared_ptr<ZBIAPStore> storeForRequests() const override { return store; }
};

// The RSA key pair the test server signs its answers with.
struct SigningKey {
  SigningKey() : key(EVP_RSA_gen(2048)) {
    unsigned char* der = nullptr;
    int length = i2d_PublicKey(key, &der);
    publicKeyBase64 = base64Encode(std::span<const uint8_t>(der, std::max(length, 0)));
    OPENSSL_free(der);
  }
  ~SigningKey() { EVP_PKEY_free(key); }
  std::string sign(std::string_view message) const {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    size_t length = 0;
    std::vector<uint8_t> signature;
    auto bytes = reinterpret_cast<const uint8_t*>(message.data());
    if (EVP_DigestSignInit(context, nullptr, EVP_sha256(), nullptr, key) == 1 &&
        EVP_DigestSign(context, nullptr, &length, bytes, message.size()) == 1) {
      signature.resize(length);
      EVP_DigestSign(context, signature.data(), &length, bytes, message.size());
    }
    EVP_MD_CTX_free(context);
    return base64Encode(signature);
  }
  EVP_PKEY* key;
  std::string publicKeyBase64;
};

enum class Signature { kValid, kNone, kWrong, kNotBase64 };

struct Outcome {
  std::shared_ptr<ZBIAPProductInfoResponse> response;
  ZBIAPErrorPtr error;
  bool succeeded = false;
  std::thread::id thread;
};

// Collects one callback pair's outcome.
class Waiter {
 public:
  ZBIAPProductInfoFetcher::SuccessBlock success() {
    return [promise = promise_](auto response) {
      promise->set_value({std::move(response), nullptr, true, std::this_thread::get_id()});
    };
  }
  ZBIAPProductInfoFetcher::FailureBlock failure() {
    return [promise = promise_](auto error) {
      promise->set_value({nullptr, std::move(error), false, std::this_thread::get_id()});
    };
  }
  bool done() { return future_.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
  Outcome get() {
    if (future_.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
      ADD_FAILURE() << "no callback";
      return {};
    }
    return future_.get();
  }

 private:
  std::shared_ptr<std::promise<Outcome>> promise_ = std::make_shared<std::promise<Outcome>>();
  std::future<Outcome> future_ = promise_->get_future();
};

class FetcherTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { key_ = new SigningKey; }
  static void TearDownTestSuite() { delete key_; }

  void SetUp() override {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "zbiap-fetcher-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    bundle_ = pattern;
    platform_ = std::make_shared<CapturingPlatform>(bundle_);
    platform_->setEnvironment("ZBIAPDYNAMICPRODUCTINFOFETCHER_LOGGING", "1");
    Platform::install(platform_);

    server_.server().Post(
        R"(/+api/v1/in_app_purchases/products_description)",
        [this](const httplib::Request& req, httplib::Response& res) { answer(req, res); });
    ASSERT_TRUE(server_.start());
  }

  void TearDown() override {
    server_.stop();
    Platform::install(nullptr);
    std::filesystem::remove_all(bundle_);
  }

  void answer(const httplib::Request& req, httplib::Response& res) {
    std::unique_lock lock(mutex_);
    requests_.push_back(req);
    bool hold = hold_;
    lock.unlock();
    if (hold) server_.holdUntilReleased();
    lock.lock();
    res.status = status_;
    if (signature_ == Signature::kValid)
      res.set_header(ZBIAPProductInfoV1Fetcher::kSignatureHeader, key_->sign(body_));
    if (signature_ == Signature::kWrong)
      res.set_header(ZBIAPProductInfoV1Fetcher::kSignatureHeader, key_->sign(body_ + " "));
    if (signature_ == Signature::kNotBase64)
      res.set_header(ZBIAPProductInfoV1Fetcher::kSignatureHeader, "%%%");
    res.set_content(body_, "application/json");
  }

  void serve(std::string body, Signature signature = Signature::kValid, int status = 200) {
    std::lock_guard lock(mutex_);
    body_ = std::move(body);
    signature_ = signature;
    status_ = status;
  }

  std::shared_ptr<ZBIAPProductInfoV1Fetcher> makeFetcher(std::optional<std::string> signatureKey,
                                                         std::string baseURL = "") {
    return ZBIAPProductInfoV1Fetcher::initWithBaseURL(baseURL.empty() ? server_.url() : baseURL,
                                                      kAccept, kConsumerKey, kConsumerSecret,
                                                      std::move(signatureKey));
  }
  std::shared_ptr<ZBIAPProductInfoV1Fetcher> signedFetcher() {
    return makeFetcher(key_->publicKeyBase64);
  }

  Outcome fetch(ZBIAPProductInfoV1Fetcher& fetcher, bool bundle = false) {
    Waiter waiter;
    fetcher.fetchWithSuccess(waiter.success(), waiter.failure(), bundle);
    return waiter.get();
  }

  size_t requestCount() {
    std::lock_guard lock(mutex_);
    return requests_.size();
  }
  httplib::Request lastRequest() {
    std::lock_guard lock(mutex_);
    return requests_.back();
  }
  int logged(const std::string& line) { return platform_->count("[DPI Fetcher] " + line); }

  static std::string internalDescription(const ZBIAPErrorPtr& error) {
    if (!error) return "(no error)";
    const std::string* text = error->userInfo()[ZBIAPErrorInternalDescriptionKey].asString();
    return text ? *text : "(no description)";
  }

  static SigningKey* key_;
  std::filesystem::path bundle_;
  std::shared_ptr<CapturingPlatform> platform_;
  testing::HttpTestServer server_;
  std::mutex mutex_;
  std::vector<httplib::Request> requests_;
  std::string body_ = std::string(R"({"products":[)") + kProduct + "]}";
  Signature signature_ = Signature::kValid;
  int status_ = 200;
  bool hold_ = false;
};

SigningKey* FetcherTest::key_ = nullptr;

TEST_F(FetcherTest, SignedAnswerIsParsedAndDeliveredOnTheNetworkThread) {
  serve(R"({"products":[)" + std::string(kProduct) +
        R"(],"gold_description":{"en":"<b>Gold</b>","de":"<b>Gold DE</b>"},)"
        R"("feature_groups":{"g":{"order":1}},"features_metadata":[{"identifier":"sync"},7]})");
  auto fetcher = signedFetcher();
  ASSERT_NE(fetcher, nullptr);
  auto owner = std::make_shared<TestOwner>();
  owner->country = "CH";
  fetcher->setOwner(owner);

  Outcome out = fetch(*fetcher);
  ASSERT_TRUE(out.succeeded) << (out.error ? out.error->description() : "null error");
  EXPECT_NE(out.thread, std::this_thread::get_id());
  ASSERT_TRUE(out.response->productInfos());
  ASSERT_EQ(out.response->productInfos()->size(), 1u);
  EXPECT_EQ((*out.response->productInfos())[0]->productIdentifier(), "com.example.pro");
  EXPECT_EQ(out.response->htmlStoreHeader(), "<b>Gold</b>");
  EXPECT_EQ(out.response->featureGroups(), (Dictionary{{"g", Value(Dictionary{{"order", 1}})}}));
  ASSERT_TRUE(out.response->featureSet());
  EXPECT_EQ(out.response->featureSet()->size(), 1u);
  EXPECT_EQ(logged("Response successfully parsed."), 1);
  EXPECT_TRUE(fetcher->completionBlocks().empty());

  httplib::Request request = lastRequest();
  EXPECT_EQ(request.path, "/api/v1/in_app_purchases/products_description");
  EXPECT_EQ(request.get_header_value("Accept"), kAccept);
  EXPECT_EQ(request.get_header_value("Accept-Encoding"), "gzip, deflate");
  EXPECT_EQ(request.get_header_value("Content-Type"), "application/json");
  EXPECT_EQ(request.get_header_value("Accept-Language"), "en-US;q=1");
  auto body = parseJSON(request.body);
  ASSERT_TRUE(body);
  EXPECT_EQ((*body)["store_country"], Value("CH"));
  EXPECT_EQ((*body)["client_device"], Value("iPhone"));
  EXPECT_EQ(logged("Fetching with characteristics: " + body->description()), 1);

  EXPECT_TRUE(request.get_header_value("Authorization").starts_with("OAuth "));
}

TEST_F(FetcherTest, CallersJoinTheRunningFetch) {
  hold_ = true;
  auto fetcher = signedFetcher();
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
  ASSERT_TRUE(a.succeeded && b.succeeded && c.succeeded);
  EXPECT_EQ(a.response, b.response);
  EXPECT_EQ(a.response, c.response);
  EXPECT_EQ(requestCount(), 1u);
  EXPECT_EQ(logged("Operation still in progress."), 2);
  EXPECT_EQ(logged("Loading local product infos from bundle"), 0);
}

TEST_F(FetcherTest, ACallbackMayStartTheNextFetch) {
  auto fetcher = signedFetcher();
  Waiter second;
  Waiter first;
  auto firstSuccess = first.success();
  fetcher->fetchWithSuccess(
      [&, firstSuccess](auto response) {
        fetcher->fetchWithSuccess(second.success(), second.failure());
        firstSuccess(response);
      },
      first.failure());
  EXPECT_TRUE(first.get().succeeded);
  Outcome next = second.get();
  EXPECT_TRUE(next.succeeded);
  EXPECT_EQ(requestCount(), 2u);
  EXPECT_EQ(logged("Operation still in progress."), 0);
}

TEST_F(FetcherTest, SignatureRules) {
  auto signedOne = signedFetcher();
  for (Signature bad : {Signature::kNone, Signature::kWrong, Signature::kNotBase64}) {
    serve(body_, bad);
    Outcome out = fetch(*signedOne);
    EXPECT_FALSE(out.succeeded);
    EXPECT_EQ(out.error, nullptr);
  }
  EXPECT_EQ(logged("Signature verification failed"), 3);

  // Without a key, or with a key text that is no key, every answer is taken.
  serve(body_, Signature::kNone);
  for (std::optional<std::string> text :
       {std::optional<std::string>(), std::optional<std::string>("not base64!"),
        std::optional<std::string>(base64Encode(std::string_view("not a key")))}) {
    auto fetcher = makeFetcher(text);
    ASSERT_NE(fetcher, nullptr);
    EXPECT_EQ(fetcher->signatureKey(), nullptr);
    EXPECT_TRUE(fetch(*fetcher).succeeded);
  }

  std::string_view empty;
  EXPECT_FALSE(
      ZBIAPProductInfoV1Fetcher::validateSignature("x", signedOne->signatureKey().get(), &empty));
  EXPECT_FALSE(ZBIAPProductInfoV1Fetcher::validateSignature(
      std::nullopt, signedOne->signatureKey().get(), nullptr));
  EXPECT_TRUE(ZBIAPProductInfoV1Fetcher::validateSignature(std::nullopt, nullptr, nullptr));
}

TEST_F(FetcherTest, StatusIsNotExamined) {
  auto fetcher = signedFetcher();
  serve("<html>Internal Server Error</html>", Signature::kValid, 500);
  Outcome out = fetch(*fetcher);
  ASSERT_FALSE(out.succeeded);
  ASSERT_NE(out.error, nullptr);
  EXPECT_EQ(out.error->domain(), ZBIAPErrorDomain);
  EXPECT_EQ(out.error->code(), 1);
  EXPECT_EQ(internalDescription(out.error), "JSON parsing failed.");
  ASSERT_NE(out.error->underlyingError(), nullptr);
  EXPECT_EQ(out.error->underlyingError()->domain(), kNSCocoaErrorDomain);

  serve(R"({"products":[]})", Signature::kValid, 503);
  out = fetch(*fetcher);
  ASSERT_TRUE(out.succeeded);
  EXPECT_TRUE(out.response->productInfos()->empty());
}

TEST_F(FetcherTest, TransportErrorsAndEmptyAnswersFail) {
  testing::HttpTestServer closed;
  ASSERT_TRUE(closed.start());
  std::string url = closed.url();
  closed.stop();
  auto fetcher = makeFetcher(key_->publicKeyBase64, url);
  Outcome out = fetch(*fetcher);
  ASSERT_FALSE(out.succeeded);
  ASSERT_NE(out.error, nullptr);
  EXPECT_EQ(out.error->domain(), kNSURLErrorDomain);
  EXPECT_EQ(out.error->code(), kNSURLErrorCannotConnectToHost);
  EXPECT_EQ(logged("Fetching failed with error: " + out.error->description()), 1);

  serve("", Signature::kNone);
  out = fetch(*makeFetcher(std::nullopt));
  EXPECT_FALSE(out.succeeded);
  EXPECT_EQ(out.error, nullptr);
  EXPECT_EQ(logged("Fetching failed with error: (null)"), 1);

  auto unsignable = makeFetcher(std::nullopt, "no url");
  out = fetch(*unsignable);
  ASSERT_NE(out.error, nullptr);
  EXPECT_EQ(out.error->code(), kNSURLErrorBadURL);
}

TEST_F(FetcherTest, BaseURLIsJoinedAsText) {
  auto fetcher = makeFetcher(key_->publicKeyBase64, server_.url("/"));
  EXPECT_TRUE(fetch(*fetcher).succeeded);
  EXPECT_EQ(lastRequest().path, "//api/v1/in_app_purchases/products_description");
}

TEST_F(FetcherTest, BundleCopyIsReadInsideTheCall) {
  auto fetcher = signedFetcher();
  Waiter missing;
  fetcher->fetchWithSuccess(missing.success(), missing.failure(), true);
  ASSERT_TRUE(missing.done());
  Outcome out = missing.get();
  ASSERT_FALSE(out.succeeded);
  ASSERT_NE(out.error, nullptr);
  EXPECT_EQ(out.error->domain(), ZBIAPErrorDomain);
  EXPECT_EQ(out.error->code(), 1);
  EXPECT_TRUE(out.error->userInfo().empty());

  std::ofstream(bundle_ / "ZBIAPPInfos") << R"({"products":[)" << kProduct << "]}";
  Waiter present;
  fetcher->fetchWithSuccess(present.success(), present.failure(), true);
  ASSERT_TRUE(present.done());  // never signature-checked, never sent
  out = present.get();
  ASSERT_TRUE(out.succeeded);
  EXPECT_EQ(out.thread, std::this_thread::get_id());
  EXPECT_EQ(out.response->productInfos()->size(), 1u);
  EXPECT_EQ(requestCount(), 0u);
}

TEST_F(FetcherTest, RequestBodyFollowsTheOwner) {
  auto fetcher = signedFetcher();
  EXPECT_EQ(fetcher->deviceCharacteristics()["store_country"], Value("DE"));
  EXPECT_FALSE(fetcher->deviceCharacteristics().contains("available_iaps"));

  auto owner = std::make_shared<TestOwner>();
  owner->country = "";
  owner->fallback = "AT";
  auto store = testing::FakeStore::create();
  Date bought = Date::fromTimeIntervalSince1970(1700000000);
  store->setInAppPurchases(
      {ZBIAPReceiptIAP::initWithProductIdentifier("com.example.lifetime", 1, "1", std::nullopt, bought, bought,
                               std::nullopt, std::nullopt, 0, true)});
  owner->store = store;
  fetcher->setOwner(owner);
  Dictionary body = fetcher->deviceCharacteristics();
  EXPECT_EQ(body["store_country"], Value("AT"));
  EXPECT_EQ(body["available_iaps"],
            Value(Array{Value(Dictionary{{"product_id", Value("com.example.lifetime")}})}));
  owner->country = "FR";
  EXPECT_EQ(fetcher->deviceCharacteristics()["store_country"], Value("FR"));
  owner.reset();
  EXPECT_EQ(fetcher->deviceCharacteristics()["store_country"], Value("DE"));
}

TEST_F(FetcherTest, EmptyConsumerKeyMakesNoFetcher) {
  EXPECT_EQ(ZBIAPProductInfoV1Fetcher::initWithBaseURL(server_.url(), kAccept, "", "secret"),
            nullptr);
  auto lines = platform_->lines();
  EXPECT_NE(std::find(lines.begin(), lines.end(), "Failed to initialize OAuth!"), lines.end());
}

// Envelope checks, in the order they apply.
struct EnvelopeCase {
  const char* json;
  const char* message;  // null: success
  const char* logLine;
};

TEST_F(FetcherTest, EnvelopeFaults) {
  std::string product = kProduct;
  std::string nameless = R"({"inactive":false,"title":"T","sort_key":2})";
  const EnvelopeCase cases[] = {
      {"{", "JSON parsing failed.", nullptr},
      // A bare scalar is no document: refused by the parser, not by the envelope check.
      {"42", "JSON parsing failed.", nullptr},
      {R"("text")", "JSON parsing failed.", nullptr},
      {"null", "JSON parsing failed.", nullptr},
      {"true", "JSON parsing failed.", nullptr},
      {"[1]", "Top-level JSON object is not a dictionary.", "Response malformed (top-level)."},
      {R"({"feature_groups":[],"products":[]})", "Feature Groups is not a dictionary.",
       "Response malformed (gold)."},
      {R"({"feature_groups":null,"products":[]})", "Feature Groups is not a dictionary.",
       "Response malformed (gold)."},
      {R"({"features_metadata":null,"products":[]})", "Feature metadata array has wrong type.",
       "Response malformed (feature metadata)."},
      {R"({"products":{}})", "No products array or object has wrong type.",
       "Response malformed (products)."},
      {R"({"gold_description":"x"})", "No products array or object has wrong type.",
       "Response malformed (products)."},
  };
  auto fetcher = signedFetcher();
  for (const EnvelopeCase& c : cases) {
    SCOPED_TRACE(c.json);
    Waiter waiter;
    auto blocks = std::make_shared<ZBIAPProductInfoV1FetcherBlocks>();
    blocks->success = waiter.success();
    blocks->failure = waiter.failure();
    fetcher->processResponse(c.json, {blocks});
    Outcome out = waiter.get();
    ASSERT_FALSE(out.succeeded);
    EXPECT_EQ(internalDescription(out.error), c.message);
    EXPECT_EQ(out.error->underlyingError() != nullptr,
              std::string_view(c.message) == "JSON parsing failed.");
    if (c.logLine) {
      EXPECT_GE(logged(c.logLine), 1);
    }
  }

  Waiter all;
  auto blocks = std::make_shared<ZBIAPProductInfoV1FetcherBlocks>();
  blocks->success = all.success();
  blocks->failure = all.failure();
  fetcher->processResponse(R"({"products":[)" + nameless + ",3]}", {blocks});
  EXPECT_EQ(internalDescription(all.get().error), "All products failed to parse.");
  EXPECT_EQ(logged("Response malformed (products content)."), 1);
}

TEST_F(FetcherTest, EnvelopeSuccesses) {
  auto fetcher = signedFetcher();
  // Two callers, one outcome: both receive the same response.
  auto parse = [&](const std::string& json) {
    Waiter first, second;
    auto a = std::make_shared<ZBIAPProductInfoV1FetcherBlocks>();
    a->success = first.success();
    a->failure = first.failure();
    auto b = std::make_shared<ZBIAPProductInfoV1FetcherBlocks>();
    b->success = second.success();
    b->failure = second.failure();
    fetcher->processResponse(json, {a, b});
    Outcome out = first.get();
    EXPECT_EQ(second.get().response, out.response);
    return out;
  };
  Outcome out = parse(R"({"products":[{"inactive":false},)" + std::string(kProduct) + "]}");
  ASSERT_TRUE(out.succeeded);
  EXPECT_EQ(out.response->productInfos()->size(), 1u);
  EXPECT_EQ(logged("Response partially malformed (products content). Can continue."), 1);
  EXPECT_FALSE(out.response->featureSet());
  EXPECT_FALSE(out.response->featureGroups());

  for (const char* gold : {"12", "null", "[]", R"({"fr":"x"})", R"({"en":1,"de":2})"}) {
    out = parse(std::string(R"({"products":[],"gold_description":)") + gold + "}");
    ASSERT_TRUE(out.succeeded) << gold;
    EXPECT_EQ(out.response->htmlStoreHeader(), std::nullopt) << gold;
  }
  out = parse(R"({"products":[],"gold_description":{"en":5,"de":"Deutsch"}})");
  EXPECT_EQ(out.response->htmlStoreHeader(), "Deutsch");
  platform_->setEnvironment("ZBIAP_OVERRIDE_LOCALE", "fr");
  out = parse(R"({"products":[],"gold_description":{"en":"English","fr":"Français"}})");
  EXPECT_EQ(out.response->htmlStoreHeader(), "Français");
  out = parse(R"({"products":[],"features_metadata":[1,{"metadata":{}},{"identifier":"a"}]})");
  ASSERT_TRUE(out.response->featureSet());
  EXPECT_EQ(out.response->featureSet()->size(), 1u);
}

}  // namespace
}  // namespace zbiap
