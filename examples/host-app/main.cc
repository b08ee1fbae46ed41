// host-app STOREKIT_FILE [CATALOG_JSON]: the smallest application over zbiap. It runs the
// default Linux platform on a temporary bundle, the local StoreKit simulator configured from
// STOREKIT_FILE, and a manager over the App Store store whose catalogue comes from the server
// named by ZBIAP_CATALOG_URL (with ZBIAP_CONSUMER_KEY, ZBIAP_CONSUMER_SECRET and
// ZBIAP_PUBLIC_KEY, as `zbiap serve` prints them), or else from CATALOG_JSON as the bundle copy.
// With ZBIAP_ACCOUNT_URL (and ZBIAP_ACCOUNT_TOKEN, the user's bearer token) the manager's store
// is a compound of the App Store and the vendor's account server, and after start-up the app
// restores the account's purchases and prints them. It waits until the manager is ready, prints
// its state and catalogue, and exits: 0 when the manager became ready (and the restore, when
// asked for, succeeded), 1 otherwise, 2 on bad usage.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "zbiap/catalog/product_info.h"
#include "zbiap/catalog/product_info_v1_fetcher.h"
#include "zbiap/manager/manager.h"
#include "zbiap/manager/manager_configuration.h"
#include "zbiap/platform/linux_platform.h"
#include "zbiap/store/compound_store.h"
#include "zbiap/store/store_apple.h"
#include "zbiap/store/store_morvane.h"
#include "zbiap/storekit/storekit_binding.h"
#include "zbiap/storekit/storekit_configuration.h"
#include "zbiap/storekit/storekit_simulator.h"
#include "zbiap/zbiap.h"

namespace {

std::string env(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : fallback;
}

// What the account store needs of the app: the headers that sign the user in (asked again,
// with isRetrying, after the server refused them with 401), and a place for the last list of
// the account's purchases. This app keeps the list in memory; a real one keeps it where it
// keeps the user's other data, so that the list is there at the next launch before the server
// answers.
class AccountDelegate final : public ZBIAPStoreMorvaneDelegate {
 public:
  explicit AccountDelegate(std::string token) : token_(std::move(token)) {}
  void store(ZBIAPStoreMorvane&, bool /*isRetrying*/, HeadersCompletion completion) override {
    completion({{"Authorization", "Bearer " + token_}}, nullptr);
  }
  void store(ZBIAPStoreMorvane&, const zbiap::Array& purchases) override { saved_ = purchases; }
  zbiap::Value readInAppPurchasesForStore(ZBIAPStoreMorvane&) override {
    return saved_ ? zbiap::Value(*saved_) : zbiap::Value();
  }

 private:
  std::string token_;
  std::optional<zbiap::Array> saved_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(stderr, "usage: host-app STOREKIT_FILE [CATALOG_JSON]\n");
    return 2;
  }
  namespace fs = std::filesystem;
  std::error_code error;
  fs::path bundle = fs::temp_directory_path() / ("zbiap-host-app-" + std::to_string(getpid()));
  fs::create_directories(bundle, error);
  std::ofstream(bundle / "Info.json") << R"({"CFBundleIdentifier":"com.example.app",)"
                                      << R"("CFBundleShortVersionString":"1.0"})";
  if (argc == 3) fs::copy_file(argv[2], bundle / "ZBIAPPInfos", error);

  int status = 1;
  {
    auto platform = std::make_shared<zbiap::LinuxPlatform>(
        zbiap::LinuxPlatform::Options{bundle, bundle / "defaults.sqlite", 2});
    zbiap::Platform::install(platform);

    auto configuration = zbiap::StoreKitConfiguration::fromFile(argv[1]);
    auto simulator = configuration ? zbiap::StoreKitSimulator::create(*configuration) : nullptr;
    if (simulator == nullptr) {
      std::fprintf(stderr, "host-app: %s is not a StoreKit configuration\n", argv[1]);
      zbiap::Platform::install(nullptr);
      fs::remove_all(bundle, error);
      return 1;
    }
    zbiap::StoreKitBinding::install(simulator);

    auto fetcher = ZBIAPProductInfoV1Fetcher::initWithBaseURL(
        env("ZBIAP_CATALOG_URL", "http://127.0.0.1:9"), "application/json",
        env("ZBIAP_CONSUMER_KEY", "host-app"), env("ZBIAP_CONSUMER_SECRET", ""),
        std::getenv("ZBIAP_PUBLIC_KEY")
            ? std::optional<std::string>(std::getenv("ZBIAP_PUBLIC_KEY"))
            : std::nullopt);
    std::shared_ptr<ZBIAPStore> store = ZBIAPStoreApple::create();
    // The account store holds its delegate weakly: the app keeps it.
    auto accountDelegate = std::make_shared<AccountDelegate>(env("ZBIAP_ACCOUNT_TOKEN", ""));
    const std::string accountURL = env("ZBIAP_ACCOUNT_URL", "");
    if (!accountURL.empty()) {
      auto account = ZBIAPStoreMorvane::initWithBaseURL(accountURL);
      account->setMorvaneStoreDelegate(accountDelegate);
      store = ZBIAPCompoundStore::initWithStores({store, account});
    }
    auto manager = ZBIAPManager::initWithConfiguration(
        ZBIAPManagerConfiguration::initWithStore(store, "com.example.app.lifetime", "US", fetcher));
    if (manager == nullptr) return 1;
    manager->commitConfiguration();

    zbiap::EventLoop& loop = platform->eventLoop();
    // Ready once the first catalogue query has ended; the store products follow a catalogue.
    bool ready = loop.runUntil([&] { return manager->isReady(); }, std::chrono::seconds(20));
    if (ready && !manager->dynamicProductInfos().empty()) {
      loop.runUntil([&] { return manager->state() == ZBIAPManagerStateReadyStoreProducts; },
                    std::chrono::seconds(10));
    }
    std::printf("zbiap %.1f\n", ZBIAPVersionNumber);
    std::printf("state: %lld\n", static_cast<long long>(manager->state()));
    std::printf("country: %s\n", manager->appStoreCountry().value_or("(unknown)").c_str());
    for (const auto& info : manager->dynamicProductInfos()) {
      auto product = std::dynamic_pointer_cast<ZBIAPProductInfoV1>(info);
      std::printf("  %s\n",
                  product ? product->description().c_str() : info->productIdentifier().c_str());
    }
    status = ready ? 0 : 1;

    if (ready && !accountURL.empty()) {
      bool restored = false;
      ZBIAPErrorPtr restoreError;
      store->restorePurchasesWithCompletion([&](ZBIAPStoreRestoreResult, ZBIAPErrorPtr error) {
        restoreError = std::move(error);
        restored = true;
      });
      // The manager hears of the new purchases through the store; give it the same turn.
      loop.runUntil([&] { return restored; }, std::chrono::seconds(20));
      loop.drain();
      std::printf("restore: %s\n", !restored     ? "no answer"
                                    : restoreError ? restoreError->description().c_str()
                                                   : "done");
      for (const auto& purchase : manager->inAppPurchases()) {
        std::printf("  purchase %s\n", purchase->productIdentifier().c_str());
      }
      if (!restored || restoreError) status = 1;
    }

    manager.reset();
    store.reset();
    accountDelegate.reset();
    loop.drain();
    zbiap::StoreKitBinding::install(nullptr);
    zbiap::Platform::install(nullptr);
  }
  fs::remove_all(bundle, error);
  return status;
}
