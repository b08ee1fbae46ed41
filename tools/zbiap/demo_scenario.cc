#include "demo_scenario.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "catalog_report.h"
#include "demo_screen.h"
#include "input.h"
#include "zbiap/catalog/key_table.h"
#include "zbiap/devserver/account_server.h"
#include "zbiap/devserver/catalog_server.h"
#include "zbiap/devserver/dev_environment.h"
#include "zbiap/manager/manager.h"
#include "zbiap/platform/event_loop.h"
#include "zbiap/platform/notification_center.h"
#include "zbiap/store/compound_store.h"
#include "zbiap/storekit/storekit_simulator.h"

namespace zbiap::cli {
namespace {

using Clock = std::chrono::steady_clock;

// Bounds every wait: the demo takes a few seconds, and a step that never ends must not hang it.
constexpr auto kStepTimeout = std::chrono::seconds(20);

const char* stateName(int64_t state) {
  switch (state) {
    case ZBIAPManagerStateNotConfigured:
      return "NotConfigured";
    case ZBIAPManagerStateConfiguring:
      return "Configuring";
    case ZBIAPManagerStateReadyNoProductInfos:
      return "ReadyNoProductInfos";
    case ZBIAPManagerStateReadyProductInfos:
      return "ReadyProductInfos";
    case ZBIAPManagerStateReadyStoreProducts:
      return "ReadyStoreProducts";
  }
  return "Unknown";
}

const char* restoreName(ZBIAPStoreRestoreResult result) {
  switch (result) {
    case ZBIAPStoreRestoreResultChanged:
      return "changed";
    case ZBIAPStoreRestoreResultUnchanged:
      return "unchanged";
    case ZBIAPStoreRestoreResultFailed:
      break;
  }
  return "failed";
}

// What the user should know but that does not stop the demo; on standard error, so that
// --json output stays events only.
void warn(const std::string& message) {
  std::fprintf(stderr, "zbiap demo: warning: %s\n", message.c_str());
}

Value errorValue(const ZBIAPErrorPtr& error) {
  return error ? Value(error->description()) : Value::null();
}

class DemoRun {
 public:
  DemoRun(DevEnvironment& env, DemoOutput& out, const DemoOptions& options)
      : env_(env), out_(out), options_(options), manager_(*env.manager()) {}

  int run() {
    watchManager();
    if (!start() || !country() || !storeScreen() || !purchase() || !restore()) return 1;
    summary();
    return 0;
  }

 private:
  // Runs the main queue until `done` holds; false, with an "error" event, on time-out.
  bool waitFor(const std::string& what, const std::function<bool()>& done) {
    if (env_.loop().runUntil(done, kStepTimeout)) return true;
    return fail(what, "no answer within " + std::to_string(kStepTimeout.count()) + " s");
  }

  bool fail(const std::string& step, const std::string& message) {
    out_.event("error", Dictionary{{"step", Value(step)}, {"message", Value(message)}},
               "  error in " + step + ": " + message);
    return false;
  }

  void beginStep(const std::string& title) {
    if (options_.step && step_ > 0 && !out_.json()) {
      std::fprintf(stderr, "  (press Enter to continue)");
      std::string ignored;
      std::getline(std::cin, ignored);
    }
    out_.heading(++step_, title);
  }

  std::vector<std::string> purchases() const {
    std::vector<std::string> ids;
    for (const auto& iap : manager_.inAppPurchases()) ids.push_back(iap->productIdentifier());
    return ids;
  }

  static Value idList(const std::vector<std::string>& ids) {
    return Value(Array(ids.begin(), ids.end()));
  }

  static std::string joined(const std::vector<std::string>& ids) {
    std::string text;
    for (const std::string& id : ids) text += (text.empty() ? "" : ", ") + id;
    return text.empty() ? "(none)" : text;
  }

  // Every state change and notification of the manager, as it happens.
  void watchManager() {
    stateToken_ = manager_.stateObservers().observe([this](int64_t, int64_t state) {
      out_.event("state", Dictionary{{"state", Value(state)}, {"name", Value(stateName(state))}},
                 "  state -> " + std::string(stateName(state)));
    });
    notificationToken_ = NotificationCenter::defaultCenter().addObserver(
        "", &manager_, [this](const Notification& notification) {
          std::string name(notification.name);
          out_.event("notification", Dictionary{{"name", Value(name)}}, "  notification " + name);
        });
  }

  bool start() {
    beginStep("Start-up");
    const std::string language = CatalogLanguage::current();
    out_.event("start",
               Dictionary{{"home", Value(env_.home().string())},
                          {"catalogServer", Value(env_.catalogServer().baseURL())},
                          {"accountServer", Value(env_.accountServer().baseURL())},
                          {"storefront", Value(env_.simulator().storefront())},
                          {"language", Value(language)},
                          {"receipt", Value(env_.receiptPath().string())}},
               "  app home        " + env_.home().string() + "\n  catalogue server " +
                   env_.catalogServer().baseURL() + " (OAuth 1.0, signed answers)\n" +
                   "  account server   " + env_.accountServer().baseURL() + "\n" +
                   "  storefront       " + env_.simulator().storefront() + ", language " +
                   language);
    manager_.commitConfiguration();
    // The bundled copy can make the manager ready with store products before the server has
    // answered; the store screen is to show the server's catalogue, so wait for that answer too,
    // and for the store's products of it.
    if (!waitFor("start-up", [this] {
          return manager_.isReady() && env_.catalogServer().requestCount() > 0 &&
                 !manager_.isQuerying();
        })) {
      return false;
    }
    const std::vector<std::string> unknown = productsTheStoreLacks();
    if (manager_.state() == ZBIAPManagerStateReadyStoreProducts) {
      if (!unknown.empty()) {
        warn("the StoreKit configuration lacks these products of the catalogue: " +
             joined(unknown));
      }
      return true;
    }
    if (!unknown.empty()) {
      std::string message =
          "the StoreKit configuration has none of the catalogue's products: " + joined(unknown);
      if (options_.catalogFile.empty()) {
        message += " (--catalog FILE gives the demo a catalogue of the configuration's products)";
      }
      return fail("start-up", message);
    }
    return fail("start-up", whyNoCatalogue());
  }

  // The active products of the manager's catalogue that the store does not sell.
  std::vector<std::string> productsTheStoreLacks() const {
    std::vector<std::string> sold;
    for (const auto& product : env_.simulator().products()) {
      sold.push_back(product->productIdentifier());
    }
    std::vector<std::string> lacking;
    for (const auto& info : manager_.dynamicProductInfos()) {
      const std::string& id = info->productIdentifier();
      if (info->active() && std::find(sold.begin(), sold.end(), id) == sold.end()) {
        lacking.push_back(id);
      }
    }
    return lacking;
  }

  // Why the manager has nothing to sell when the store lacks none of its products: the
  // fetcher's error, which asking once more brings, or a catalogue without products to sell.
  std::string whyNoCatalogue() {
    if (!manager_.dynamicProductInfos().empty()) {
      return "the catalogue has no active product that the store sells";
    }
    bool answered = false;
    ZBIAPErrorPtr error;
    manager_.refreshDynamicProductInfosWithCompletion([&](ZBIAPErrorPtr e) {
      answered = true;
      error = std::move(e);
    });
    if (!env_.loop().runUntil([&] { return answered; }, kStepTimeout)) {
      return "the catalogue server did not answer";
    }
    if (!error) return "the catalogue has no products";
    return "the app rejects the catalogue: " + errorText(error);
  }

  bool country() {
    beginStep("Country");
    std::optional<std::string> code = manager_.appStoreCountry();
    out_.event("country", Dictionary{{"country", code ? Value(*code) : Value::null()}},
               "  App Store country: " + code.value_or("(unknown)"));
    return code.has_value() || fail("country", "the store gave no country");
  }

  bool storeScreen() {
    beginStep("Store screen");
    showStoreScreen(out_, manager_, CatalogLanguage::current());
    return !storeScreenProducts(manager_).empty() || fail("store screen", "nothing to sell");
  }

  bool purchase() {
    beginStep("Purchase");
    std::shared_ptr<ZBIAPProductInfoV1> chosen;
    for (const auto& info : storeScreenProducts(manager_)) {
      if (!chosen || info->productIdentifier() == env_.options().countryProduct) chosen = info;
    }
    const std::string id = chosen->productIdentifier();
    out_.text("  buying " + id + " for " + chosen->localizedPrice().value_or("?"));
    bool answered = false;
    bool success = false;
    ZBIAPErrorPtr error;
    manager_.configuration()->store()->purchaseProduct(chosen->product(),
                                                       [&](bool ok, ZBIAPErrorPtr e) {
                                                         answered = true;
                                                         success = ok;
                                                         error = std::move(e);
                                                       });
    if (!waitFor("purchase", [&] { return answered; })) return false;
    out_.event(
        "purchase",
        Dictionary{
            {"product", Value(id)}, {"success", Value(success)}, {"error", errorValue(error)}},
        success ? "  purchased " + id : "  purchase failed: " + errorValue(error).description());
    if (!success) return fail("purchase", "the store refused the payment");

    // The simulator writes a new receipt; the store reads it when the file changes.
    auto owned = [&] {
      std::vector<std::string> ids = purchases();
      return std::find(ids.begin(), ids.end(), id) != ids.end();
    };
    if (!waitFor("receipt update", owned)) return false;
    std::error_code ec;
    const auto size = std::filesystem::file_size(env_.receiptPath(), ec);
    out_.event("receipt-update",
               Dictionary{{"purchases", idList(purchases())},
                          {"receiptBytes", Value(static_cast<int64_t>(ec ? 0 : size))}},
               "  receipt re-read (" + std::to_string(ec ? 0 : size) +
                   " bytes); the manager's purchases: " + joined(purchases()));
    return true;
  }

  bool restore() {
    beginStep("Restore");
    out_.text("  asking the App Store and the account server");
    bool answered = false;
    ZBIAPStoreRestoreResult result = ZBIAPStoreRestoreResultFailed;
    ZBIAPErrorPtr error;
    manager_.configuration()->store()->restorePurchasesWithCompletion(
        [&](ZBIAPStoreRestoreResult r, ZBIAPErrorPtr e) {
          answered = true;
          result = r;
          error = std::move(e);
        });
    if (!waitFor("restore", [&] { return answered; })) return false;
    // Let the notices the restore posted reach the manager.
    env_.loop().drain();
    out_.event("restore",
               Dictionary{{"result", Value(restoreName(result))},
                          {"purchases", idList(purchases())},
                          {"error", errorValue(error)}},
               "  restore " + std::string(restoreName(result)) +
                   "; the manager's purchases: " + joined(purchases()));
    return result != ZBIAPStoreRestoreResultFailed ||
           fail("restore", errorValue(error).description());
  }

  void summary() {
    beginStep("Summary");
    size_t authorized = 0;
    for (const auto& request : env_.catalogServer().requests()) authorized += request.authorized;
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - options_.started)
            .count();
    const int64_t state = manager_.state();
    Dictionary fields{
        {"state", Value(stateName(state))},
        {"country",
         manager_.appStoreCountry() ? Value(*manager_.appStoreCountry()) : Value::null()},
        {"products", Value(static_cast<int64_t>(storeScreenProducts(manager_).size()))},
        {"purchases", idList(purchases())},
        {"catalogRequests", Value(static_cast<int64_t>(env_.catalogServer().requestCount()))},
        {"catalogRequestsSigned", Value(static_cast<int64_t>(authorized))},
        {"accountRequests", Value(static_cast<int64_t>(env_.accountServer().requestCount()))},
        {"elapsedMs", Value(static_cast<int64_t>(elapsed))}};
    std::string text = "  state " + std::string(stateName(state)) + ", country " +
                       manager_.appStoreCountry().value_or("?") + ", " +
                       std::to_string(storeScreenProducts(manager_).size()) +
                       " products on sale\n  owned: " + joined(purchases()) + "\n  " +
                       std::to_string(env_.catalogServer().requestCount()) +
                       " catalogue request(s), " + std::to_string(authorized) +
                       " with a valid OAuth signature; " +
                       std::to_string(env_.accountServer().requestCount()) +
                       " account request(s)\n  done in " + std::to_string(elapsed) + " ms";
    out_.event("summary", std::move(fields), text);
  }

  DevEnvironment& env_;
  DemoOutput& out_;
  const DemoOptions& options_;
  ZBIAPManager& manager_;
  int step_ = 0;
  ObserverToken stateToken_;
  ObserverToken notificationToken_;
};

}  // namespace

int runDemo(const DemoOptions& options, DemoOutput& out) {
  DevEnvironment::Options setup;
  setup.language = options.language;
  setup.storefront = options.storefront;
  std::string error;
  auto setupFailed = [&] {
    out.event("error", Dictionary{{"step", Value("setup")}, {"message", Value(error)}},
              "zbiap demo: " + error);
    return 1;
  };
  for (auto [path, target] : {std::pair{&options.storeKitFile, &setup.storeKitConfiguration},
                              std::pair{&options.catalogFile, &setup.catalog}}) {
    if (path->empty()) continue;
    std::optional<std::string> bytes = readInput(*path, &error);
    if (!bytes) return setupFailed();
    *target = std::move(*bytes);
  }
  std::unique_ptr<DevEnvironment> env = DevEnvironment::create(std::move(setup), &error);
  if (!env) return setupFailed();
  for (const std::string& warning : env->warnings()) warn(warning);
  return DemoRun(*env, out, options).run();
}

}  // namespace zbiap::cli
