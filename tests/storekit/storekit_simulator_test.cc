#include "zbiap/storekit/storekit_simulator.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "testing/test_platform.h"
#include "zbiap/receipt/receipt_parser.h"
#include "zbiap/storekit/sk_error.h"

namespace {

namespace fs = std::filesystem;
using zbiap::StoreKitConfiguration;
using zbiap::StoreKitSimulator;
using zbiap::testing::TestPlatform;
using Kind = StoreKitSimulator::Outcome::Kind;

constexpr char kCoins[] = "com.example.app.coins100";
constexpr char kLifetime[] = "com.example.app.lifetime";
constexpr char kMonthly[] = "com.example.app.pro.monthly";
constexpr char kYearly[] = "com.example.app.pro.yearly";

// Everything a transaction observer hears, as text: "purchased com.example...".
class Recorder final : public SKPaymentTransactionObserver, public SKProductsRequestDelegate {
 public:
  void paymentQueue(SKPaymentQueue& queue,
                    const std::vector<SKPaymentTransactionPtr>& transactions) override {
    static const char* kNames[] = {"purchasing", "purchased", "failed", "restored", "deferred"};
    for (const auto& t : transactions) {
      std::string line =
          std::string(kNames[t->transactionState()]) + " " + t->payment()->productIdentifier();
      if (t->error()) line += " " + t->error()->domain() + "/" + std::to_string(t->error()->code());
      events.push_back(line);
      last.push_back(t);
      if (finish && t->transactionState() != SKPaymentTransactionStatePurchasing &&
          t->transactionState() != SKPaymentTransactionStateDeferred) {
        queue.finishTransaction(t);
      }
    }
  }
  void paymentQueueRestoreCompletedTransactionsFinished(SKPaymentQueue&) override {
    events.push_back("restore finished");
  }
  void paymentQueue(SKPaymentQueue&, ZBIAPErrorPtr error) override {
    events.push_back("restore failed " + std::to_string(error->code()));
  }
  void productsRequest(const std::shared_ptr<SKProductsRequest>&,
                       const std::shared_ptr<const SKProductsResponse>& r) override {
    response = r;
    events.push_back("response");
  }
  void requestDidFinish(const std::shared_ptr<SKRequest>&) override {
    events.push_back("finished");
  }

  bool finish = true;
  std::vector<std::string> events;
  std::vector<SKPaymentTransactionPtr> last;
  std::shared_ptr<const SKProductsResponse> response;
};

class StoreKitSimulatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform_.writeInfoDictionary(
        {{"CFBundleIdentifier", "com.example.app"}, {"CFBundleVersion", "42"}});
    auto configuration = StoreKitConfiguration::fromFile(fs::path(ZBIAP_SOURCE_DIR) / "examples" /
                                                         "Example.storekit");
    ASSERT_TRUE(configuration);
    simulator_ = StoreKitSimulator::create(*configuration);
    ASSERT_TRUE(simulator_);
    previous_ = zbiap::StoreKitBinding::install(simulator_);
    recorder_ = std::make_shared<Recorder>();
    simulator_->addTransactionObserver(recorder_);
  }

  void TearDown() override { zbiap::StoreKitBinding::install(previous_); }

  SKProductPtr product(const std::string& id) {
    for (const auto& p : simulator_->products()) {
      if (p->productIdentifier() == id) return p;
    }
    return nullptr;
  }
  void buy(const std::string& id) {
    simulator_->addPayment(SKPayment::paymentWithProduct(product(id)));
  }
  std::shared_ptr<ZBIAPReceiptParser> receipt() {
    return ZBIAPReceiptParser::initWithReceiptURL(simulator_->receiptURL());
  }

  TestPlatform platform_;
  std::shared_ptr<StoreKitSimulator> simulator_;
  std::shared_ptr<zbiap::StoreKitBinding> previous_;
  std::shared_ptr<Recorder> recorder_;
};

// Purchases, deferrals, scripted failures and receipt refreshes are walked through the App
// Store store's tests (tests/store); here what the store does not show.
TEST_F(StoreKitSimulatorTest, AnswersProductsRequestsOnTheMainQueueInTheStorefrontsLocale) {
  auto request = SKProductsRequest::initWithProductIdentifiers({kLifetime, kMonthly, "nope"});
  request->setDelegate(recorder_);
  request->start();
  auto cancelled = SKProductsRequest::initWithProductIdentifiers({kLifetime});
  cancelled->setDelegate(recorder_);
  cancelled->start();
  cancelled->cancel();
  EXPECT_TRUE(recorder_->events.empty()) << "nothing before the main queue runs";
  platform_.runUntilIdle();
  ASSERT_EQ(recorder_->events, (std::vector<std::string>{"response", "finished"}));
  ASSERT_EQ(recorder_->response->products().size(), 2u);
  EXPECT_EQ(recorder_->response->invalidProductIdentifiers(), std::vector<std::string>{"nope"});
  const auto& lifetime = recorder_->response->products()[0];
  EXPECT_EQ(lifetime->localizedTitle(), "Lifetime Unlock");
  EXPECT_EQ(lifetime->priceLocale(), "en_US@currency=USD");
  EXPECT_EQ(lifetime->price(), zbiap::Decimal::fromString("9.99"));
  EXPECT_EQ(recorder_->response->products()[1]->introductoryPrice()->priceLocale,
            "en_US@currency=USD");

  const struct {
    const char *storefront, *locale, *priceLocale, *title;
  } rows[] = {
      {"DEU", "de_DE", "de_DE@currency=EUR", "Dauerhafte Freischaltung"},
      {"FRA", "fr_CA", "fr_FR@currency=EUR", "Déblocage à vie"},  // the language decides
      {"FRA", "ja_JP", "ja_FR@currency=EUR", "Lifetime Unlock"},  // no localization: the first
  };
  for (const auto& row : rows) {
    simulator_->setStorefront(row.storefront);
    simulator_->setLocale(row.locale);
    EXPECT_EQ(product(kLifetime)->priceLocale(), row.priceLocale);
    EXPECT_EQ(product(kLifetime)->localizedTitle(), row.title);
  }
}

TEST_F(StoreKitSimulatorTest, PurchaseWritesTheReceiptAtomically) {
  const fs::path url = simulator_->receiptURL();
  EXPECT_EQ(url, platform_.bundle().appStoreReceiptURL());
  simulator_->setOutcome(kLifetime, {Kind::kCancel, nullptr});
  simulator_->clearOutcome(kLifetime);
  buy(kLifetime);
  SKProductValues unknown;
  unknown.productIdentifier = "unknown.product";
  simulator_->addPayment(
      SKPayment::paymentWithProduct(std::make_shared<const SKProduct>(std::move(unknown))));
  simulator_->setCanMakePayments(false);
  buy(kCoins);
  platform_.runUntilIdle();
  EXPECT_EQ(recorder_->events,
            (std::vector<std::string>{
                "purchasing com.example.app.lifetime", "purchased com.example.app.lifetime",
                "purchasing unknown.product", "failed unknown.product SKErrorDomain/5",
                "purchasing com.example.app.coins100",
                "failed com.example.app.coins100 SKErrorDomain/4"}));
  EXPECT_TRUE(simulator_->transactions().empty()) << "finished by the observer";
  EXPECT_EQ(simulator_->receiptWriteCount(), 1u);
  for (const auto& entry : fs::directory_iterator(url.parent_path())) {
    EXPECT_EQ(entry.path().filename(), "receipt") << "no temporary file is left";
  }
  auto parser = receipt();
  ASSERT_TRUE(parser->isLoaded()) << parser->lastError()->description();
  EXPECT_EQ(parser->bundleIdentifier(), "com.example.app");
  EXPECT_EQ(parser->appVersion(), "42");
  EXPECT_EQ(parser->originalPurchaseVersion(), "42");
  EXPECT_EQ(parser->environment(), "Xcode");
  ASSERT_EQ(parser->inAppPurchases().size(), 1u);
  const ZBIAPReceiptIAPPtr iap = parser->inAppPurchases()[0];
  EXPECT_EQ(iap->productIdentifier(), kLifetime);
  EXPECT_EQ(iap->transactionIdentifier(), *recorder_->last[1]->transactionIdentifier());
  EXPECT_EQ(iap->purchaseDate(), platform_.now());
  EXPECT_FALSE(iap->subscriptionExpirationDate());
}

TEST_F(StoreKitSimulatorTest, SubscriptionsExpireAfterTheirPeriodAtTheTimeRate) {
  const zbiap::Date start = platform_.now();
  buy(kMonthly);  // first in its group: the free week
  platform_.runUntilIdle();
  simulator_->setTimeRate(1);  // one second is one day
  buy(kYearly);
  platform_.runUntilIdle();
  auto parser = receipt();
  ASSERT_EQ(parser->inAppPurchases().size(), 2u);
  EXPECT_EQ(parser->inAppPurchases()[0]->subscriptionExpirationDate(),
            start + std::chrono::hours(24 * 7));
  EXPECT_EQ(parser->inAppPurchases()[1]->subscriptionExpirationDate(),
            start + std::chrono::seconds(365));
  EXPECT_NE(parser->inAppPurchases()[1]->webOrderLineItemID(), 0);

  buy(kMonthly);               // no longer eligible for the introductory offer: a calendar month
  simulator_->setTimeRate(9);  // a rate it does not know: real time
  platform_.runUntilIdle();
  EXPECT_EQ(receipt()->inAppPurchases()[2]->subscriptionExpirationDate(),
            start + std::chrono::hours(24 * 31));
}

TEST_F(StoreKitSimulatorTest, RestoreTellsRestorableTransactionsThenFinishes) {
  buy(kCoins);
  buy(kLifetime);
  buy(kMonthly);
  platform_.runUntilIdle();
  recorder_->events.clear();
  recorder_->last.clear();
  fs::remove(simulator_->receiptURL());

  simulator_->restoreCompletedTransactions();
  platform_.runUntilIdle();
  EXPECT_EQ(recorder_->events,
            (std::vector<std::string>{"restored com.example.app.lifetime",
                                      "restored com.example.app.pro.monthly", "restore finished"}));
  ASSERT_EQ(recorder_->last.size(), 2u);
  ASSERT_TRUE(recorder_->last[0]->originalTransaction());
  EXPECT_NE(recorder_->last[0]->originalTransaction()->transactionIdentifier(),
            recorder_->last[0]->transactionIdentifier());
  EXPECT_TRUE(fs::exists(simulator_->receiptURL())) << "a restore brings the receipt back";
  EXPECT_EQ(receipt()->inAppPurchases().size(), 2u) << "the finished consumable is gone";
  EXPECT_EQ(simulator_->purchaseHistory().size(), 2u);
  simulator_->clearPurchaseHistory();
  simulator_->restoreCompletedTransactions();
  platform_.runUntilIdle();
  EXPECT_EQ(recorder_->events.back(), "restore finished");
  EXPECT_EQ(recorder_->last.size(), 2u) << "nothing more to restore";

  simulator_->setRestoreError(ZBIAPError::make(SKErrorDomain, 0));
  simulator_->restoreCompletedTransactions();
  platform_.runUntilIdle();
  EXPECT_EQ(recorder_->events.back(), "restore failed 0");
}

TEST_F(StoreKitSimulatorTest, UnfinishedTransactionsAreToldToNewObservers) {
  recorder_->finish = false;
  buy(kLifetime);
  platform_.runUntilIdle();
  ASSERT_EQ(simulator_->transactions().size(), 1u);
  auto late = std::make_shared<Recorder>();
  simulator_->addTransactionObserver(late);
  simulator_->addTransactionObserver(late);  // once only
  platform_.runUntilIdle();
  EXPECT_EQ(late->events, std::vector<std::string>{"purchased com.example.app.lifetime"});
  EXPECT_TRUE(simulator_->transactions().empty());

  simulator_->removeTransactionObserver(late.get());
  recorder_.reset();  // a gone observer is skipped
  buy(kCoins);
  platform_.runUntilIdle();
  EXPECT_EQ(late->events.size(), 1u);
}

TEST_F(StoreKitSimulatorTest, UnwritableReceiptIsLoggedNotFatal) {
  const fs::path blocker = platform_.makeTempDir("blocked") / "file";
  { std::ofstream(blocker) << "x"; }
  simulator_->setReceiptURL(blocker / "receipt");
  EXPECT_FALSE(simulator_->writeReceipt());
  EXPECT_TRUE(platform_.logContains("StoreKit simulator: cannot write the receipt at"));
  buy(kLifetime);
  platform_.runUntilIdle();
  EXPECT_EQ(recorder_->events.back(), "purchased com.example.app.lifetime");
}

}  // namespace
