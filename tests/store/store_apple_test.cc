// The App Store store over the StoreKit simulator (installed as the StoreKit binding, with the
// example configuration) on a virtual-time main queue, and its receipt file watched by the real
// file monitor: changes reach the store's delegate, and receipts that cannot be read (deleted,
// empty, truncated, garbage, half-written) leave the store's records as they were.
#include "zbiap/store/store_apple.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "testing/test_platform.h"
#include "zbiap/platform/file_watcher.h"
#include "zbiap/storekit/receipt_writer.h"
#include "zbiap/storekit/sk_error.h"
#include "zbiap/storekit/storekit_simulator.h"

namespace zbiap::testing {
namespace {

using Kind = StoreKitSimulator::Outcome::Kind;

Date at(int64_t seconds) { return Date::fromMicrosSince1970(seconds * 1000000); }

constexpr char kCoins[] = "com.example.app.coins100";
constexpr char kLifetime[] = "com.example.app.lifetime";
constexpr char kMonthly[] = "com.example.app.pro.monthly";
constexpr char kYearly[] = "com.example.app.pro.yearly";

class RecordingStoreDelegate final : public ZBIAPStoreDelegate {
 public:
  void store(ZBIAPStore&, const std::optional<std::string>& countryCode) override {
    countryCodes.push_back(countryCode.value_or("(none)"));
  }
  void storeDidUpdateInformations(ZBIAPStore& store) override {
    ++updates;
    lastPurchases = store.inAppPurchases();
  }
  std::vector<ZBIAPReceiptIAPPtr> inAppPurchases() const override { return {}; }

  std::vector<std::string> countryCodes;
  int updates = 0;
  std::vector<ZBIAPReceiptIAPPtr> lastPurchases;
};

class StoreAppleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform_.setEnv("ZBIAPSTORE_LOGGING", "1");
    platform_.writeInfoDictionary(
        {{"CFBundleIdentifier", "com.example.app"}, {"CFBundleVersion", "3"}});
    auto configuration = StoreKitConfiguration::fromFile(std::filesystem::path(ZBIAP_SOURCE_DIR) /
                                                         "examples" / "Example.storekit");
    ASSERT_TRUE(configuration);
    simulator_ = StoreKitSimulator::create(*configuration);
    ASSERT_TRUE(simulator_);
    previousBinding_ = StoreKitBinding::install(simulator_);
    delegate_ = std::make_shared<RecordingStoreDelegate>();
  }

  void TearDown() override {
    // Let the watcher thread finish with this test's files before they are removed.
    FileWatch::waitUntilIdle();
    StoreKitBinding::install(previousBinding_);
  }

  std::shared_ptr<ZBIAPStoreApple> makeStore() {
    auto store = ZBIAPStoreApple::create();
    store->setStoreDelegate(delegate_);
    return store;
  }

  // The store's products of the example, by identifier.
  std::map<std::string, ZBIAPStoreProductPtr> products(ZBIAPStoreApple& store) {
    std::map<std::string, ZBIAPStoreProductPtr> out;
    store.queryProducts({kCoins, kLifetime, kMonthly, kYearly},
                        [&](std::vector<ZBIAPStoreProductPtr> list, ZBIAPErrorPtr) {
                          for (auto& p : list) out[p->productIdentifier()] = p;
                        });
    platform_.runUntilIdle();
    return out;
  }

  // Lets file events reach the main queue and runs it.
  void settle() {
    FileWatch::waitUntilIdle();
    platform_.runUntilIdle();
  }

  std::filesystem::path receiptURL() { return platform_.bundle().appStoreReceiptURL(); }

  void writeReceiptBytes(const Data& bytes, bool inPlace = true) {
    std::filesystem::create_directories(receiptURL().parent_path());
    const std::filesystem::path target =
        inPlace ? receiptURL() : std::filesystem::path(receiptURL().string() + ".new");
    {
      std::ofstream out(target, std::ios::binary | std::ios::trunc);
      out.write(reinterpret_cast<const char*>(bytes.data()),
                static_cast<std::streamsize>(bytes.size()));
    }
    if (!inPlace) std::filesystem::rename(target, receiptURL());
  }

  // A receipt of `purchases` records of the example's products.
  Data receipt(int purchases, bool withDate = true, bool withVersion = true) {
    ReceiptContents c;
    c.bundleIdentifier = "com.example.app";
    c.appVersion = "3";
    if (withVersion) c.originalAppVersion = "1";
    c.creationDate = at(1735689600);
    if (withDate) c.originalPurchaseDate = at(1700000000);
    for (int i = 0; i < purchases; ++i) {
      ReceiptPurchase p;
      p.productIdentifier = i % 2 ? kLifetime : kMonthly;
      p.transactionIdentifier = std::to_string(1000 + i);
      p.purchaseDate = at(1720000000 + i * 60);
      c.purchases.push_back(p);
    }
    return *writer_->write(c);
  }

  size_t parseFailures() const {
    size_t n = 0;
    for (const auto& line : platform_.logLines()) {
      n += line.find("Could not parse receipt: ") != std::string::npos;
    }
    return n;
  }

  TestPlatform platform_;
  std::unique_ptr<ReceiptWriter> writer_ = ReceiptWriter::create();
  std::shared_ptr<StoreKitSimulator> simulator_;
  std::shared_ptr<StoreKitBinding> previousBinding_;
  std::shared_ptr<RecordingStoreDelegate> delegate_;
};

struct Result {
  bool called = false;
  bool success = false;
  ZBIAPErrorPtr error;
};

ZBIAPStore::SuccessCompletion record(Result& result) {
  return [&result](bool success, ZBIAPErrorPtr error) {
    EXPECT_FALSE(result.called) << "completion called twice";
    result = {true, success, std::move(error)};
  };
}

void expectStoreError(const ZBIAPErrorPtr& error, int64_t code) {
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), ZBIAPStoreErrorDomain);
  EXPECT_EQ(error->code(), code);
}

struct Answer {
  int calls = 0;
  std::optional<std::string> code;
  std::vector<ZBIAPStoreProductPtr> products;
  ZBIAPErrorPtr error;
};

std::shared_ptr<Answer> askCountry(ZBIAPStoreApple& store, const std::string& product) {
  auto answer = std::make_shared<Answer>();
  store.queryStoreCountryWithProductIdentifier(product, [answer](auto code, ZBIAPErrorPtr error) {
    ++answer->calls;
    answer->code = std::move(code);
    answer->error = std::move(error);
  });
  return answer;
}

std::shared_ptr<Answer> askProducts(ZBIAPStoreApple& store, std::vector<std::string> ids) {
  auto answer = std::make_shared<Answer>();
  store.queryProducts(ids, [answer](std::vector<ZBIAPStoreProductPtr> list, ZBIAPErrorPtr error) {
    ++answer->calls;
    answer->products = std::move(list);
    answer->error = std::move(error);
  });
  return answer;
}

TEST_F(StoreAppleTest, CountryIsLearnedOnceAndThenAnsweredAtOnce) {
  simulator_->setStorefront("DEU");
  auto store = makeStore();
  auto first = askCountry(*store, kLifetime);
  EXPECT_EQ(store->retainCount(), 1u) << "the request holds the store";
  platform_.runUntilIdle();
  EXPECT_EQ(first->code, "DE");
  EXPECT_EQ(first->error, nullptr);
  EXPECT_EQ(delegate_->countryCodes, std::vector<std::string>{"DE"});
  EXPECT_EQ(store->retainCount(), 0u);

  simulator_->setStorefront("USA");
  auto known = askCountry(*store, "");
  EXPECT_EQ(known->calls, 1) << "a known country is answered inside the call";
  EXPECT_EQ(known->code, "DE");
  EXPECT_EQ(known->error, nullptr);
  EXPECT_EQ(store->retainCount(), 0u) << "and no request is started";
  // A later, different storefront seen in a products answer never replaces the country.
  products(*store);
  EXPECT_EQ(store->countryCode(), "DE");
  EXPECT_EQ(delegate_->countryCodes.size(), 1u);
}

// StoreKit may answer a products request with neither products nor invalid identifiers.
class EmptyProductsBinding final : public StoreKitBinding {
 public:
  explicit EmptyProductsBinding(std::shared_ptr<StoreKitBinding> inner)
      : inner_(std::move(inner)) {}
  std::shared_ptr<SKPaymentQueue> defaultQueue() override { return inner_->defaultQueue(); }
  bool canMakePayments() override { return inner_->canMakePayments(); }
  void startProductsRequest(std::shared_ptr<SKProductsRequest> request) override {
    Platform::current().mainQueue().post([request] {
      auto delegate = std::dynamic_pointer_cast<SKProductsRequestDelegate>(request->delegate());
      if (!delegate) return;
      delegate->productsRequest(request,
                                std::make_shared<SKProductsResponse>(std::vector<SKProductPtr>{},
                                                                     std::vector<std::string>{}));
      delegate->requestDidFinish(request);
    });
  }
  void startReceiptRefreshRequest(std::shared_ptr<SKReceiptRefreshRequest> request) override {
    inner_->startReceiptRefreshRequest(std::move(request));
  }

 private:
  std::shared_ptr<StoreKitBinding> inner_;
};

TEST_F(StoreAppleTest, CountryQueryFailures) {
  auto store = makeStore();
  auto empty = askCountry(*store, "");
  EXPECT_EQ(empty->calls, 1) << "refused inside the call";
  auto invalid = askCountry(*store, "no.such.product");
  platform_.runUntilIdle();
  simulator_->setProductsRequestError(ZBIAPError::make(SKErrorDomain, 0));
  auto failed = askCountry(*store, kLifetime);
  platform_.runUntilIdle();
  expectStoreError(empty->error, ZBIAPStoreErrorInvalidArgument);
  expectStoreError(invalid->error, ZBIAPStoreErrorInvalidArgument);
  expectStoreError(failed->error, ZBIAPStoreErrorOther);
  EXPECT_EQ(failed->error->underlyingError()->domain(), SKErrorDomain);
  for (const auto& answer : {empty, invalid, failed}) EXPECT_FALSE(answer->code);

  // An answer with neither products nor invalid identifiers calls nothing back.
  StoreKitBinding::install(std::make_shared<EmptyProductsBinding>(simulator_));
  auto none = askCountry(*store, kLifetime);
  platform_.runUntilIdle();
  EXPECT_EQ(none->calls, 0);
  EXPECT_TRUE(delegate_->countryCodes.empty());
  EXPECT_EQ(store->retainCount(), 0u);
}

TEST_F(StoreAppleTest, ProductsQuery) {
  auto store = makeStore();
  auto none = askProducts(*store, {});
  auto blank = askProducts(*store, {"", ""});
  EXPECT_EQ(none->calls + blank->calls, 2) << "refused inside the call";
  expectStoreError(none->error, ZBIAPStoreErrorInvalidArgument);
  expectStoreError(blank->error, ZBIAPStoreErrorInvalidArgument);

  auto found = askProducts(*store, {kLifetime, "", "unknown", kMonthly});
  auto allInvalid = askProducts(*store, {"a", "b"});
  platform_.runUntilIdle();
  EXPECT_EQ(found->error, nullptr) << "invalid identifiers beside products";
  ASSERT_EQ(found->products.size(), 2u);
  EXPECT_EQ(found->products[0]->productIdentifier(), kLifetime);
  EXPECT_EQ(found->products[0]->localizedTitle(), "Lifetime Unlock");
  EXPECT_EQ(found->products[0]->priceLocale(), "en_US@currency=USD");
  EXPECT_TRUE(store->canPurchaseProduct(found->products[0]));
  const auto& monthly = found->products[1];
  EXPECT_EQ(
      monthly->subscriptionPeriod(),
      (ZBIAPStoreProductSubscriptionPeriod(1, ZBIAPStoreProductSubscriptionPeriod::Unit::kMonth)));
  EXPECT_EQ(monthly->introductoryPrice()->paymentMode(),
            ZBIAPStoreProductDiscount::kPaymentModeFreeTrial);
  EXPECT_EQ(delegate_->countryCodes, std::vector<std::string>{"US"})
      << "a products answer teaches the country too";
  EXPECT_EQ(allInvalid->calls, 1);
  EXPECT_TRUE(allInvalid->products.empty());
  expectStoreError(allInvalid->error, ZBIAPStoreErrorInvalidArgument);
  EXPECT_EQ(store->retainCount(), 0u);
  EXPECT_TRUE(
      platform_.logContains("The store reported that all 2 product identifiers are invalid"));
}

// The texts of a period, and the country of a price locale (script and currency around it).
TEST(StoreProductTest, PeriodTextsAndCountryOfLocale) {
  using Period = ZBIAPStoreProductSubscriptionPeriod;
  EXPECT_EQ(Period(3, Period::Unit::kDay).description() +
                Period(2, Period::Unit::kWeek).durationString() +
                Period(1, Period::Unit::kMonth).durationString() +
                Period(1, Period::Unit::kYear).description(),
            "P3D2w1mP1Y");
  EXPECT_EQ(countryCodeOfLocale("zh_Hant_TW@currency=TWD"), "TW");
  EXPECT_EQ(countryCodeOfLocale("fr"), "");
  EXPECT_EQ(countryCodeOfLocale("@@@___"), "");
}

TEST_F(StoreAppleTest, DroppedStoreLivesUntilItsRequestsEnd) {
  auto store = makeStore();
  std::weak_ptr<ZBIAPStoreApple> weak = store;
  bool called = false;
  store->queryProducts({kCoins}, [&](auto list, auto) { called = !list.empty(); });
  store.reset();
  EXPECT_FALSE(weak.expired());
  platform_.runUntilIdle();
  EXPECT_TRUE(called);
  EXPECT_TRUE(weak.expired());
}

TEST_F(StoreAppleTest, PurchaseRereadsTheReceiptThenCompletes) {
  auto store = makeStore();
  EXPECT_EQ(parseFailures(), 1u) << "a missing receipt is logged and leaves the store empty";
  EXPECT_FALSE(store->originalPurchaseDate());
  auto product = products(*store)[kLifetime];
  Result result;
  int updatesAtCompletion = -1;
  store->purchaseProduct(product, [&](bool success, ZBIAPErrorPtr error) {
    result = {true, success, error};
    updatesAtCompletion = delegate_->updates;
  });
  EXPECT_FALSE(result.called);
  EXPECT_EQ(store->retainCount(), 1u);
  platform_.runUntilIdle();
  ASSERT_TRUE(result.called);
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.error, nullptr);
  EXPECT_EQ(updatesAtCompletion, 1) << "the delegate hears of the new records first";
  ASSERT_EQ(store->inAppPurchases().size(), 1u);
  EXPECT_EQ(store->inAppPurchases()[0]->productIdentifier(), kLifetime);
  EXPECT_TRUE(store->inAppPurchases()[0]->upgradable());
  EXPECT_EQ(store->originalPurchaseVersion(), "3");
  EXPECT_EQ(store->retainCount(), 0u);
  EXPECT_TRUE(simulator_->transactions().empty()) << "every ended transaction is finished";

  // From now on the file is watched: a receipt written by someone else is picked up.
  writeReceiptBytes(receipt(3), /*inPlace=*/false);
  settle();
  EXPECT_EQ(store->inAppPurchases().size(), 3u);
}

TEST_F(StoreAppleTest, OnePurchaseInFlightPerProduct) {
  simulator_->setOutcome(kLifetime, {Kind::kDefer, nullptr});
  simulator_->setOutcome(kMonthly, {Kind::kDefer, nullptr});
  auto store = makeStore();
  auto all = products(*store);
  Result first, second, other;
  store->purchaseProduct(all[kLifetime], record(first));
  store->purchaseProduct(all[kLifetime], record(second));
  ASSERT_TRUE(second.called) << "refused inside the call";
  EXPECT_FALSE(second.success);
  expectStoreError(second.error, ZBIAPStoreErrorRequestInFlight);
  store->purchaseProduct(all[kCoins], record(other));
  store->purchaseProduct(all[kMonthly], nullptr);  // no completion, still a slot
  Result blocked;
  store->purchaseProduct(all[kMonthly], record(blocked));
  expectStoreError(blocked.error, ZBIAPStoreErrorRequestInFlight);

  platform_.runUntilIdle();
  EXPECT_TRUE(other.called && other.success) << "another product proceeds";
  EXPECT_FALSE(first.called) << "deferred";
  EXPECT_EQ(store->retainCount(), 2u);

  ASSERT_TRUE(simulator_->approveDeferred(kLifetime));
  ASSERT_TRUE(simulator_->declineDeferred(kMonthly));
  platform_.runUntilIdle();
  EXPECT_TRUE(first.called && first.success);
  EXPECT_EQ(store->retainCount(), 0u);
  Result again;
  store->purchaseProduct(all[kMonthly], record(again));
  EXPECT_FALSE(again.called) << "the slot is free again";
  platform_.runUntilIdle();
}

TEST_F(StoreAppleTest, PurchaseFailuresAreWrapped) {
  auto store = makeStore();
  auto all = products(*store);
  simulator_->setOutcome(kCoins, {Kind::kCancel, nullptr});
  simulator_->setOutcome(kMonthly, {Kind::kAlreadySubscribed, nullptr});
  simulator_->setOutcome(kYearly, {Kind::kFail, ZBIAPError::make("Net", 7)});
  StoreProductValues values;
  values.productIdentifier = kLifetime;
  const struct {
    ZBIAPStoreProductPtr product;
    int64_t code;
    std::string underlying;
  } rows[] = {
      {all[kCoins], ZBIAPStoreErrorPaymentCancelled, ""},
      {all[kMonthly], ZBIAPStoreErrorAlreadySubscribed, "SSServerErrorDomain/3532"},
      {all[kYearly], ZBIAPStoreErrorOther, "Net/7"},
      {makeStoreProduct(std::move(values)), ZBIAPStoreErrorInvalidArgument, ""},  // not the store's
      {nullptr, ZBIAPStoreErrorInvalidArgument, ""},
  };
  std::vector<Result> results(std::size(rows));
  for (size_t i = 0; i < std::size(rows); ++i)
    store->purchaseProduct(rows[i].product, record(results[i]));
  platform_.runUntilIdle();
  for (size_t i = 0; i < std::size(rows); ++i) {
    EXPECT_FALSE(results[i].success) << i;
    expectStoreError(results[i].error, rows[i].code);
    const ZBIAPErrorPtr& underlying = results[i].error->underlyingError();
    EXPECT_EQ(underlying ? underlying->domain() + "/" + std::to_string(underlying->code()) : "",
              rows[i].underlying);
  }
  EXPECT_FALSE(store->canPurchaseProduct(rows[3].product));
  EXPECT_FALSE(store->canPurchaseProduct(nullptr));
  simulator_->setCanMakePayments(false);
  Result disabled;
  store->purchaseProduct(all[kLifetime], record(disabled));
  expectStoreError(disabled.error, ZBIAPStoreErrorCannotMakePayments);
  store->purchaseProduct(all[kLifetime], nullptr);  // a null completion is fine
  EXPECT_EQ(store->retainCount(), 0u);
  EXPECT_TRUE(simulator_->transactions().empty()) << "failed transactions are finished too";
  EXPECT_TRUE(store->inAppPurchases().empty());
  // What else the App Store may fail with.
  expectStoreError(ZBIAPStoreApple::wrapError(ZBIAPError::make(SKErrorDomain, 3532)), 6);
  expectStoreError(ZBIAPStoreApple::wrapError(ZBIAPError::make(SSServerErrorDomain, 2)), 6);
  expectStoreError(ZBIAPStoreApple::wrapError(nullptr), 6);
  EXPECT_EQ(ZBIAPStoreApple::wrapError(nullptr)->underlyingError(), nullptr);
}

TEST_F(StoreAppleTest, RestoreResults) {
  auto store = makeStore();
  std::vector<std::pair<ZBIAPStoreRestoreResult, int64_t>> results;
  auto collect = [&](ZBIAPStoreRestoreResult result, ZBIAPErrorPtr error) {
    results.push_back({result, error ? error->code() : 0});
  };
  store->restorePurchasesWithCompletion(collect);
  store->restorePurchasesWithCompletion(collect);  // in flight
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0], std::make_pair(ZBIAPStoreRestoreResultFailed, int64_t{3}));
  platform_.runUntilIdle();
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[1].first, ZBIAPStoreRestoreResultUnchanged);

  // Purchases made elsewhere (the receipt is gone here): the restore brings them.
  Result bought;
  store->purchaseProduct(products(*store)[kLifetime], record(bought));
  platform_.runUntilIdle();
  std::filesystem::remove(receiptURL());
  settle();
  auto fresh = makeStore();
  EXPECT_TRUE(fresh->inAppPurchases().empty());
  fresh->restorePurchasesWithCompletion(collect);
  platform_.runUntilIdle();
  ASSERT_EQ(results.size(), 3u);
  EXPECT_EQ(results[2].first, ZBIAPStoreRestoreResultChanged);
  EXPECT_EQ(fresh->inAppPurchases().size(), 1u);
  fresh->restorePurchasesWithCompletion(collect);
  platform_.runUntilIdle();
  EXPECT_EQ(results[3].first, ZBIAPStoreRestoreResultUnchanged) << "the same records again";

  simulator_->setRestoreError(ZBIAPError::make(SKErrorDomain, 0));
  fresh->restorePurchasesWithCompletion(collect);
  platform_.runUntilIdle();
  ASSERT_EQ(results.size(), 5u);
  EXPECT_EQ(results[4], std::make_pair(ZBIAPStoreRestoreResultFailed, int64_t{6}));
  EXPECT_EQ(fresh->retainCount(), 0u);
  EXPECT_EQ(store->retainCount(), 0u);
}

// The receipt's location is asked of the bundle once and kept: a bundle that later names
// another file does not move the store.
TEST_F(StoreAppleTest, ReceiptLocationIsAskedOnce) {
  auto store = makeStore();
  const std::filesystem::path moved = platform_.makeTempDir("moved") / "receipt";
  platform_.bundle().setAppStoreReceiptURL(moved);
  simulator_->setReceiptURL(moved);
  Result bought;
  store->purchaseProduct(products(*store)[kLifetime], record(bought));
  platform_.runUntilIdle();
  ASSERT_TRUE(std::filesystem::exists(moved));
  EXPECT_TRUE(store->inAppPurchases().empty());
}

TEST_F(StoreAppleTest, RestoreWithoutCompletionDoesNotBlockAndKeepsItsReference) {
  // This store is kept alive for good by design; its receipts go elsewhere so that it never
  // watches a file of this test after the test ends.
  simulator_->setReceiptURL(platform_.makeTempDir("elsewhere") / "receipt");
  auto store = makeStore();
  store->restorePurchasesWithCompletion(nullptr);
  bool called = false;
  store->restorePurchasesWithCompletion([&](ZBIAPStoreRestoreResult result, ZBIAPErrorPtr error) {
    called = true;
    EXPECT_NE(result, ZBIAPStoreRestoreResultFailed);
    EXPECT_EQ(error, nullptr);
  });
  platform_.runUntilIdle();
  EXPECT_TRUE(called);
  EXPECT_EQ(store->retainCount(), 1u) << "a restore without completion is never released";
  std::weak_ptr<ZBIAPStoreApple> weak = store;
  store.reset();
  EXPECT_FALSE(weak.expired());
  // Kept reachable from here on, so that a leak checker sees the designed behaviour as what it
  // is rather than as a leak.
  static auto* const keptForGood = new std::vector<std::shared_ptr<ZBIAPStoreApple>>;
  keptForGood->push_back(weak.lock());
}

TEST_F(StoreAppleTest, ReceiptRefresh) {
  auto store = makeStore();
  Result first, second;
  store->refreshReceiptWithCompletion(record(first));
  store->refreshReceiptWithCompletion(record(second));
  expectStoreError(second.error, ZBIAPStoreErrorRequestInFlight);
  platform_.runUntilIdle();
  EXPECT_TRUE(first.called && first.success);
  EXPECT_EQ(delegate_->updates, 1) << "the first readable receipt is a change";
  EXPECT_EQ(store->retainCount(), 0u);

  simulator_->setReceiptRefreshError(ZBIAPError::make(SKErrorDomain, 0));
  Result failed;
  store->refreshReceiptWithCompletion(record(failed));
  platform_.runUntilIdle();
  EXPECT_FALSE(failed.success);
  expectStoreError(failed.error, ZBIAPStoreErrorOther);
  EXPECT_EQ(store->retainCount(), 0u);
}

TEST_F(StoreAppleTest, ReceiptChangesSeenByTheMonitorReachTheDelegate) {
  writeReceiptBytes(receipt(1));
  auto store = makeStore();
  ASSERT_EQ(store->inAppPurchases().size(), 1u);
  EXPECT_EQ(store->originalPurchaseVersion(), "1");
  EXPECT_EQ(store->originalPurchaseDate(), at(1700000000));
  EXPECT_EQ(delegate_->updates, 0) << "the first read happens before anyone listens";

  writeReceiptBytes(receipt(2), /*inPlace=*/false);  // atomic replacement
  settle();
  EXPECT_EQ(delegate_->updates, 1);
  EXPECT_EQ(store->inAppPurchases().size(), 2u);

  writeReceiptBytes(receipt(3));  // in place
  settle();
  EXPECT_EQ(delegate_->updates, 2);
  EXPECT_EQ(delegate_->lastPurchases.size(), 3u);

  writeReceiptBytes(receipt(3), /*inPlace=*/false);  // same records: no news
  settle();
  EXPECT_EQ(delegate_->updates, 2);

  // Without an original purchase date or version, every read counts as a change, each alone.
  for (bool withDate : {false, true}) {
    const int before = delegate_->updates;
    for (int read = 0; read < 2; ++read) {
      writeReceiptBytes(receipt(3, withDate, !withDate), /*inPlace=*/false);
      settle();
    }
    EXPECT_EQ(delegate_->updates, before + 2) << withDate;
  }
}

TEST_F(StoreAppleTest, UnreadableReceiptsLeaveTheRecordsInPlace) {
  const Data good = receipt(2);
  writeReceiptBytes(good);
  auto store = makeStore();
  const auto before = store->inAppPurchases();
  ASSERT_EQ(before.size(), 2u);

  writeReceiptBytes({});  // an empty file is not even read
  settle();
  EXPECT_EQ(parseFailures(), 0u);

  const Data truncated(good.begin(), good.begin() + static_cast<long>(good.size() / 2));
  const Data garbage(300, 0x5a);
  const Data wrongContent = *writer_->wrap(Data{0x31, 0x03, 0x02, 0x01}, {});
  size_t failures = 0;
  for (const Data* bad : {&truncated, &garbage, &wrongContent}) {
    writeReceiptBytes(*bad, /*inPlace=*/false);
    settle();
    EXPECT_GT(parseFailures(), failures);
    failures = parseFailures();
    EXPECT_EQ(store->inAppPurchases().size(), 2u);
    EXPECT_EQ(store->originalPurchaseVersion(), "1");
  }
  EXPECT_EQ(delegate_->updates, 0);

  // A receipt written in place in two steps: the half is rejected, the whole is taken.
  const Data next = receipt(4);
  writeReceiptBytes(Data(next.begin(), next.begin() + 100));
  settle();
  EXPECT_EQ(store->inAppPurchases().size(), 2u);
  {
    std::ofstream out(receiptURL(), std::ios::binary | std::ios::app);
    out.write(reinterpret_cast<const char*>(next.data()) + 100,
              static_cast<std::streamsize>(next.size() - 100));
  }
  settle();
  EXPECT_EQ(store->inAppPurchases().size(), 4u);
  EXPECT_EQ(delegate_->updates, 1);

  // Deleted, then written anew by someone else: the monitor looks for the missing file every
  // 200 ms of the main queue's clock, and the new receipt counts.
  std::filesystem::remove(receiptURL());
  settle();
  EXPECT_EQ(store->inAppPurchases().size(), 4u) << "deleted";
  EXPECT_EQ(delegate_->updates, 1);
  writeReceiptBytes(receipt(1));
  platform_.advanceBy(std::chrono::milliseconds(250));
  settle();
  EXPECT_EQ(store->inAppPurchases().size(), 1u);
  EXPECT_EQ(delegate_->updates, 2);
}

}  // namespace
}  // namespace zbiap::testing
