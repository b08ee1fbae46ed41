// zbiap_scenario: runs the real manager, with real user defaults on the virtual clock, through
// scenario files and prints what happens, one event a line. docs/testing.md describes the file
// format and the trace. `zbiap_scenario FILE...` prints the traces; `--check` compares each with
// the file's "trace" and exits 1 on a difference; `--update` writes the run's trace into the file.
#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "testing/fake_fetcher.h"
#include "testing/fake_store.h"
#include "testing/test_platform.h"
#include "zbiap/foundation/json.h"
#include "zbiap/manager/manager.h"
#include "zbiap/platform/notification_center.h"
#include "zbiap/platform/platform_wrapper.h"

namespace zbiap::testing {
namespace {

constexpr char kProductsKey[] = "ZBIAPProductInfos";
constexpr char kFeaturesKey[] = "ZBIAPBaselineFeatureMetadata";

struct ScenarioError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

const std::string& text(const Value& value, std::string_view what) {
  if (!value.isString()) throw ScenarioError(fmt::format("{} must be a string", what));
  return *value.asString();
}
const Array& array(const Value& value, std::string_view what) {
  if (!value.isArray()) throw ScenarioError(fmt::format("{} must be an array", what));
  return *value.asArray();
}
// A list that may be left out.
const Array& list(const Value& value, std::string_view what) {
  static const Array kNone;
  return value.isNil() ? kNone : array(value, what);
}
double seconds(const Value& value, std::string_view what) {
  std::optional<double> number = value.isNumber() ? value.doubleValue() : std::nullopt;
  if (!number || *number < 0 || *number > 1e7) {
    throw ScenarioError(fmt::format("{} must be a number of seconds", what));
  }
  return *number;
}
std::optional<std::string> codeOrNone(const Value& value, std::string_view what) {
  if (value.isNil() || value.isNull()) return std::nullopt;
  return text(value, what);
}
// An empty text as "" so that it shows.
std::string shown(const std::string& text) { return text.empty() ? "\"\"" : text; }

// ---- Short forms: "id", "id:Title", "-id" (inactive) for a catalogue product; "id" for a
// feature; "id@price" for a store product; "id", "-id" (not upgradable), "id#tx" for a purchase.

Value productFrom(const Value& value) {
  if (value.isDictionary()) return value;
  std::string id = text(value, "a product");
  const bool inactive = !id.empty() && id[0] == '-';
  if (inactive) id.erase(0, 1);
  const size_t colon = id.find(':');
  const std::string title = colon == std::string::npos ? id : id.substr(colon + 1);
  return Value(productDictionary(id.substr(0, colon), title, inactive));
}

Value featureFrom(const Value& value) {
  if (value.isDictionary()) return value;
  return Value(Dictionary{{"identifier", Value(text(value, "a feature"))}});
}

// The short form of a saved or answered dictionary when it has one, else its JSON.
std::string shortForm(const Value& value) {
  const Dictionary* dictionary = value.asDictionary();
  const std::string* id = dictionary ? value["identifier"].asString() : nullptr;
  if (id && dictionary->size() == 1) return *id;
  if (id && dictionary->size() == 4 && value["title"].isString() && value["inactive"].isBoolean() &&
      value["sort_key"] == Value(1)) {
    const std::string& title = *value["title"].asString();
    return (*value["inactive"].boolValue() ? "-" : "") + *id + (title == *id ? "" : ":" + title);
  }
  return toJSON(value);
}

ZBIAPStoreProductPtr storeProductFrom(const Value& value) {
  const std::string& id = text(value, "a store product");
  const size_t at = id.find('@');
  if (at == std::string::npos) return FakeStore::makeProduct(id);
  return FakeStore::makeProduct(id.substr(0, at), id.substr(at + 1));
}

std::vector<ZBIAPStoreProductPtr> storeProductsFrom(const Value& value) {
  std::vector<ZBIAPStoreProductPtr> products;
  for (const Value& item : array(value, "a product list"))
    products.push_back(storeProductFrom(item));
  return products;
}

std::string describe(const ZBIAPStoreProductPtr& product) {
  return product->productIdentifier() + "@" + product->price().toString();
}

ZBIAPReceiptIAPPtr purchaseFrom(const Value& value) {
  std::string id = text(value, "a purchase");
  const bool upgradable = id.empty() || id[0] != '-';
  if (!upgradable) id.erase(0, 1);
  const size_t hash = id.find('#');
  const std::string transaction = hash == std::string::npos ? "1" : id.substr(hash + 1);
  return ZBIAPReceiptIAP::initWithProductIdentifier(id.substr(0, hash), 1, transaction, std::nullopt,
                                 Date::fromMicrosSince1970(1700000000LL * 1000000), std::nullopt,
                                 std::nullopt, std::nullopt, 0, upgradable);
}

std::string describe(const ZBIAPReceiptIAPPtr& purchase) {
  return (purchase->upgradable() ? "" : "-") + purchase->productIdentifier() + "#" +
         purchase->transactionIdentifier();
}

std::optional<Date> dateFrom(const Value& value) {
  if (value.isNil() || value.isNull()) return std::nullopt;
  if (!value.isNumber()) throw ScenarioError("a date must be seconds since 1970");
  return Date::fromTimeIntervalSince1970(*value.doubleValue());
}

// A catalogue: a product list, or {"products", "header", "groups", "features"}.
std::shared_ptr<ZBIAPProductInfoResponse> catalogueFrom(const Value& value) {
  const Value& products = value.isArray() ? value : value["products"];
  ZBIAPProductInfoResponse::ProductInfos infos;
  for (const Value& product : array(products, "a catalogue's products")) {
    if (auto dpi = ZBIAPProductInfoV1::initWithDictionary(productFrom(product))) infos.push_back(dpi);
  }
  if (value.isArray()) return ZBIAPProductInfoResponse::initWithProductInfos(std::move(infos), {}, {}, {});
  std::optional<ZBIAPProductInfoResponse::FeatureSet> features;
  if (!value["features"].isNil()) {
    features.emplace();
    for (const Value& feature : array(value["features"], "a catalogue's features")) {
      if (auto made = ZBIAPProductFeatureV1::initWithDictionary(featureFrom(feature))) features->insert(made);
    }
  }
  std::optional<std::string> header = codeOrNone(value["header"], "a catalogue's header");
  std::optional<Dictionary> groups;
  if (const Dictionary* given = value["groups"].asDictionary()) groups = *given;
  return ZBIAPProductInfoResponse::initWithProductInfos(std::move(infos), std::move(header), std::move(groups),
                                          std::move(features));
}

// "Domain/code", or null for an error that is nil.
ZBIAPErrorPtr errorFrom(const Value& value) {
  if (value.isNull() || value.isNil()) return nullptr;
  const std::string& written = text(value, "an error");
  const size_t slash = written.rfind('/');
  if (slash == std::string::npos) throw ScenarioError("an error must read Domain/code: " + written);
  return ZBIAPError::make(written.substr(0, slash),
                          std::strtoll(written.c_str() + slash + 1, nullptr, 10));
}

// A reply's timing: "after": seconds or "never" (absent: at once), "thread": true.
Timing timingFrom(const Value& reply) {
  const Answer thread = reply["thread"] == Value(true) ? Answer::kOnOtherThread : Answer::kAtOnce;
  const Value& after = reply["after"];
  if (after.isNil()) return {thread, std::nullopt};
  if (after == Value("never")) return {Answer::kLater, std::nullopt};
  const auto micros = static_cast<int64_t>(seconds(after, "\"after\"") * 1e6);
  return {thread == Answer::kOnOtherThread ? thread : Answer::kLater, Duration(micros)};
}

FakeFetcher::Outcome outcomeFrom(const Value& reply) {
  if (!reply.isDictionary()) throw ScenarioError("a fetcher reply must be an object");
  if (reply.asDictionary()->contains("error")) {
    return FakeFetcher::fail(errorFrom(reply["error"]), timingFrom(reply));
  }
  return FakeFetcher::succeed(catalogueFrom(reply["cat"].isNil() ? Value(Array{}) : reply["cat"]),
                              timingFrom(reply));
}

// ---- One run of one scenario.

class Run;

// The standard user defaults with every data write traced (the manager writes nothing else).
class TracedDefaults final : public UserDefaults {
 public:
  TracedDefaults(UserDefaults& target, Run& run) : target_(target), run_(run) {}
  std::optional<std::string> stringForKey(std::string_view key) override {
    return target_.stringForKey(key);
  }
  std::optional<Data> dataForKey(std::string_view key) override { return target_.dataForKey(key); }
  bool setString(std::string_view key, std::string_view value) override {
    return target_.setString(key, value);
  }
  bool setData(std::string_view key, const Data& value) override;
  bool removeObjectForKey(std::string_view key) override { return target_.removeObjectForKey(key); }

 private:
  UserDefaults& target_;
  Run& run_;
};

// The test platform with the user defaults and the system log traced.
class TracedPlatform final : public PlatformWrapper {
 public:
  TracedPlatform(TestPlatform& target, Run& run)
      : PlatformWrapper(std::shared_ptr<Platform>(std::shared_ptr<Platform>(), &target.platform())),
        defaults_(target.userDefaults(), run),
        run_(run) {}
  UserDefaults& standardUserDefaults() override { return defaults_; }
  void systemLog(std::string_view line) override;

 private:
  TracedDefaults defaults_;
  Run& run_;
};

// How saved data reads in a trace: the short forms of an array's elements, else the raw text.
std::string savedText(const Data& data) {
  std::string raw(data.begin(), data.end());
  std::optional<Value> value = parseJSON(raw);
  if (!value || !value->isArray()) return "raw " + toJSON(Value(raw.substr(0, 40)));
  std::vector<std::string> parts;
  for (const Value& element : *value->asArray()) parts.push_back(shortForm(element));
  return traceList(parts);
}

class Run {
 public:
  explicit Run(const Value& scenario) : scenario_(scenario) {}

  std::vector<std::string> trace() {
    TestPlatform platform;
    platform_ = &platform;
    setUp(platform);
    auto traced = std::make_shared<TracedPlatform>(platform, *this);
    std::shared_ptr<Platform> previous = Platform::install(traced);
    struct Restore {
      std::shared_ptr<Platform> previous;
      ~Restore() { Platform::install(std::move(previous)); }
    } restore{previous};
    start_ = platform.now();
    if (!at("traceFrom").isNil()) traceFrom_ = seconds(at("traceFrom"), "\"traceFrom\"");
    for (const Value& kind : list(at("show"), "\"show\"")) {
      shown_.push_back(text(kind, "a kind"));
    }
    tracing_ = true;
    if (makeManager()) {
      play(platform);
      finish();
      store_->dropPending();
      fetcher_->dropPending();
    }
    tracing_ = false;
    tokens_.clear();
    manager_.reset();
    return lines_;
  }

  void emit(std::string_view kind, const std::string& line) {
    if (!tracing_ || (!shown_.empty() && kind != "FINAL" && kind != "ERROR" &&
                      std::find(shown_.begin(), shown_.end(), kind) == shown_.end())) {
      return;
    }
    const double at = static_cast<double>((platform_->now() - start_).count()) / 1e6;
    if (at < traceFrom_ && kind != "ERROR" && kind != "FINAL") return;
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(fmt::format("{:.3f} {} {}", at, kind, line));
  }

 private:
  const Value& at(std::string_view key) const { return scenario_[key]; }

  void setUp(TestPlatform& platform) {
    platform.setEnv("ZBIAPMANAGER_LOGGING", "1");
    const Value& defaults = at("defaults");
    for (auto [name, key] : {std::pair{"products", kProductsKey}, {"features", kFeaturesKey}}) {
      const Value& value = defaults[name];
      if (value.isNil()) continue;
      UserDefaults& target = platform.userDefaults();
      if (value.isArray()) {
        Array expanded;
        for (const Value& item : *value.asArray()) {
          expanded.push_back(key == kProductsKey ? productFrom(item) : featureFrom(item));
        }
        const std::string json = toJSON(Value(expanded));
        target.setData(key, Data(json.begin(), json.end()));
      } else if (value["data"].isString()) {
        std::string raw;
        const int64_t times = value["repeat"].int64Value().value_or(1);
        if (times < 1 || times > 1000000) throw ScenarioError("\"repeat\" must be 1 to 1000000");
        for (int64_t i = 0; i < times; ++i) raw += *value["data"].asString();
        target.setData(key, Data(raw.begin(), raw.end()));
      } else {
        target.setString(key, text(value["string"], "a saved value"));
      }
    }
  }

  bool makeManager() {
    const Value& config = at("config");
    store_ = FakeStore::create();
    fetcher_ = FakeFetcher::create();
    store_->trace = [this](std::string_view kind, std::string line) { emit(kind, line); };
    fetcher_->trace = store_->trace;
    auto configuration = ZBIAPManagerConfiguration::initWithStore(
        config["store"] == Value(false) ? nullptr : store_,
        config["product"].isNil() ? "com.example.country" : text(config["product"], "product"),
        config["fallback"].isNil() ? "US" : text(config["fallback"], "fallback"),
        config["fetcher"] == Value(false) ? nullptr : fetcher_);
    manager_ = ZBIAPManager::initWithConfiguration(configuration);
    if (!manager_) {
      emit("FINAL", "no manager");
      return false;
    }
    scriptDoubles();
    observe();
    return true;
  }

  void scriptDoubles() {
    const Value& store = at("store");
    for (const Value& reply : list(store["country"], "country replies")) {
      std::vector<FakeStore::CountryReply> calls;
      for (const Value& call : reply.isArray() ? *reply.asArray() : Array{reply}) {
        calls.push_back({codeOrNone(call["code"], "a country code"), errorFrom(call["error"]),
                         timingFrom(call)});
      }
      store_->queueCountry(std::move(calls));
    }
    for (const Value& reply : list(store["products"], "products replies")) {
      FakeStore::ProductsReply scripted{std::nullopt, errorFrom(reply["error"]), timingFrom(reply)};
      if (!reply["list"].isNil()) scripted.products = storeProductsFrom(reply["list"]);
      store_->queueProducts(std::move(scripted));
    }
    setStoreData(store);
    for (auto [name, hook] :
         {std::pair{"onDelegate", &store_->onDelegateSet}, {"onManager", &store_->onManagerSet}}) {
      if (store[name].isNil()) continue;
      *hook = [this, step = array(store[name], name)] { act(step, 0); };
    }
    fetcher_->setBundle(at("bundle").isNil()
                            ? FakeFetcher::fail(ZBIAPError::make("ZBIAPErrorDomain", 1))
                            : FakeFetcher::succeed(catalogueFrom(at("bundle"))));
    for (const Value& reply : list(at("fetch"), "\"fetch\"")) {
      fetcher_->enqueue(outcomeFrom(reply));
    }
    if (!at("fetchDefault").isNil()) fetcher_->setDefault(outcomeFrom(at("fetchDefault")));
  }

  // Takes "purchases", "date" and "version" where given; returns their trace text.
  std::string setStoreData(const Value& data) {
    std::string line;
    if (!data["purchases"].isNil()) {
      std::vector<ZBIAPReceiptIAPPtr> purchases;
      std::vector<std::string> names;
      for (const Value& item : array(data["purchases"], "purchases")) {
        purchases.push_back(purchaseFrom(item));
        names.push_back(describe(purchases.back()));
      }
      store_->setInAppPurchases(std::move(purchases));
      line += " purchases=" + traceList(names);
    }
    if (data.asDictionary() && data.asDictionary()->contains("date")) {
      store_->setOriginalPurchaseDate(dateFrom(data["date"]));
      line += " date=" + (data["date"].isNull() ? "nil" : data["date"].description());
    }
    if (data.asDictionary() && data.asDictionary()->contains("version")) {
      store_->setOriginalPurchaseVersion(codeOrNone(data["version"], "a version"));
      line += " version=" + codeOrNone(data["version"], "").value_or("nil");
    }
    return line;
  }

  // Every change of the state or the counter must be followed by one call of the ready or
  // querying observers with the matching values.
  using Flags = std::optional<std::pair<bool, bool>>;
  void expect(Flags& slot, std::pair<bool, bool> next, std::string_view what) {
    if (slot) emit("ERROR", fmt::format("{} observers not told", what));
    slot = next;
  }
  void told(Flags& slot, std::pair<bool, bool> heard, std::string_view what) {
    if (slot != heard) emit("ERROR", fmt::format("{} observers told wrongly", what));
    slot.reset();
  }

  void observe() {
    ZBIAPManager& manager = *manager_;
    tokens_.push_back(manager.stateObservers().observe([this](int64_t from, int64_t to) {
      emit("STATE", fmt::format("{} -> {}", from, to));
      expect(expectReady_,
             {from >= ZBIAPManagerStateReadyNoProductInfos,
              to >= ZBIAPManagerStateReadyNoProductInfos},
             "ready");
    }));
    tokens_.push_back(manager.readyObservers().observe([this](bool from, bool to) {
      told(expectReady_, {from, to}, "ready");
    }));
    tokens_.push_back(manager.queryCounterObservers().observe([this](int64_t from, int64_t to) {
      emit("COUNTER", fmt::format("{} -> {}", from, to));
      expect(expectQuerying_, {from != 0, to != 0}, "querying");
    }));
    tokens_.push_back(manager.queryingObservers().observe([this](bool from, bool to) {
      told(expectQuerying_, {from, to}, "querying");
    }));
    for (const char* name :
         {ZBIAPManagerDidUpdateStateNotification, ZBIAPManagerDidBecomeReadyStateNotification,
          ZBIAPManagerDidUpdateDynamicProductInfosNotification,
          ZBIAPManagerStoreDidUpdateNotification}) {
      tokens_.push_back(NotificationCenter::defaultCenter().addObserver(
          name, manager_.get(), [this](const Notification& notification) { heard(notification); }));
    }
  }

  // Checks what every notification must satisfy, then traces it.
  void heard(const Notification& notification) {
    std::string name(notification.name);
    name = name.substr(12, name.size() - 12 - 12);  // "ZBIAPManager" ... "Notification"
    if (!platform_->mainQueue().isMainThread()) emit("ERROR", name + " posted off the main thread");
    if (notification.userInfo) emit("ERROR", name + " posted with user info");
    if (name == "DidBecomeReadyState" && (lastHeard_ != "DidUpdateState" || becameReady_++)) {
      emit("ERROR", "DidBecomeReadyState not once, right after DidUpdateState");
    }
    if (name == "DidUpdateState" && manager_->state() == lastState_) {
      emit("ERROR", "DidUpdateState repeats the state");
    }
    if (name == "DidUpdateState") lastState_ = manager_->state();
    lastHeard_ = name;
    emit("NOTIFY", name);
  }

  void play(TestPlatform& platform) {
    std::vector<Array> steps;
    for (const Value& step : list(at("script"), "\"script\"")) {
      const Array& parts = array(step, "a script step");
      if (parts.size() < 2) throw ScenarioError("a script step is [seconds, action, ...]");
      seconds(parts[0], "a step's time");
      steps.push_back(parts);
    }
    std::stable_sort(steps.begin(), steps.end(), [](const Array& a, const Array& b) {
      return *a[0].doubleValue() < *b[0].doubleValue();
    });
    double now = 0;
    for (const Array& step : steps) {
      now = advanceTo(platform, seconds(step[0], "a step's time"));
      act(Array(step.begin() + 1, step.end()), now);
      platform.runUntilIdle();
    }
    const double end = at("end").isNil() ? now : seconds(at("end"), "\"end\"");
    if (end < now) throw ScenarioError("\"end\" comes before the last step");
    advanceTo(platform, end);
  }

  double advanceTo(TestPlatform& platform, double when) {
    const Duration target(static_cast<int64_t>(when * 1e6));
    const Duration elapsed = platform.now() - start_;
    if (target > elapsed) platform.advanceBy(target - elapsed);
    platform.runUntilIdle();
    return when;
  }

  // One action of the host (HOST, PROBE, COMPLETION) or of the store (DELEGATE).
  void act(const Array& step, double now) {
    const std::string& verb = text(step.at(0), "an action");
    const bool thread = step.back() == Value("thread");
    const Value& arg = step.size() > 1 ? step[1] : nilValue();
    auto maybeThread = [thread](std::function<void()> call) {
      replyAs({thread ? Answer::kOnOtherThread : Answer::kAtOnce, std::nullopt}, std::move(call));
    };
    const std::string from = thread ? " (other thread)" : "";
    if (verb == "commit") {
      emit("HOST", "commit" + from);
      maybeThread([this] { manager_->commitConfiguration(); });
    } else if (verb == "refresh" || verb == "query") {
      emit("HOST", verb);
      auto completion = [this, verb](ZBIAPErrorPtr error) {
        if (!platform_->mainQueue().isMainThread()) emit("ERROR", verb + " completed off main");
        emit("COMPLETION", verb + " error=" + traceText(error));
      };
      if (verb == "refresh") {
        manager_->refreshDynamicProductInfosWithCompletion(completion);
      } else {
        manager_->queryStoreProductsWithCompletion(completion);
      }
    } else if (verb == "attach") {
      std::vector<ZBIAPStoreProductPtr> products = storeProductsFrom(arg);
      std::vector<std::string> names;
      for (const auto& product : products) names.push_back(describe(product));
      emit("HOST", "attach " + traceList(names));
      manager_->updateStoreProducts(products);
    } else if (verb == "setCountry") {
      emit("HOST", "setCountry " + codeOrNone(arg, "a country code").value_or("none"));
      manager_->updateCountryCode(codeOrNone(arg, ""));
    } else if (verb == "probe") {
      emit("PROBE", summary());
    } else if (verb == "sort") {
      ZBIAPManager::ProductInfos dpis;
      for (const Value& id : array(step.at(2), "sort identifiers")) {
        dpis.push_back(ZBIAPProductInfoV1::initWithDictionary(productFrom(id)));
      }
      std::vector<std::string> prefixes, sorted;
      for (const Value& prefix : array(arg, "sort prefixes")) prefixes.push_back(text(prefix, ""));
      for (const auto& dpi : ZBIAPManager::sortDynamicProductInfos(dpis, prefixes)) {
        sorted.push_back(dpi->productIdentifier());
      }
      emit("PROBE", "sorted " + traceList(sorted));
    } else if (verb == "country") {
      std::optional<std::string> code = codeOrNone(arg, "a country code");
      emit("DELEGATE", "country " + (code ? shown(*code) : "none") + from);
      maybeThread([this, code] { store_->tellDelegateCountry(code); });
    } else if (verb == "update") {
      emit("DELEGATE", "storeDidUpdateInformations" + setStoreData(arg) + from);
      maybeThread([this] { store_->tellDelegateInformationsChanged(); });
    } else {
      throw ScenarioError(fmt::format("unknown action \"{}\" at {:.3f}", verb, now));
    }
  }

  std::string summary() const {
    std::vector<std::string> dpis;
    for (const auto& dpi : manager_->dynamicProductInfos()) {
      dpis.push_back(shown(dpi->productIdentifier()) + (dpi->product() ? "*" : ""));
    }
    return fmt::format("state={} counter={} country={} dpis={}", manager_->state(),
                       manager_->queryCounter(), manager_->appStoreCountry().value_or("none"),
                       traceList(dpis));
  }

  // The summary; then what else is set (links only when one is missing); then the saved data.
  void finish() {
    if (expectReady_ || expectQuerying_) emit("ERROR", "ready or querying observers not told");
    emit("FINAL", summary());
    std::string line;
    auto add = [&line](std::string_view name, const std::string& value) {
      line += fmt::format("{}{}={}", line.empty() ? "" : " ", name, value);
    };
    auto addList = [&add](std::string_view name, std::vector<std::string> items, bool always) {
      std::sort(items.begin(), items.end());
      if (always || !items.empty()) add(name, traceList(items));
    };
    if (auto header = manager_->htmlStoreHeader()) add("header", toJSON(Value(*header)));
    if (auto groups = manager_->featureGroups()) add("groups", toJSON(Value(*groups)));
    std::vector<std::string> names;
    if (auto features = manager_->baselineFeatureMetadata()) {
      for (const auto& feature : *features) {
        names.push_back(shortForm(feature->dictionaryRepresentation()));
      }
      addList("features", std::move(names), true);
    }
    names.clear();
    for (const auto& [id, product] : manager_->storeProductMap())
      names.push_back(describe(product));
    addList("storeProducts", std::move(names), false);
    names.clear();
    for (const auto& purchase : manager_->inAppPurchases()) names.push_back(describe(purchase));
    addList("purchases", std::move(names), false);
    if (auto date = manager_->cachedOriginalPurchaseDate()) add("date", date->description());
    if (auto version = manager_->cachedOriginalPurchaseVersion()) add("version", *version);
    if (auto fallback = manager_->appStoreFallbackCountryCode()) add("fallback", *fallback);
    std::string linked;
    if (fetcher_->owner().lock() == std::static_pointer_cast<ProductInfoFetcherOwner>(manager_)) {
      linked += "+owner";
    }
    if (store_->storeDelegate() == std::static_pointer_cast<ZBIAPStoreDelegate>(manager_)) {
      linked += "+delegate";
    }
    if (store_->manager() == manager_) linked += "+manager";
    if (linked != "+owner+delegate+manager")
      add("linked", linked.empty() ? "none" : linked.substr(1));
    if (!line.empty()) emit("FINAL", line);
    line.clear();
    UserDefaults& defaults = Platform::current().standardUserDefaults();
    for (auto [name, key] : {std::pair{"products", kProductsKey}, {"features", kFeaturesKey}}) {
      if (auto data = defaults.dataForKey(key)) add(name, savedText(*data));
    }
    if (!line.empty()) emit("FINAL", "saved " + line);
  }

  const Value& scenario_;
  TestPlatform* platform_ = nullptr;
  Date start_;
  bool tracing_ = false;
  // Events before traceFrom_, or of kinds not in shown_ (when it is not empty), are not traced;
  // FINAL and ERROR always are.
  double traceFrom_ = 0;
  std::vector<std::string> shown_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
  std::shared_ptr<FakeStore> store_;
  std::shared_ptr<FakeFetcher> fetcher_;
  std::shared_ptr<ZBIAPManager> manager_;
  std::vector<ObserverToken> tokens_;
  Flags expectReady_, expectQuerying_;
  std::string lastHeard_;
  int64_t lastState_ = ZBIAPManagerStateNotConfigured;
  int becameReady_ = 0;
};

bool TracedDefaults::setData(std::string_view key, const Data& value) {
  run_.emit("SAVE", fmt::format("{}={}", key, savedText(value)));
  return target_.setData(key, value);
}

void TracedPlatform::systemLog(std::string_view line) {
  PlatformWrapper::systemLog(line);
  constexpr std::string_view kManager = "[ZBIAPManager] ";
  std::string message = line.starts_with(kManager) ? std::string(line.substr(kManager.size()))
                                                   : "system: " + std::string(line);
  if (message == "Logging enabled.") return;
  // Addresses change from run to run; line breaks would split the event.
  static const std::regex kAddress("0x[0-9a-f]{4,}"), kBreak("\n *");
  message = std::regex_replace(std::regex_replace(message, kAddress, "0x"), kBreak, " ");
  run_.emit("LOG", message);
}

// ---- The command line.

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ScenarioError("cannot read " + path);
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}

// Lines of `expected` and `actual` as a diff: "-" only expected, "+" only actual.
void printDiff(const std::vector<std::string>& expected, const std::vector<std::string>& actual) {
  const size_t n = expected.size(), m = actual.size();
  std::vector<std::vector<size_t>> common(n + 1, std::vector<size_t>(m + 1, 0));
  for (size_t i = n; i-- > 0;) {
    for (size_t j = m; j-- > 0;) {
      common[i][j] = expected[i] == actual[j] ? common[i + 1][j + 1] + 1
                                              : std::max(common[i + 1][j], common[i][j + 1]);
    }
  }
  size_t i = 0, j = 0;
  while (i < n || j < m) {
    if (i < n && j < m && expected[i] == actual[j]) {
      ++i, ++j;
    } else if (j < m && (i == n || common[i][j + 1] > common[i + 1][j])) {
      std::cout << "+ " << actual[j++] << "\n";
    } else {
      std::cout << "- " << expected[i++] << "\n";
    }
  }
}

// The file's text with its "trace" (the last key) replaced by `trace`.
std::string withTrace(const std::string& file, const std::vector<std::string>& trace) {
  std::string array = "[";
  for (size_t i = 0; i < trace.size(); ++i) {
    array += (i ? ",\n           " : "") + toJSON(Value(trace[i]));
  }
  array += "]}\n";
  size_t key = file.rfind("\"trace\"");
  if (key == std::string::npos) {
    key = file.rfind('}');
    if (key == std::string::npos) throw ScenarioError("not a JSON object");
    while (key > 0 && std::isspace(static_cast<unsigned char>(file[key - 1]))) --key;
    return file.substr(0, key) + ",\n \"trace\": " + array;
  }
  return file.substr(0, key) + "\"trace\": " + array;
}

int runFile(const std::string& path, const std::string& mode) {
  const std::string file = readFile(path);
  std::string error;
  std::optional<Value> scenario = parseJSON(file, &error);
  if (!scenario || !scenario->isDictionary()) {
    throw ScenarioError("not a JSON object" + (error.empty() ? "" : ": " + error));
  }
  const std::vector<std::string> actual = Run(*scenario).trace();
  if (mode == "--update") {
    // Rewritten only when nothing but the trace changes: "trace" must be the last key.
    const std::string updated = withTrace(file, actual);
    std::optional<Value> reread = parseJSON(updated);
    Dictionary before = *scenario->asDictionary(), after;
    if (reread && reread->isDictionary()) after = *reread->asDictionary();
    before.set("trace", Value(Array{})), after.set("trace", Value(Array{}));
    if (!(Value(before) == Value(after))) throw ScenarioError("\"trace\" must be the last key");
    std::ofstream(path, std::ios::binary) << updated;
    return 0;
  }
  if (mode != "--check") {
    for (const std::string& line : actual) std::cout << line << "\n";
    return 0;
  }
  std::vector<std::string> expected;
  for (const Value& line : list((*scenario)["trace"], "\"trace\"")) {
    expected.push_back(text(line, "a trace line"));
  }
  if (expected == actual) return 0;
  std::cout << path << ": the trace differs (- expected, + actual):\n";
  printDiff(expected, actual);
  return 1;
}

}  // namespace
}  // namespace zbiap::testing

int main(int argc, char** argv) {
  std::string mode;
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    (arg == "--check" || arg == "--update" ? mode : files.emplace_back()) = arg;
  }
  if (files.empty()) {
    std::cerr << "usage: zbiap_scenario [--check | --update] FILE...\n";
    return 2;
  }
  int status = 0;
  for (const std::string& file : files) {
    try {
      status = std::max(status, zbiap::testing::runFile(file, mode));
    } catch (const std::exception& e) {
      std::cerr << file << ": " << e.what() << "\n";
      status = 2;
    }
  }
  return status;
}
