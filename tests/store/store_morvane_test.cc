// The account store against the development account server on 127.0.0.1, through the real
// libcurl client, on the test platform's virtual-time main queue.
#include "zbiap/store/store_morvane.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "testing/test_platform.h"
#include "zbiap/devserver/account_server.h"
#include "zbiap/platform/http_client.h"

namespace zbiap {
namespace {

using testing::TestPlatform;
using Product = AccountServer::Product;

constexpr char kToken[] = "token-1";
const Date kMarch = Date::fromMicrosSince1970(1709633630LL * 1000000);  // 2024-03-05 10:13:50
const Date kApril = Date::fromMicrosSince1970(1712312030LL * 1000000);  // 2024-04-05 10:13:50

// The host's side: headers from a token list (the last one repeats), answered from a thread of
// its own; a list kept in memory.
class HostDelegate final : public ZBIAPStoreMorvaneDelegate {
 public:
  std::vector<std::string> tokens{kToken};
  std::vector<std::pair<std::string, std::string>> extraHeaders;
  ZBIAPErrorPtr headerError;
  std::optional<bool> shouldQuery;
  Value saved;

  void store(ZBIAPStoreMorvane&, bool isRetrying, HeadersCompletion completion) override {
    ZBIAPStoreMorvaneHeaders headers;
    {
      std::lock_guard lock(mu_);
      retryFlags_.push_back(isRetrying);
      size_t index = std::min(retryFlags_.size() - 1, tokens.size() - 1);
      if (!tokens.empty()) headers.emplace_back("Authorization", "Bearer " + tokens[index]);
    }
    headers.insert(headers.end(), extraHeaders.begin(), extraHeaders.end());
    std::thread([&] { completion(headers, headerError); }).join();
  }
  bool shouldQueryInAppPurchasesForStore(ZBIAPStoreMorvane&) override {
    return shouldQuery.value_or(true);
  }
  void store(ZBIAPStoreMorvane&, const Array& inAppPurchases) override {
    std::lock_guard lock(mu_);
    saves_.push_back(inAppPurchases);
    saved = Value(inAppPurchases);
  }
  Value readInAppPurchasesForStore(ZBIAPStoreMorvane&) override {
    ++reads;
    Value answer = saved;
    if (onRead) std::exchange(onRead, nullptr)();
    return answer;
  }
  // Run once inside the next read, after the answer was taken.
  std::function<void()> onRead;

  std::vector<bool> retryFlags() {
    std::lock_guard lock(mu_);
    return retryFlags_;
  }
  std::vector<Array> saves() {
    std::lock_guard lock(mu_);
    return saves_;
  }
  int reads = 0;

 private:
  std::mutex mu_;
  std::vector<bool> retryFlags_;
  std::vector<Array> saves_;
};

class StoreDelegateRecorder final : public ZBIAPStoreDelegate {
 public:
  std::vector<ZBIAPReceiptIAPPtr> inAppPurchases() const override { return {}; }
  void store(ZBIAPStore&, const std::optional<std::string>& countryCode) override {
    countries.push_back(countryCode.value_or("(none)"));
  }
  void storeDidUpdateInformations(ZBIAPStore&) override {
    ++updates;
    if (!Platform::current().mainQueue().isMainThread()) ++updatesOffMain;
  }
  std::vector<std::string> countries;
  int updates = 0;
  int updatesOffMain = 0;
};

struct Outcome {
  int calls = 0;
  ZBIAPStoreRestoreResult result = ZBIAPStoreRestoreResultFailed;
  ZBIAPErrorPtr error;
  bool onMainThread = false;
};

class StoreMorvaneTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform_.setEnv("ZBIAPStoreMorvane_LOGGING", "1");
    ASSERT_TRUE(server_.start());
    client_ = HttpClient::createCurl();
    store_ = ZBIAPStoreMorvane::initWithBaseURL(server_.baseURL(), client_);
    store_->setStoreDelegate(recorder_);
    store_->setMorvaneStoreDelegate(host_);
  }

  // Restores and runs the main queue until the completion has run (the answer comes over real
  // loopback HTTP, so this waits for the network, never for a timer of the library).
  Outcome restore() {
    auto outcome = std::make_shared<Outcome>();
    store_->restorePurchasesWithCompletion(
        [outcome](ZBIAPStoreRestoreResult result, ZBIAPErrorPtr error) {
          ++outcome->calls;
          outcome->result = result;
          outcome->error = std::move(error);
          outcome->onMainThread = Platform::current().mainQueue().isMainThread();
        });
    platform_.runUntil([&] { return outcome->calls > 0; });
    return *outcome;
  }

  size_t logCount(std::string_view text) const {
    size_t count = 0;
    for (const std::string& line : platform_.logLines()) {
      if (line.find(text) != std::string::npos) ++count;
    }
    return count;
  }

  static void expectStoreError(const Outcome& outcome) {
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_EQ(outcome.result, ZBIAPStoreRestoreResultFailed);
    ASSERT_NE(outcome.error, nullptr);
    EXPECT_EQ(outcome.error->domain(), ZBIAPStoreErrorDomain);
    EXPECT_EQ(outcome.error->code(), ZBIAPStoreErrorOther);
    EXPECT_TRUE(outcome.error->userInfo().empty());
  }

  std::vector<std::string> identifiers() const {
    std::vector<std::string> ids;
    for (const auto& iap : store_->inAppPurchases()) ids.push_back(iap->productIdentifier());
    return ids;
  }

  TestPlatform platform_;
  AccountServer server_;
  std::shared_ptr<HttpClient> client_;
  std::shared_ptr<HostDelegate> host_ = std::make_shared<HostDelegate>();
  std::shared_ptr<StoreDelegateRecorder> recorder_ = std::make_shared<StoreDelegateRecorder>();
  std::shared_ptr<ZBIAPStoreMorvane> store_;
};

TEST_F(StoreMorvaneTest, ProductsBecomeRecordsSavedAndReported) {
  server_.setProducts(kToken, {Product::make("com.example.pro", kMarch),
                               Product::make("com.example.sub", kMarch, kApril),
                               Product{"com.example.odd", "2024-03-05T10:13:50+01:00", "soon"}});
  host_->extraHeaders = {{"X-Client", "demo"}, {"Accept", "text/plain"}};

  Outcome outcome = restore();
  EXPECT_EQ(outcome.calls, 1);
  EXPECT_EQ(outcome.result, ZBIAPStoreRestoreResultChanged);
  EXPECT_EQ(outcome.error, nullptr);
  EXPECT_TRUE(outcome.onMainThread);

  std::vector<ZBIAPReceiptIAPPtr> iaps = store_->inAppPurchases();
  ASSERT_EQ(iaps.size(), 3u);
  // Records of no transaction and quantity, not upgradable; an unreadable expiry is none.
  EXPECT_EQ(iaps[0]->dictionaryRepresentation(), (Dictionary{{"ProductID", "com.example.pro"},
                                                             {"Quantity", 0},
                                                             {"TransactionID", "dummy"},
                                                             {"OrigTransactionID", "dummy"},
                                                             {"PurchaseDate", kMarch},
                                                             {"OrigPurchaseDate", kMarch},
                                                             {"WebOrderLineItemID", 0}}));
  EXPECT_FALSE(iaps[0]->upgradable());
  EXPECT_EQ(iaps[1]->subscriptionExpirationDate(), kApril);
  EXPECT_EQ(iaps[2]->purchaseDate(), kMarch - std::chrono::hours(1));
  EXPECT_FALSE(iaps[2]->subscriptionExpirationDate());
  EXPECT_FALSE(store_->isExistingCustomer());

  // Saved once, as the records' dictionaries, and reported once on the main thread.
  std::vector<Array> saves = host_->saves();
  ASSERT_EQ(saves.size(), 1u);
  ASSERT_EQ(saves[0].size(), 3u);
  EXPECT_EQ(saves[0][1], Value(iaps[1]->dictionaryRepresentation()));
  EXPECT_EQ(recorder_->updates, 1);
  EXPECT_EQ(recorder_->updatesOffMain, 0);

  // The request: GET of the products path, JSON accepted, the host's headers added after it.
  std::vector<AccountServer::Request> requests = server_.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].path, "/api/v1/users/products");
  EXPECT_EQ(requests[0].token, kToken);
  EXPECT_EQ(requests[0].header("X-Client"), "demo");
  // A second value for a field joins the first, in one field.
  EXPECT_EQ(requests[0].header("Accept"), "application/json, text/plain");
  EXPECT_EQ(host_->retryFlags(), std::vector<bool>{false});
  EXPECT_EQ(logCount("[ZBIAPStoreMorvane] Querying IAPs with 3 additional header(s)."), 1u);
  EXPECT_EQ(logCount("[ZBIAPStoreMorvane] Got products (did change): ("), 1u);
  EXPECT_EQ(logCount("com.example.sub"), 1u);

  // The saved list is what a later launch starts from, before any query.
  auto next = ZBIAPStoreMorvane::initWithBaseURL(server_.baseURL(), client_);
  next->setMorvaneStoreDelegate(host_);
  ASSERT_EQ(next->inAppPurchases().size(), 3u);
  EXPECT_TRUE(next->inAppPurchases()[1]->isEqual(*iaps[1]));
}

// A change is a different list (order counts, an empty one while none is held) or a different
// customer flag. Each change is saved (the list, never the flag) and reported once, and so is a
// discard that forgets a list.
TEST_F(StoreMorvaneTest, ChangesSavesAndReports) {
  const Product a = Product::make("com.example.a", kMarch);
  const Product b = Product::make("com.example.b", kApril);
  const auto kChanged = ZBIAPStoreRestoreResultChanged;
  const auto kSame = ZBIAPStoreRestoreResultUnchanged;
  const struct {
    std::vector<Product> products;
    std::optional<bool> customer;  // nullopt: absent, which reads as false
    ZBIAPStoreRestoreResult result;
  } steps[] = {
      {{}, std::nullopt, kChanged},
      {{}, std::nullopt, kSame},
      {{a, b}, std::nullopt, kChanged},
      {{a, b}, false, kSame},
      {{b, a}, std::nullopt, kChanged},
      {{b, a}, true, kChanged},
      {{b, a}, true, kSame},
      {{b, a}, std::nullopt, kChanged},
  };
  size_t changes = 0;
  for (const auto& step : steps) {
    server_.setProducts(kToken, step.products);
    server_.setExistingCustomer(kToken, step.customer);
    Outcome outcome = restore();
    EXPECT_EQ(outcome.result, step.result);
    EXPECT_EQ(outcome.error, nullptr);
    changes += step.result == kChanged;
    EXPECT_EQ(host_->saves().size(), changes);
    EXPECT_EQ(recorder_->updates, static_cast<int>(changes));
    EXPECT_EQ(store_->isExistingCustomer(), step.customer.value_or(false));
  }
  EXPECT_EQ(identifiers(), (std::vector<std::string>{"com.example.b", "com.example.a"}));
  EXPECT_EQ(logCount("Got products (no change): (\n)"), 1u);
  server_.enqueueResponse(200, R"({"products":[],"is_existing_customer":1})");
  EXPECT_EQ(restore().result, kChanged);
  EXPECT_TRUE(store_->isExistingCustomer());
  EXPECT_TRUE(host_->saves().back().empty());
  EXPECT_EQ(recorder_->updates, 6);

  // Discarding forgets the flag: reported, with nothing to save; a second discard has nothing
  // to forget. A held list is forgotten and saved empty.
  store_->discardInAppPurchases();
  EXPECT_FALSE(store_->isExistingCustomer());
  EXPECT_EQ(recorder_->updates, 7);
  store_->discardInAppPurchases();
  EXPECT_EQ(recorder_->updates, 7);
  EXPECT_EQ(host_->saves().size(), 6u);
  server_.setProducts(kToken, {a});
  ASSERT_EQ(restore().result, kChanged);
  store_->discardInAppPurchases();
  EXPECT_TRUE(store_->inAppPurchases().empty());
  EXPECT_EQ(host_->saves().size(), 8u);
  EXPECT_TRUE(host_->saves().back().empty());
  EXPECT_EQ(recorder_->updates, 9);
}

TEST_F(StoreMorvaneTest, UnauthorizedIsRetriedOnceWithFreshHeaders) {
  server_.setProducts("renewed", {Product::make("com.example.pro", kMarch)});
  host_->tokens = {"expired", "renewed"};
  EXPECT_EQ(restore().result, ZBIAPStoreRestoreResultChanged);
  EXPECT_EQ(host_->retryFlags(), (std::vector<bool>{false, true}));
  std::vector<AccountServer::Request> requests = server_.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].status, 401);
  EXPECT_EQ(requests[1].token, "renewed");
  EXPECT_EQ(identifiers(), std::vector<std::string>{"com.example.pro"});

  // A second 401 fails and keeps the list.
  server_.removeAccount("renewed");
  server_.clearRequests();
  Outcome outcome = restore();
  expectStoreError(outcome);
  EXPECT_EQ(outcome.error->underlyingError(), nullptr);
  EXPECT_EQ(server_.requestCount(), 2u);
  EXPECT_EQ(host_->retryFlags(), (std::vector<bool>{false, true, false, true}));
  EXPECT_EQ(logCount("[ZBIAPStoreMorvane] Got failure response code 401."), 1u);
  EXPECT_EQ(identifiers(), std::vector<std::string>{"com.example.pro"});
  EXPECT_EQ(host_->saves().size(), 1u);
  EXPECT_EQ(recorder_->updates, 1);

  // Without a host delegate the requests carry no headers at all.
  store_->setMorvaneStoreDelegate({});
  server_.clearRequests();
  expectStoreError(restore());
  requests = server_.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_FALSE(requests[0].token);
  EXPECT_EQ(requests[0].header("Accept"), "application/json");
  EXPECT_EQ(logCount("Querying IAPs without additional headers."), 2u);
}

TEST_F(StoreMorvaneTest, FailedAnswersChangeNothing) {
  server_.setProducts(kToken, {Product::make("com.example.kept", kMarch)});
  ASSERT_EQ(restore().result, ZBIAPStoreRestoreResultChanged);
  constexpr char kField[] = "Required product field missing or wrong type.";
  constexpr char kJSON[] = "Failed to decode JSON: Error Domain=NSCocoaErrorDomain";
  constexpr char kDated[] = R"({"product_identifier":"a","purchased_at":"2024-03-05T10:13:50Z")";
  const struct {
    int status;
    std::string body;
    const char* message;
  } cases[] = {
      {500, "oops", "Got failure response code 500."},  // not retried
      {204, "", kJSON},
      {200, R"({"products":[)", kJSON},
      {200, "42", kJSON},
      {200, R"([{"products":[]}])", "Top-level JSON object is not a dictionary."},
      {200, R"({})", "Server response does not contains a products list."},
      {200, R"({"products":{}})", "Server response does not contains a products list."},
      {200, R"({"products":[[]]})", "Product is not a dictionary."},
      {200, R"({"products":[{"product_identifier":7,"purchased_at":"2024-03-05T10:13:50Z"}]})",
       kField},
      {200, R"({"products":[{"product_identifier":"a"}]})", kField},
      {200, R"({"products":[{"product_identifier":"a","purchased_at":"yesterday"}]})", kField},
      {200, std::string(R"({"products":[)") + kDated + R"(,"valid_until":null}]})", kField},
      {200, std::string(R"({"products":[)") + kDated + R"(,"valid_until":5}]})", kField},
      {200,
       std::string(R"({"products":[)") + kDated +
           R"(},{"product_identifier":"b","purchased_at":null}]})",
       kField},
      {200, R"({"products":[],"is_existing_customer":"yes"})",
       "Existing customer flag is not a boolean."},
      {200, R"({"products":[],"is_existing_customer":null})",
       "Existing customer flag is not a boolean."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    platform_.clearLog();
    server_.clearRequests();
    server_.enqueueResponse(c.status, c.body, c.status == 200 ? "application/json" : "text/plain");
    Outcome outcome = restore();
    expectStoreError(outcome);
    EXPECT_TRUE(outcome.onMainThread);
    EXPECT_EQ(logCount(std::string("[ZBIAPStoreMorvane] ") + c.message), 1u);
    EXPECT_EQ(server_.requestCount(), 1u);
    // Decoding errors come with the decoder's error underneath.
    const ZBIAPErrorPtr& underlying = outcome.error->underlyingError();
    EXPECT_EQ(
        underlying && underlying->domain() == kNSCocoaErrorDomain && underlying->code() == 3840,
        c.message == kJSON);
    EXPECT_EQ(identifiers(), std::vector<std::string>{"com.example.kept"});
  }
  EXPECT_EQ(host_->saves().size(), 1u);
  EXPECT_EQ(recorder_->updates, 1);
  EXPECT_FALSE(store_->isExistingCustomer());
}

TEST_F(StoreMorvaneTest, HeaderAndTransportFailuresAreWrapped) {
  host_->headerError = ZBIAPError::make("AuthDomain", 17);
  Outcome outcome = restore();
  EXPECT_EQ(outcome.result, ZBIAPStoreRestoreResultFailed);
  ASSERT_NE(outcome.error, nullptr);
  EXPECT_EQ(outcome.error->code(), ZBIAPStoreErrorOther);
  EXPECT_EQ(outcome.error->underlyingError(), host_->headerError);
  EXPECT_EQ(server_.requestCount(), 0u);
  EXPECT_EQ(
      logCount("[ZBIAPStoreMorvane] Failed to get additional headers: Error Domain=AuthDomain"),
      1u);

  host_->headerError = nullptr;
  const std::string url = server_.baseURL();
  server_.stop();
  store_ = ZBIAPStoreMorvane::initWithBaseURL(url, client_);
  store_->setMorvaneStoreDelegate(host_);
  outcome = restore();
  expectStoreError(outcome);
  ASSERT_NE(outcome.error->underlyingError(), nullptr);
  EXPECT_EQ(outcome.error->underlyingError()->domain(), kNSURLErrorDomain);
  EXPECT_EQ(logCount("[ZBIAPStoreMorvane] Querying IAPs failed: Error Domain=NSURLErrorDomain"),
            1u);
}

TEST_F(StoreMorvaneTest, SuppressedQueryAnswersUnchangedOnTheMainThread) {
  host_->shouldQuery = false;
  Outcome here = restore();
  EXPECT_EQ(here.result, ZBIAPStoreRestoreResultUnchanged);
  EXPECT_EQ(here.error, nullptr);
  EXPECT_TRUE(here.onMainThread);
  // From another thread the answer is posted to the main queue.
  bool onMain = false;
  std::thread([&] {
    store_->restorePurchasesWithCompletion(
        [&](auto, auto) { onMain = Platform::current().mainQueue().isMainThread(); });
  }).join();
  EXPECT_FALSE(onMain);
  platform_.runUntilIdle();
  EXPECT_TRUE(onMain);
  EXPECT_EQ(server_.requestCount(), 0u);
  EXPECT_TRUE(host_->retryFlags().empty());
}

TEST_F(StoreMorvaneTest, FixedAnswersOfAStoreThatDoesNotSell) {
  std::vector<std::string> answers;
  store_->queryStoreCountryWithProductIdentifier("anything", [&](auto code, auto error) {
    answers.push_back(code.value_or("-") + (error ? " error" : ""));
  });
  store_->queryProducts({"a", "b"}, [&](auto products, auto error) {
    answers.push_back(std::to_string(products.size()) + (error ? " error" : ""));
  });
  store_->purchaseProduct(nullptr, [&](bool success, ZBIAPErrorPtr error) {
    answers.push_back(std::to_string(success) + " " + error->domain() + "/" +
                      std::to_string(error->code()));
  });
  store_->refreshReceiptWithCompletion(
      [&](bool success, ZBIAPErrorPtr error) { answers.push_back(std::to_string(success)); });
  EXPECT_EQ(answers, (std::vector<std::string>{"DE", "0", "0 ZBIAPStoreErrorDomain/2", "1"}));
  EXPECT_EQ(recorder_->countries, std::vector<std::string>{"DE"});
  EXPECT_FALSE(store_->canPurchaseProduct(nullptr));
  EXPECT_FALSE(store_->originalPurchaseDate());
  EXPECT_FALSE(store_->originalPurchaseVersion());
  // Null completions are fine everywhere.
  store_->queryStoreCountryWithProductIdentifier("x", nullptr);
  store_->purchaseProduct(nullptr, nullptr);
  EXPECT_EQ(server_.requestCount(), 0u);
}

TEST_F(StoreMorvaneTest, SavedListIsReadOnlyWhileNoneIsHeld) {
  Dictionary good{{ZBIAPReceiptKeyIAPProductID, Value("com.example.saved")},
                  {ZBIAPReceiptKeyIAPTransactionID, Value("dummy")},
                  {ZBIAPReceiptKeyIAPPurchaseDate, Value(kMarch)}};
  Dictionary bad{{ZBIAPReceiptKeyIAPProductID, Value("com.example.bad")}};
  auto host = std::make_shared<HostDelegate>();
  host->saved = Value(Array{Value(good), Value("junk"), Value(bad)});
  auto store = ZBIAPStoreMorvane::initWithBaseURL(server_.baseURL(), client_);
  store->setStoreDelegate(recorder_);
  store->setMorvaneStoreDelegate(host);
  ASSERT_EQ(store->inAppPurchases().size(), 1u);
  EXPECT_EQ(store->inAppPurchases()[0]->productIdentifier(), "com.example.saved");
  EXPECT_EQ(recorder_->updates, 0);

  // A list is held now: a new delegate does not replace it.
  auto other = std::make_shared<HostDelegate>();
  store->setMorvaneStoreDelegate(other);
  EXPECT_EQ(other->reads, 0);

  // A restore that ends while the saved list is being read wins over it.
  server_.setProducts(kToken, {Product::make("com.example.fresh", kMarch)});
  auto racing = ZBIAPStoreMorvane::initWithBaseURL(server_.baseURL(), client_);
  host->onRead = [&] {
    int done = 0;
    racing->restorePurchasesWithCompletion([&](auto, auto) { ++done; });
    platform_.runUntil([&] { return done > 0; });
  };
  racing->setMorvaneStoreDelegate(host);
  ASSERT_EQ(racing->inAppPurchases().size(), 1u);
  EXPECT_EQ(racing->inAppPurchases()[0]->productIdentifier(), "com.example.fresh");

  // Something that is not an array leaves the store without a list.
  auto odd = std::make_shared<HostDelegate>();
  odd->saved = Value(good);
  auto fresh = ZBIAPStoreMorvane::initWithBaseURL(server_.baseURL(), client_);
  fresh->setMorvaneStoreDelegate(odd);
  EXPECT_EQ(odd->reads, 1);
  EXPECT_TRUE(fresh->inAppPurchases().empty());
}

TEST(StoreMorvaneURLTest, ProductsPathIsAppendedAsAPathComponent) {
  auto url = [](std::string base) {
    return ZBIAPStoreMorvane::initWithBaseURL(std::move(base))->productsURL();
  };
  EXPECT_EQ(url("https://example.com/api"), "https://example.com/api/v1/users/products");
  EXPECT_EQ(url("https://example.com/api/"), "https://example.com/api/v1/users/products");
  EXPECT_EQ(url("https://example.com"), "https://example.com/v1/users/products");
  EXPECT_EQ(url("https://example.com/api?app=1"),
            "https://example.com/api/v1/users/products?app=1");
}

}  // namespace
}  // namespace zbiap
