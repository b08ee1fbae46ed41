// The compound store over scriptable stores: fan-out joins, answers on other threads, the
// combined purchase list and the reports passed up to its delegate.
#include "zbiap/store/compound_store.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "testing/fake_store.h"

namespace zbiap {
namespace {

using testing::FakeStore;

// A store whose answers wait until the test gives them, on the thread the test chooses.
class ScriptStore final : public ZBIAPStore {
 public:
  std::vector<CountryCompletion> country;
  std::vector<ProductsCompletion> products;
  std::vector<RestoreCompletion> restores;
  std::vector<SuccessCompletion> refreshes;
  std::vector<std::string> countryProducts;
  std::vector<std::vector<std::string>> productQueries;
  std::vector<ZBIAPReceiptIAPPtr> purchases;
  std::optional<Date> originalDate;
  bool sells = false;
  int purchaseCalls = 0;
  std::weak_ptr<ZBIAPStoreDelegate> delegate;
  std::weak_ptr<ZBIAPManager> managerRef;

  bool canPurchaseProduct(const ZBIAPStoreProductPtr&) override { return sells; }
  void queryStoreCountryWithProductIdentifier(const std::string& product,
                                              CountryCompletion completion) override {
    countryProducts.push_back(product);
    country.push_back(std::move(completion));
  }
  void queryProducts(const std::vector<std::string>& ids, ProductsCompletion completion) override {
    productQueries.push_back(ids);
    products.push_back(std::move(completion));
  }
  void purchaseProduct(const ZBIAPStoreProductPtr&, SuccessCompletion completion) override {
    ++purchaseCalls;
    if (completion) completion(true, nullptr);
  }
  void restorePurchasesWithCompletion(RestoreCompletion completion) override {
    restores.push_back(std::move(completion));
  }
  void refreshReceiptWithCompletion(SuccessCompletion completion) override {
    refreshes.push_back(std::move(completion));
  }
  std::shared_ptr<ZBIAPStoreDelegate> storeDelegate() const override { return delegate.lock(); }
  void setStoreDelegate(std::weak_ptr<ZBIAPStoreDelegate> d) override { delegate = d; }
  std::shared_ptr<ZBIAPManager> manager() const override { return managerRef.lock(); }
  void setManager(std::weak_ptr<ZBIAPManager> m) override { managerRef = m; }
  std::optional<Date> originalPurchaseDate() const override { return originalDate; }
  std::optional<std::string> originalPurchaseVersion() const override { return "7"; }
  // Run once inside the next read, after the list to return was taken.
  mutable std::function<void()> onRead;
  std::vector<ZBIAPReceiptIAPPtr> inAppPurchases() const override {
    std::vector<ZBIAPReceiptIAPPtr> list = purchases;
    if (onRead) std::exchange(onRead, nullptr)();
    return list;
  }
};

class Recorder final : public ZBIAPStoreDelegate {
 public:
  std::shared_ptr<ZBIAPCompoundStore> compound;
  std::vector<std::string> countries;
  std::vector<size_t> purchaseCounts;
  std::vector<ZBIAPReceiptIAPPtr> inAppPurchases() const override { return {}; }
  void store(ZBIAPStore&, const std::optional<std::string>& code) override {
    countries.push_back(code.value_or("(none)"));
    // As the manager does: a country starts a catalogue query, whose request body lists the
    // purchases. The notice comes with the compound's lock held; the read must not deadlock.
    if (compound) purchasesAtCountry.push_back(compound->inAppPurchases().size());
  }
  std::vector<size_t> purchasesAtCountry;
  void storeDidUpdateInformations(ZBIAPStore& store) override {
    // The compound store's lock is released by now: reading it back must not deadlock.
    purchaseCounts.push_back(compound ? compound->inAppPurchases().size()
                                      : store.inAppPurchases().size());
  }
};

// Runs `f` on a thread of its own and waits for it.
template <typename F>
std::thread::id onOtherThread(F f) {
  std::thread::id id;
  std::thread thread([&] {
    id = std::this_thread::get_id();
    f();
  });
  thread.join();
  return id;
}

ZBIAPReceiptIAPPtr iap(const std::string& product) {
  return ZBIAPReceiptIAP::initWithProductIdentifier(product, 1, "t", std::nullopt, Date::fromMicrosSince1970(0),
                                 std::nullopt, std::nullopt, std::nullopt, 0, false);
}

class CompoundStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    compound_ = ZBIAPCompoundStore::initWithStores({first_, second_});
    recorder_->compound = compound_;
    compound_->setStoreDelegate(recorder_);
  }
  void TearDown() override {
    recorder_->compound.reset();
    // The scripted stores keep every completion they were given, and a compound restore's
    // completions hold their store: drop them, or each store would keep itself alive.
    first_->restores.clear();
    second_->restores.clear();
  }

  std::shared_ptr<ScriptStore> first_ = std::make_shared<ScriptStore>();
  std::shared_ptr<ScriptStore> second_ = std::make_shared<ScriptStore>();
  std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>();
  std::shared_ptr<ZBIAPCompoundStore> compound_;
};

TEST(CompoundStoreEmptyTest, NoStoresNeverAnswersFannedCallsAndCannotSell) {
  auto compound = ZBIAPCompoundStore::initWithStores({});
  int calls = 0;
  compound->queryStoreCountryWithProductIdentifier("p", [&](auto, auto) { ++calls; });
  compound->queryProducts({"p"}, [&](auto, auto) { ++calls; });
  compound->restorePurchasesWithCompletion([&](auto, auto) { ++calls; });
  compound->refreshReceiptWithCompletion([&](auto, auto) { ++calls; });
  compound->restoreCompoundPurchasesWithCompletion([&](auto) { ++calls; });
  EXPECT_EQ(calls, 0);
  EXPECT_FALSE(compound->originalPurchaseDate());
  EXPECT_FALSE(compound->originalPurchaseVersion());
  EXPECT_FALSE(compound->canPurchaseProduct(FakeStore::makeProduct("p")));
  EXPECT_TRUE(compound->inAppPurchases().empty());
  ZBIAPErrorPtr error;
  bool success = true;
  compound->purchaseProduct(FakeStore::makeProduct("p"), [&](bool ok, ZBIAPErrorPtr e) {
    success = ok;
    error = e;
  });
  EXPECT_FALSE(success);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), ZBIAPStoreErrorDomain);
  EXPECT_EQ(error->code(), ZBIAPStoreErrorInvalidArgument);
  EXPECT_TRUE(error->userInfo().empty());
}

TEST_F(CompoundStoreTest, CountryIsTheFirstStoresOnceBothAnswered) {
  std::optional<std::string> result;
  std::thread::id answeredOn;
  int calls = 0;
  compound_->queryStoreCountryWithProductIdentifier("com.example.p", [&](auto code, auto error) {
    ++calls;
    result = code;
    answeredOn = std::this_thread::get_id();
    EXPECT_EQ(error, nullptr);
  });
  EXPECT_EQ(first_->countryProducts, std::vector<std::string>{"com.example.p"});
  EXPECT_EQ(second_->countryProducts, std::vector<std::string>{"com.example.p"});
  second_->country[0]("US", nullptr);
  EXPECT_EQ(calls, 0);
  std::thread::id last = onOtherThread([&] { first_->country[0]("DE", nullptr); });
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(result, "DE");
  EXPECT_EQ(answeredOn, last);

  // Only the first store's country counts, and any error fails the query.
  compound_->queryStoreCountryWithProductIdentifier("p", [&](auto code, auto error) {
    ++calls;
    EXPECT_FALSE(code);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), 42);
  });
  first_->country[1]("DE", nullptr);
  second_->country[1](std::nullopt, ZBIAPError::make("X", 42));
  EXPECT_EQ(calls, 2);

  compound_->queryStoreCountryWithProductIdentifier("p", [&](auto code, auto error) {
    ++calls;
    EXPECT_FALSE(code);
    EXPECT_FALSE(error);
  });
  first_->country[2](std::nullopt, nullptr);
  second_->country[2]("US", nullptr);
  EXPECT_EQ(calls, 3);
}

TEST_F(CompoundStoreTest, ProductsJoinInAnswerOrderAndOneFailureDropsThem) {
  std::vector<std::string> ids;
  ZBIAPErrorPtr error;
  int calls = 0;
  auto collect = [&](std::vector<ZBIAPStoreProductPtr> products, ZBIAPErrorPtr e) {
    ++calls;
    ids.clear();
    for (const auto& p : products) ids.push_back(p->productIdentifier());
    error = e;
  };
  compound_->queryProducts({"a", "b"}, collect);
  EXPECT_EQ(second_->productQueries[0], (std::vector<std::string>{"a", "b"}));
  second_->products[0]({FakeStore::makeProduct("b")}, nullptr);
  first_->products[0]({FakeStore::makeProduct("a")}, nullptr);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(ids, (std::vector<std::string>{"b", "a"}));
  EXPECT_EQ(error, nullptr);

  auto failure = ZBIAPError::make(ZBIAPStoreErrorDomain, 6);
  compound_->queryProducts({"a"}, collect);
  first_->products[1]({FakeStore::makeProduct("a")}, nullptr);
  second_->products[1]({}, failure);
  EXPECT_EQ(calls, 2);
  EXPECT_TRUE(ids.empty());
  EXPECT_EQ(error, failure) << "passed through unchanged, not wrapped";
}

TEST_F(CompoundStoreTest, RestoreJoinsResultsAndPassesTheLastError) {
  struct Case {
    ZBIAPStoreRestoreResult a, b, joined;
  };
  const Case cases[] = {
      {ZBIAPStoreRestoreResultUnchanged, ZBIAPStoreRestoreResultChanged,
       ZBIAPStoreRestoreResultChanged},
      {ZBIAPStoreRestoreResultChanged, ZBIAPStoreRestoreResultFailed,
       ZBIAPStoreRestoreResultFailed},
      {ZBIAPStoreRestoreResultFailed, ZBIAPStoreRestoreResultChanged,
       ZBIAPStoreRestoreResultFailed},
      {ZBIAPStoreRestoreResultUnchanged, ZBIAPStoreRestoreResultUnchanged,
       ZBIAPStoreRestoreResultUnchanged},
  };
  size_t index = 0;
  for (const Case& c : cases) {
    int calls = 0;
    ZBIAPStoreRestoreResult joined = ZBIAPStoreRestoreResultFailed;
    compound_->restorePurchasesWithCompletion([&](auto result, auto) {
      ++calls;
      joined = result;
    });
    first_->restores[index](c.a, nullptr);
    onOtherThread([&] { second_->restores[index](c.b, nullptr); });
    ++index;
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(joined, c.joined) << c.a << " " << c.b;
  }

  // An error comes through even beside a success; a later error replaces an earlier one.
  auto early = ZBIAPError::make("E", 1);
  auto late = ZBIAPError::make("E", 2);
  std::vector<std::pair<ZBIAPStoreRestoreResult, ZBIAPErrorPtr>> seen;
  compound_->restorePurchasesWithCompletion([&](auto r, auto e) { seen.emplace_back(r, e); });
  second_->restores[index](ZBIAPStoreRestoreResultChanged, early);
  first_->restores[index](ZBIAPStoreRestoreResultUnchanged, late);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].first, ZBIAPStoreRestoreResultChanged);
  EXPECT_EQ(seen[0].second, late);
}

TEST_F(CompoundStoreTest, RefreshSucceedsOnlyWhenAllDoAndKeepsAnError) {
  std::vector<std::pair<bool, ZBIAPErrorPtr>> seen;
  auto record = [&](bool ok, ZBIAPErrorPtr e) { seen.emplace_back(ok, e); };
  auto error = ZBIAPError::make("E", 9);
  compound_->refreshReceiptWithCompletion(record);
  first_->refreshes[0](true, error);
  second_->refreshes[0](true, nullptr);
  compound_->refreshReceiptWithCompletion(record);
  first_->refreshes[1](true, nullptr);
  second_->refreshes[1](false, nullptr);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_TRUE(seen[0].first);
  EXPECT_EQ(seen[0].second, error);
  EXPECT_FALSE(seen[1].first);
}

TEST_F(CompoundStoreTest, CompoundRestoreReportsEachStoreInAnswerOrder) {
  std::vector<ZBIAPCompoundStoreResultPtr> results;
  int calls = 0;
  compound_->restoreCompoundPurchasesWithCompletion([&](auto r) {
    ++calls;
    results = r;
  });
  auto error = ZBIAPError::make("E", 3);
  second_->restores[0](ZBIAPStoreRestoreResultFailed, error);
  EXPECT_EQ(calls, 0);
  first_->restores[0](ZBIAPStoreRestoreResultChanged, nullptr);
  ASSERT_EQ(calls, 1);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0]->store(), second_);
  EXPECT_EQ(results[0]->result(), ZBIAPStoreRestoreResultFailed);
  EXPECT_EQ(results[0]->error(), error);
  EXPECT_EQ(results[1]->store(), first_);
  EXPECT_EQ(results[1]->result(), ZBIAPStoreRestoreResultChanged);
  EXPECT_EQ(results[1]->error(), nullptr);
}

TEST_F(CompoundStoreTest, PurchaseGoesToTheFirstStoreThatSells) {
  auto product = FakeStore::makeProduct("p");
  EXPECT_FALSE(compound_->canPurchaseProduct(product));
  second_->sells = true;
  EXPECT_TRUE(compound_->canPurchaseProduct(product));
  bool ok = false;
  compound_->purchaseProduct(product, [&](bool success, ZBIAPErrorPtr) { ok = success; });
  EXPECT_TRUE(ok);
  EXPECT_EQ(second_->purchaseCalls, 1);
  first_->sells = true;
  compound_->purchaseProduct(product, nullptr);
  EXPECT_EQ(first_->purchaseCalls, 1);
  EXPECT_EQ(second_->purchaseCalls, 1);
}

TEST_F(CompoundStoreTest, StoresAreWiredAndFirstStoreDataCounts) {
  EXPECT_EQ(first_->storeDelegate().get(), compound_.get());
  EXPECT_EQ(second_->storeDelegate().get(), compound_.get());
  first_->originalDate = Date::fromMicrosSince1970(5);
  EXPECT_EQ(compound_->originalPurchaseDate(), Date::fromMicrosSince1970(5));
  EXPECT_EQ(compound_->originalPurchaseVersion(), "7");
  auto manager = std::shared_ptr<ZBIAPManager>();
  compound_->setManager(manager);
  EXPECT_EQ(first_->manager(), nullptr);
}

TEST_F(CompoundStoreTest, PurchasesOfAllStoresAreListedInStoreOrder) {
  auto a = std::make_shared<ScriptStore>();
  auto b = std::make_shared<ScriptStore>();
  a->purchases = {iap("shared"), iap("only.a")};
  b->purchases = {iap("shared")};
  auto compound = ZBIAPCompoundStore::initWithStores({a, b});
  std::vector<std::string> ids;
  for (const auto& p : compound->inAppPurchases()) ids.push_back(p->productIdentifier());
  EXPECT_EQ(ids, (std::vector<std::string>{"shared", "only.a", "shared"}));

  // A report replaces that store's part only, and is passed up after the lock is released.
  second_->purchases = {iap("x")};
  compound_->storeDidUpdateInformations(*second_);
  first_->purchases = {iap("y"), iap("z")};
  compound_->storeDidUpdateInformations(*first_);
  EXPECT_EQ(recorder_->purchaseCounts, (std::vector<size_t>{1, 3}));
  ids.clear();
  for (const auto& p : compound_->inAppPurchases()) ids.push_back(p->productIdentifier());
  EXPECT_EQ(ids, (std::vector<std::string>{"y", "z", "x"}));
}

// Two notices of one store race: the first read the older list, and the second ran whole
// before the first wrote it. The compound still ends with the store's current list.
TEST_F(CompoundStoreTest, RacingNoticesOfOneStoreLeaveItsLatestList) {
  first_->purchases = {iap("old")};
  first_->onRead = [this] {
    first_->purchases = {iap("new")};
    compound_->storeDidUpdateInformations(*first_);
  };
  compound_->storeDidUpdateInformations(*first_);
  ASSERT_EQ(compound_->inAppPurchases().size(), 1u);
  EXPECT_EQ(compound_->inAppPurchases()[0]->productIdentifier(), "new");
}

TEST_F(CompoundStoreTest, CountryIsPassedUpOnlyOnceEveryStoreReported) {
  compound_->store(*second_, "US");
  EXPECT_TRUE(recorder_->countries.empty());
  compound_->store(*first_, "DE");
  EXPECT_EQ(recorder_->countries, std::vector<std::string>{"DE"});
  compound_->store(*second_, "FR");
  EXPECT_EQ(recorder_->countries, (std::vector<std::string>{"DE", "DE"}));
  compound_->store(*first_, "AT");
  EXPECT_EQ(recorder_->countries, (std::vector<std::string>{"DE", "DE", "AT"}));
  EXPECT_EQ(recorder_->purchasesAtCountry.size(), 3u);
  // A store that no longer knows its country leaves the map: nothing goes up until it reports.
  compound_->store(*second_, std::nullopt);
  compound_->store(*first_, "CH");
  EXPECT_EQ(recorder_->countries.size(), 3u);
  compound_->store(*second_, "US");
  EXPECT_EQ(recorder_->countries.back(), "CH");
}

}  // namespace
}  // namespace zbiap
