// zbiap::DevEnvironment: the whole system on one machine, for the demo, for tools, and for a
// host's own integration tests. It makes a temporary app home (a bundle with Info.json and the
// bundled catalogue, the user defaults file, the receipt path), starts the development catalogue
// server (OAuth-checked requests, answers signed with a key made at start) and the account
// server on 127.0.0.1 at ports the kernel picks, the local StoreKit simulator, and a manager over
// a compound store (App Store store first, account store second). Nothing is committed: the
// caller calls manager().commitConfiguration() when it is listening.
//
// Contracts: one at a time per process; it installs its platform and StoreKit binding for its
// lifetime and puts back the previous ones when destroyed, after stopping the servers and
// removing the home. Create, use and destroy it on one thread, the main thread of its event
// loop, which the caller runs (loop().runUntil(...)) to make progress.
#ifndef ZBIAP_DEVSERVER_DEV_ENVIRONMENT_H_
#define ZBIAP_DEVSERVER_DEV_ENVIRONMENT_H_

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

class ZBIAPCompoundStore;
class ZBIAPManager;
class ZBIAPProductInfoV1Fetcher;
class ZBIAPStoreApple;
class ZBIAPStoreMorvane;

namespace zbiap {

class AccountServer;
class CatalogServer;
class EventLoop;
class Platform;
class StoreKitSimulator;

class DevEnvironment {
 public:
  struct Options {
    // The text of a .storekit file; empty: examples/Example.storekit, built in.
    std::string storeKitConfiguration;
    // The catalogue the server answers with and the bundle carries; empty: examples/catalog.json.
    std::string catalog;
    // The simulator's storefront, ISO 3166-1 alpha-3 ("DEU"); empty: the configuration's.
    std::string storefront;
    // The language of the catalogue's texts and of the prices ("de"); empty: the platform's.
    std::string language;
    std::string bundleIdentifier = "com.example.app";
    std::string appVersion = "1.0";
    // The product through which the App Store store learns the country; empty: one that both
    // the catalogue and the StoreKit configuration have, a non-consumable when there is one,
    // else the configuration's first product.
    std::string countryProduct;
    // The account the account store signs in with, and what it holds on the account server.
    std::string accountToken = "dev-user";
    std::vector<std::string> accountProducts = {"com.example.web.pro"};
  };

  // Null, with the reason in `error` when given, if a part cannot be made (an unreadable
  // StoreKit configuration or one without products, a catalogue that is not JSON, no port to
  // bind, no temporary directory).
  static std::unique_ptr<DevEnvironment> create(Options options, std::string* error = nullptr);
  ~DevEnvironment();
  DevEnvironment(const DevEnvironment&) = delete;
  DevEnvironment& operator=(const DevEnvironment&) = delete;

  // examples/Example.storekit as built in.
  static std::string_view exampleStoreKitConfiguration();

  EventLoop& loop();
  Platform& platform();
  const std::filesystem::path& home() const;
  const std::filesystem::path& bundleDirectory() const;
  std::filesystem::path receiptPath() const;
  // The options as given, with the defaults filled in (the country product chosen).
  const Options& options() const;
  // What the StoreKit configuration sets that the simulator does not honour, one line each.
  const std::vector<std::string>& warnings() const;

  StoreKitSimulator& simulator();
  CatalogServer& catalogServer();
  AccountServer& accountServer();
  const std::shared_ptr<ZBIAPStoreApple>& appStore() const;
  const std::shared_ptr<ZBIAPStoreMorvane>& accountStore() const;
  const std::shared_ptr<ZBIAPCompoundStore>& store() const;
  const std::shared_ptr<ZBIAPProductInfoV1Fetcher>& fetcher() const;
  const std::shared_ptr<ZBIAPManager>& manager() const;

 private:
  struct State;
  explicit DevEnvironment(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace zbiap

#endif  // ZBIAP_DEVSERVER_DEV_ENVIRONMENT_H_
