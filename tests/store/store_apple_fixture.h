// Shared set-up of the App Store store's tests: a test platform with a virtual-time main queue,
// the StoreKit simulator with the example configuration installed as the StoreKit binding, and
// a recording store delegate.
#ifndef ZBIAP_TESTS_STORE_STORE_APPLE_FIXTURE_H_
#define ZBIAP_TESTS_STORE_STORE_APPLE_FIXTURE_H_

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "testing/test_platform.h"
#include "zbiap/platform/file_watcher.h"
#include "zbiap/store/store_apple.h"
#include "zbiap/storekit/storekit_simulator.h"

namespace zbiap::testing {

inline constexpr char kCoins[] = "com.example.app.coins100";
inline constexpr char kLifetime[] = "com.example.app.lifetime";
inline constexpr char kMonthly[] = "com.example.app.pro.monthly";
inline constexpr char kYearly[] = "com.example.app.pro.yearly";

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

  TestPlatform platform_;
  std::shared_ptr<StoreKitSimulator> simulator_;
  std::shared_ptr<StoreKitBinding> previousBinding_;
  std::shared_ptr<RecordingStoreDelegate> delegate_;
};

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTS_STORE_STORE_APPLE_FIXTURE_H_
