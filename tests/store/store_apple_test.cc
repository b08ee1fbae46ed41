#include "zbiap/store/store_apple.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/store/store_apple_fixture.h"
#include "zbiap/storekit/sk_error.h"

namespace zbiap::testing {
namespace {

using Kind = StoreKitSimulator::Outcome::Kind;

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

TEST_F(StoreAppleTest, CountryIsLearnedOnceAndThenAnsweredAtOnce) {
  simulator_->setStorefront("DEU");
  auto store = makeStore();
  std::optional<std::string> country;
  store->queryStoreCountryWithProductIdentifier(
      kLifetime, [&](std::optional<std::string> code, ZBIAPErrorPtr error) {
        EXPECT_EQ(error, nullptr);
        country = code;
      });
  EXPECT_EQ(store->retainCount(), 1u) << "the request holds the store";
  platform_.runUntilIdle();
  EXPECT_EQ(country, "DE");
  EXPECT_EQ(delegate_->countryCodes, std::vector<std::string>{"DE"});
  EXPECT_EQ(store->retainCount(), 0u);

  simulator_->setStorefront("USA");
  bool answered = false;
  store->queryStoreCountryWithProductIdentifier("", [&](auto code, ZBIAPErrorPtr error) {
    answered = true;
    EXPECT_EQ(code, "DE");
    EXPECT_EQ(error, nullptr);
  });
  EXPECT_TRUE(answered) << "a known country is answered inside the call";
  EXPECT_EQ(store->retainCount(), 0u) << "and no request is started";

  // A later, different storefront seen in a products answer never replaces the country.
  products(*store);
  EXPECT_EQ(store->countryCode(), "DE");
  EXPECT_EQ(delegate_->countryCodes.size(), 1u);
}

// StoreKit may answer a products request with neither products nor invalid identifiers.
class EmptyProductsBinding final : public StoreKitBinding {
 public:
  explicit EmptyProductsBinding(std::shared_ptr<StoreKitBinding> inner) : inner_(std::move(inner)) {}
  std::shared_ptr<SKPaymentQueue> defaultQueue() override { return inner_->defaultQueue(); }
  bool canMakePayments() override { return inner_->canMakePayments(); }
  void startProductsRequest(std::shared_ptr<SKProductsRequest> request) override {
    Platform::current().mainQueue().post([request] {
      auto delegate = std::dynamic_pointer_cast<SKProductsRequestDelegate>(request->delegate());
      if (!delegate) return;
      delegate->productsRequest(request, std::make_shared<SKProductsResponse>(
                                             std::vector<SKProductPtr>{}, std::vector<std::string>{}));
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
  ZBIAPErrorPtr immediate;
  store->queryStoreCountryWithProductIdentifier("", [&](auto code, ZBIAPErrorPtr error) {
    EXPECT_FALSE(code);
    immediate = error;
  });
  expectStoreError(immediate, ZBIAPStoreErrorInvalidArgument);

  ZBIAPErrorPtr invalid;
  store->queryStoreCountryWithProductIdentifier("no.such.product", [&](auto code, auto error) {
    EXPECT_FALSE(code);
    invalid = error;
  });
  platform_.runUntilIdle();
  expectStoreError(invalid, ZBIAPStoreErrorInvalidArgument);
  EXPECT_TRUE(delegate_->countryCodes.empty());

  simulator_->setProductsRequestError(ZBIAPError::make(SKErrorDomain, 0));
  ZBIAPErrorPtr failed;
  store->queryStoreCountryWithProductIdentifier(kLifetime,
                                                [&](auto, auto error) { failed = error; });
  platform_.runUntilIdle();
  expectStoreError(failed, ZBIAPStoreErrorOther);
  ASSERT_NE(failed->underlyingError(), nullptr);
  EXPECT_EQ(failed->underlyingError()->domain(), SKErrorDomain);
  EXPECT_EQ(store->retainCount(), 0u);

  // An answer with neither products nor invalid identifiers calls nothing back.
  StoreKitBinding::install(std::make_shared<EmptyProductsBinding>(simulator_));
  bool called = false;
  store->queryStoreCountryWithProductIdentifier(kLifetime, [&](auto, auto) { called = true; });
  platform_.runUntilIdle();
  EXPECT_FALSE(called);
  EXPECT_TRUE(delegate_->countryCodes.empty());
  EXPECT_EQ(store->retainCount(), 0u);
}

TEST_F(StoreAppleTest, ProductsQuery) {
  auto store = makeStore();
  std::vector<ZBIAPErrorPtr> immediate;
  auto collect = [&](std::vector<ZBIAPStoreProductPtr> list, ZBIAPErrorPtr error) {
    EXPECT_TRUE(list.empty());
    immediate.push_back(error);
  };
  store->queryProducts({}, collect);
  store->queryProducts({"", ""}, collect);
  ASSERT_EQ(immediate.size(), 2u);
  for (const auto& error : immediate) expectStoreError(error, ZBIAPStoreErrorInvalidArgument);

  std::vector<ZBIAPStoreProductPtr> found;
  store->queryProducts({kLifetime, "", "unknown", kMonthly},
                       [&](std::vector<ZBIAPStoreProductPtr> list, ZBIAPErrorPtr error) {
                         EXPECT_EQ(error, nullptr) << "invalid identifiers beside products";
                         found = std::move(list);
                       });
  platform_.runUntilIdle();
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0]->productIdentifier(), kLifetime);
  EXPECT_EQ(found[0]->localizedTitle(), "Lifetime Unlock");
  EXPECT_EQ(found[0]->priceLocale(), "en_US@currency=USD");
  EXPECT_TRUE(store->canPurchaseProduct(found[0]));
  const auto& monthly = found[1];
  EXPECT_EQ(
      monthly->subscriptionPeriod(),
      (ZBIAPStoreProductSubscriptionPeriod(1, ZBIAPStoreProductSubscriptionPeriod::Unit::kMonth)));
  ASSERT_NE(monthly->introductoryPrice(), nullptr);
  EXPECT_EQ(monthly->introductoryPrice()->paymentMode(),
            ZBIAPStoreProductDiscount::kPaymentModeFreeTrial);
  EXPECT_EQ(delegate_->countryCodes, std::vector<std::string>{"US"})
      << "a products answer teaches the country too";

  ZBIAPErrorPtr allInvalid;
  bool called = false;
  store->queryProducts({"a", "b"}, [&](auto list, ZBIAPErrorPtr error) {
    called = true;
    EXPECT_TRUE(list.empty());
    allInvalid = error;
  });
  platform_.runUntilIdle();
  ASSERT_TRUE(called);
  expectStoreError(allInvalid, ZBIAPStoreErrorInvalidArgument);
  EXPECT_EQ(store->retainCount(), 0u);
  EXPECT_TRUE(
      platform_.logContains("The store reported that all 2 product identifiers are invalid"));
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
  Result cancelled, subscribed, failed;
  store->purchaseProduct(all[kCoins], record(cancelled));
  store->purchaseProduct(all[kMonthly], record(subscribed));
  store->purchaseProduct(all[kYearly], record(failed));
  platform_.runUntilIdle();

  EXPECT_FALSE(cancelled.success);
  expectStoreError(cancelled.error, ZBIAPStoreErrorPaymentCancelled);
  EXPECT_EQ(cancelled.error->underlyingError(), nullptr);
  EXPECT_TRUE(cancelled.error->userInfo().empty());
  expectStoreError(subscribed.error, ZBIAPStoreErrorAlreadySubscribed);
  EXPECT_EQ(subscribed.error->underlyingError()->code(), 3532);
  expectStoreError(failed.error, ZBIAPStoreErrorOther);
  EXPECT_EQ(failed.error->underlyingError()->domain(), "Net");
  EXPECT_EQ(store->retainCount(), 0u);
  EXPECT_TRUE(simulator_->transactions().empty()) << "failed transactions are finished too";
  EXPECT_TRUE(store->inAppPurchases().empty());
}

TEST_F(StoreAppleTest, PurchaseArgumentsAndPaymentSwitch) {
  auto store = makeStore();
  auto lifetime = products(*store)[kLifetime];
  StoreProductValues values;
  values.productIdentifier = kLifetime;
  auto foreign = makeStoreProduct(std::move(values));
  Result invalid, disabled, none;
  EXPECT_FALSE(store->canPurchaseProduct(foreign));
  EXPECT_FALSE(store->canPurchaseProduct(nullptr));
  store->purchaseProduct(foreign, record(invalid));
  store->purchaseProduct(nullptr, record(none));
  expectStoreError(invalid.error, ZBIAPStoreErrorInvalidArgument);
  expectStoreError(none.error, ZBIAPStoreErrorInvalidArgument);
  simulator_->setCanMakePayments(false);
  store->purchaseProduct(lifetime, record(disabled));
  expectStoreError(disabled.error, ZBIAPStoreErrorCannotMakePayments);
  store->purchaseProduct(lifetime, nullptr);  // a null completion is fine
  EXPECT_EQ(store->retainCount(), 0u);
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

  simulator_->setRestoreError(ZBIAPError::make(SKErrorDomain, 0));
  fresh->restorePurchasesWithCompletion(collect);
  platform_.runUntilIdle();
  ASSERT_EQ(results.size(), 4u);
  EXPECT_EQ(results[3], std::make_pair(ZBIAPStoreRestoreResultFailed, int64_t{6}));
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

TEST_F(StoreAppleTest, WrapError) {
  auto cancelled = ZBIAPStoreApple::wrapError(ZBIAPError::make(SKErrorDomain, 2));
  expectStoreError(cancelled, 4);
  EXPECT_EQ(cancelled->underlyingError(), nullptr);
  auto subscribed = ZBIAPStoreApple::wrapError(ZBIAPError::make(SSServerErrorDomain, 3532));
  expectStoreError(subscribed, 5);
  EXPECT_EQ(subscribed->underlyingError()->domain(), SSServerErrorDomain);
  expectStoreError(ZBIAPStoreApple::wrapError(ZBIAPError::make(SKErrorDomain, 3532)), 6);
  expectStoreError(ZBIAPStoreApple::wrapError(ZBIAPError::make(SSServerErrorDomain, 2)), 6);
  auto none = ZBIAPStoreApple::wrapError(nullptr);
  expectStoreError(none, 6);
  EXPECT_EQ(none->underlyingError(), nullptr);
  EXPECT_TRUE(none->userInfo().empty());
}

}  // namespace
}  // namespace zbiap::testing
