#include "zbiap/devserver/dev_environment.h"

#include <stdlib.h>

#include <fstream>
#include <mutex>
#include <optional>
#include <utility>

#include "devserver/embedded_examples.h"
#include "zbiap/catalog/product_info_v1_fetcher.h"
#include "zbiap/devserver/account_server.h"
#include "zbiap/devserver/catalog_server.h"
#include "zbiap/foundation/json.h"
#include "zbiap/manager/manager.h"
#include "zbiap/manager/manager_configuration.h"
#include "zbiap/platform/linux_platform.h"
#include "zbiap/platform/platform_wrapper.h"
#include "zbiap/store/compound_store.h"
#include "zbiap/store/store_apple.h"
#include "zbiap/store/store_morvane.h"
#include "zbiap/storekit/storekit_configuration.h"
#include "zbiap/storekit/storekit_simulator.h"

namespace zbiap {
namespace {

namespace fs = std::filesystem;

constexpr char kLanguageOverride[] = "ZBIAP_OVERRIDE_LOCALE";
// The fallback country the configuration checks; the manager does not use it.
constexpr char kFallbackCountry[] = "US";

// The default platform with the catalogue language chosen by the environment's options rather
// than by the process's environment.
class DevPlatform final : public PlatformWrapper {
 public:
  DevPlatform(std::shared_ptr<LinuxPlatform> base, std::string language)
      : PlatformWrapper(base), base_(std::move(base)), language_(std::move(language)) {}
  std::optional<std::string> environmentValue(std::string_view name) override {
    if (!language_.empty() && name == kLanguageOverride) return language_;
    return PlatformWrapper::environmentValue(name);
  }
  LinuxPlatform& base() { return *base_; }

 private:
  const std::shared_ptr<LinuxPlatform> base_;
  const std::string language_;
};

// The host side of the account store: the bearer token of the signed-in user, and the list of
// purchases kept in memory between restores.
class AccountHost final : public ZBIAPStoreMorvaneDelegate {
 public:
  explicit AccountHost(std::string token) : token_(std::move(token)) {}
  void store(ZBIAPStoreMorvane&, bool, HeadersCompletion completion) override {
    completion({{"Authorization", "Bearer " + token_}}, nullptr);
  }
  void store(ZBIAPStoreMorvane&, const Array& purchases) override {
    std::lock_guard lock(mutex_);
    saved_ = Value(purchases);
  }
  Value readInAppPurchasesForStore(ZBIAPStoreMorvane&) override {
    std::lock_guard lock(mutex_);
    return saved_;
  }

 private:
  const std::string token_;
  std::mutex mutex_;
  Value saved_;
};

// A product both the catalogue and the StoreKit configuration know, a non-consumable when there
// is one (a purchase of it stays in the receipt), else the configuration's first; empty when
// the configuration has no products.
std::string chooseCountryProduct(const Value& catalog, const StoreKitConfiguration& configuration) {
  using Type = StoreKitConfiguration::ProductType;
  const StoreKitConfiguration::Product* chosen = nullptr;
  if (const Array* products = catalog["products"].asArray()) {
    for (const Value& entry : *products) {
      const std::string* id = entry["identifier"].asString();
      const auto* product = id ? configuration.productWithID(*id) : nullptr;
      if (product && (!chosen || (chosen->type != Type::kNonConsumable &&
                                  product->type == Type::kNonConsumable))) {
        chosen = product;
      }
    }
  }
  if (!chosen && !configuration.products.empty()) chosen = &configuration.products.front();
  return chosen ? chosen->productID : std::string();
}

bool writeFile(const fs::path& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out.flush());
}

}  // namespace

struct DevEnvironment::State {
  Options options;
  std::vector<std::string> warnings;
  fs::path home;
  fs::path bundle;
  std::shared_ptr<DevPlatform> platform;
  std::shared_ptr<Platform> previousPlatform;
  bool platformInstalled = false;
  std::shared_ptr<StoreKitSimulator> simulator;
  std::shared_ptr<StoreKitBinding> previousBinding;
  bool bindingInstalled = false;
  std::unique_ptr<CatalogServer> catalogServer;
  std::unique_ptr<AccountServer> accountServer;
  std::shared_ptr<AccountHost> accountHost;
  std::shared_ptr<ZBIAPStoreApple> appStore;
  std::shared_ptr<ZBIAPStoreMorvane> accountStore;
  std::shared_ptr<ZBIAPCompoundStore> store;
  std::shared_ptr<ZBIAPProductInfoV1Fetcher> fetcher;
  std::shared_ptr<ZBIAPManager> manager;

  // Undoes whatever was done, in reverse order; safe on a half-made state.
  ~State() {
    manager.reset();
    fetcher.reset();
    store.reset();
    accountStore.reset();
    appStore.reset();
    // Tasks the objects posted on their way out hold nothing of the servers; run them while the
    // platform is still installed.
    if (platform) platform->base().eventLoop().drain();
    if (accountServer) accountServer->stop();
    if (catalogServer) catalogServer->stop();
    if (bindingInstalled) StoreKitBinding::install(previousBinding);
    if (platformInstalled) Platform::install(previousPlatform);
    if (!home.empty()) {
      std::error_code ignored;
      fs::remove_all(home, ignored);
    }
  }
};

std::string_view DevEnvironment::exampleStoreKitConfiguration() {
  return embeddedExampleStoreKit();
}

std::unique_ptr<DevEnvironment> DevEnvironment::create(Options options, std::string* error) {
  auto fail = [&](std::string reason) -> std::unique_ptr<DevEnvironment> {
    if (error) *error = std::move(reason);
    return nullptr;
  };
  auto state = std::make_unique<State>();
  State& s = *state;
  if (options.storeKitConfiguration.empty()) {
    options.storeKitConfiguration = embeddedExampleStoreKit();
  }
  if (options.catalog.empty()) options.catalog = embeddedExampleCatalog();

  std::string reason;
  std::optional<StoreKitConfiguration> configuration =
      StoreKitConfiguration::fromJSON(options.storeKitConfiguration, &reason);
  if (!configuration) return fail("the StoreKit configuration: " + reason);
  if (configuration->products.empty()) return fail("the StoreKit configuration has no products");
  std::optional<Value> catalog = parseJSON(options.catalog, &reason);
  if (!catalog) return fail("the catalogue is not JSON: " + reason);
  if (options.countryProduct.empty()) {
    options.countryProduct = chooseCountryProduct(*catalog, *configuration);
  }
  s.options = options;
  s.warnings = configuration->warnings();

  // The app home: bundle (Info.json, the bundled catalogue, the receipt) and user defaults.
  std::string pattern = (fs::temp_directory_path() / "zbiap-dev-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) return fail("cannot make a temporary directory");
  s.home = pattern;
  s.bundle = s.home / "App.bundle";
  std::error_code ec;
  fs::create_directories(s.bundle, ec);
  Dictionary info{{"CFBundleIdentifier", Value(options.bundleIdentifier)},
                  {"CFBundleShortVersionString", Value(options.appVersion)},
                  {"CFBundleVersion", Value(options.appVersion)}};
  if (ec || !writeFile(s.bundle / "Info.json", toJSON(Value(info))) ||
      !writeFile(s.bundle / ZBIAPProductInfoV1Fetcher::kBundleResourceName, options.catalog)) {
    return fail("cannot write the app bundle in " + s.home.string());
  }

  auto base = std::make_shared<LinuxPlatform>(
      LinuxPlatform::Options{s.bundle, s.home / "defaults.sqlite3", 2});
  s.platform = std::make_shared<DevPlatform>(base, options.language);
  s.previousPlatform = Platform::install(s.platform);
  s.platformInstalled = true;

  s.simulator = StoreKitSimulator::create(std::move(*configuration));
  if (!s.simulator) return fail("cannot make the StoreKit simulator's receipt signer");
  if (!options.storefront.empty()) s.simulator->setStorefront(options.storefront);
  if (!options.language.empty()) s.simulator->setLocale(options.language);
  s.previousBinding = StoreKitBinding::install(s.simulator);
  s.bindingInstalled = true;

  s.catalogServer = CatalogServer::create();
  if (!s.catalogServer) return fail("cannot make the catalogue server's RSA key");
  if (!s.catalogServer->setCatalog(options.catalog, &reason)) return fail(reason);
  if (!s.catalogServer->start()) return fail("the catalogue server cannot listen on 127.0.0.1");
  s.accountServer = std::make_unique<AccountServer>();
  if (!s.accountServer->start()) return fail("the account server cannot listen on 127.0.0.1");
  std::vector<AccountServer::Product> held;
  for (const std::string& product : options.accountProducts) {
    held.push_back(AccountServer::Product::make(product, s.platform->now()));
  }
  s.accountServer->setProducts(options.accountToken, std::move(held));

  s.fetcher = ZBIAPProductInfoV1Fetcher::initWithBaseURL(
      s.catalogServer->baseURL(), "application/json", s.catalogServer->consumerKey(),
      s.catalogServer->consumerSecret(), s.catalogServer->publicKeyBase64());
  s.appStore = ZBIAPStoreApple::create();
  s.accountStore = ZBIAPStoreMorvane::initWithBaseURL(s.accountServer->baseURL());
  s.accountHost = std::make_shared<AccountHost>(options.accountToken);
  s.accountStore->setMorvaneStoreDelegate(s.accountHost);
  s.store = ZBIAPCompoundStore::initWithStores({s.appStore, s.accountStore});
  s.manager = ZBIAPManager::initWithConfiguration(ZBIAPManagerConfiguration::initWithStore(
      s.store, options.countryProduct, kFallbackCountry, s.fetcher));
  if (!s.fetcher || !s.manager) return fail("cannot configure the manager");
  return std::unique_ptr<DevEnvironment>(new DevEnvironment(std::move(state)));
}

DevEnvironment::DevEnvironment(std::unique_ptr<State> state) : state_(std::move(state)) {}
DevEnvironment::~DevEnvironment() = default;

EventLoop& DevEnvironment::loop() { return state_->platform->base().eventLoop(); }
Platform& DevEnvironment::platform() { return *state_->platform; }
const fs::path& DevEnvironment::home() const { return state_->home; }
const fs::path& DevEnvironment::bundleDirectory() const { return state_->bundle; }
fs::path DevEnvironment::receiptPath() const {
  return state_->platform->mainBundle().appStoreReceiptURL();
}
const DevEnvironment::Options& DevEnvironment::options() const { return state_->options; }
const std::vector<std::string>& DevEnvironment::warnings() const { return state_->warnings; }
StoreKitSimulator& DevEnvironment::simulator() { return *state_->simulator; }
CatalogServer& DevEnvironment::catalogServer() { return *state_->catalogServer; }
AccountServer& DevEnvironment::accountServer() { return *state_->accountServer; }
const std::shared_ptr<ZBIAPStoreApple>& DevEnvironment::appStore() const {
  return state_->appStore;
}
const std::shared_ptr<ZBIAPStoreMorvane>& DevEnvironment::accountStore() const {
  return state_->accountStore;
}
const std::shared_ptr<ZBIAPCompoundStore>& DevEnvironment::store() const { return state_->store; }
const std::shared_ptr<ZBIAPProductInfoV1Fetcher>& DevEnvironment::fetcher() const {
  return state_->fetcher;
}
const std::shared_ptr<ZBIAPManager>& DevEnvironment::manager() const { return state_->manager; }

}  // namespace zbiap
