// Start-up of the manager from a saved catalogue: commitConfiguration until the manager is
// ready, with a store and a fetcher that answer at once (the fetcher with the saved catalogue,
// so the merge compares every DPI and finds no change, and the same feature list, which is taken
// but need not be written again).
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <string>

#include "bench/catalog_fixture.h"
#include "bench/heap_tracker.h"
#include "testing/fake_fetcher.h"
#include "testing/fake_store.h"
#include "testing/test_platform.h"
#include "zbiap/catalog/product_info.h"
#include "zbiap/catalog/product_info_v1_fetcher.h"
#include "zbiap/foundation/json.h"
#include "zbiap/manager/manager.h"
#include "zbiap/manager/manager_configuration.h"

namespace zbiap::testing {
namespace {

// A product as the catalogue service writes one, with texts in two languages. A revision
// other than 0 changes its titles, as a catalogue update does.
Dictionary benchProduct(int i, int revision = 0) {
  auto texts = [&](const std::string& what) {
    const std::string suffix = revision == 0 ? "" : " r" + std::to_string(revision);
    return Value(Dictionary{{"de", Value(what + " " + std::to_string(i) + " (de)" + suffix)},
                            {"en", Value(what + " " + std::to_string(i) + suffix)}});
  };
  Array features;
  for (int f = 0; f < 4; ++f) features.push_back(Value("feature." + std::to_string(f)));
  return Dictionary{
      {"identifier",
       Value("com.example.app.sub." + std::to_string(i % 12 + 1) + "m." + std::to_string(i))},
      {"inactive", Value(i % 10 == 0)},
      {"title", texts("Title")},
      {"subtitle", texts("Subtitle")},
      {"description", texts("A longer description of the product's benefits")},
      {"header", texts("Header")},
      {"sort_key", Value(i)},
      {"title_color", Value("#1a2b3c")},
      {"background_color", Value("#fff")},
      {"old_price", Value("9.99")},
      {"default_visible", Value(true)},
      {"iap_group", Value("group." + std::to_string(i % 3))},
      {"features", Value(features)},
      {"metadata", Value(Dictionary{{"rank", Value(i)}, {"badge", Value("new")}})},
  };
}

void BM_ManagerCommitToReadyFromSavedCatalogue(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  auto platform = std::make_unique<TestPlatform>();

  std::vector<Dictionary> products;
  Array saved;
  for (int i = 0; i < count; ++i) {
    products.push_back(benchProduct(i));
    saved.push_back(Value(products.back()));
  }
  const std::string productsText = toJSON(Value(saved));
  const std::string featuresText = "[{\"identifier\":\"feature.0\"}]";
  platform->userDefaults().setData("ZBIAPProductInfos",
                                   Data(productsText.begin(), productsText.end()));
  platform->userDefaults().setData("ZBIAPBaselineFeatureMetadata",
                                   Data(featuresText.begin(), featuresText.end()));
  // The server repeats its feature list, as new objects each time.
  auto response = makeResponse(products, std::nullopt, std::nullopt,
                               {Dictionary{{"identifier", Value("feature.0")}}});

  for (auto _ : state) {
    state.PauseTiming();
    auto store = FakeStore::create();
    store->scriptCountry(Answer::kAtOnce, "US");
    auto fetcher = FakeFetcher::create();
    fetcher->setDefault(FakeFetcher::succeed(response));
    auto manager = ZBIAPManager::initWithConfiguration(
        ZBIAPManagerConfiguration::initWithStore(store, "com.example.country", "US", fetcher));
    state.ResumeTiming();

    manager->commitConfiguration();
    platform->runUntilIdle();
    if (!manager->isReady()) state.SkipWithError("the manager did not become ready");

    state.PauseTiming();
    platform->advanceBy(std::chrono::seconds(10));  // lets the time-out go
    manager.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_ManagerCommitToReadyFromSavedCatalogue)
    ->Arg(10)
    ->Arg(500)
    ->Unit(benchmark::kMillisecond);

// A fetched catalogue merged into a ready manager holding the previous one, each product with
// its store product: every other fetch brings a catalogue that changes a tenth of the products
// (the next one changes them back), so each merge compares every DPI, attaches the store
// products, saves the catalogue and asks the store again. Complexity over the products.
void BM_ManagerMergeBySize(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  auto platform = std::make_unique<TestPlatform>();
  std::vector<Dictionary> first, second;
  std::vector<ZBIAPStoreProductPtr> storeProducts;
  for (int i = 0; i < count; ++i) {
    // Active products only, so that each one asks for its store product.
    Dictionary product = benchProduct(i);
    product.set("inactive", Value(false));
    first.push_back(product);
    if (i % 10 == 0) {
      product = benchProduct(i, 1);
      product.set("inactive", Value(false));
    }
    second.push_back(std::move(product));
    storeProducts.push_back(FakeStore::makeProduct(*first.back()["identifier"].asString()));
  }
  const std::shared_ptr<ZBIAPProductInfoResponse> responses[] = {makeResponse(first),
                                                                 makeResponse(second)};
  auto store = FakeStore::create();
  store->scriptCountry(Answer::kAtOnce, "US");
  auto fetcher = FakeFetcher::create();
  fetcher->setDefault(FakeFetcher::succeed(responses[0]));
  auto manager = ZBIAPManager::initWithConfiguration(
      ZBIAPManagerConfiguration::initWithStore(store, "com.example.country", "US", fetcher));
  manager->commitConfiguration();
  platform->runUntilIdle();
  if (!manager->isReady() ||
      manager->dynamicProductInfosWithStoreProducts().size() != static_cast<size_t>(count)) {
    state.SkipWithError("the manager did not attach every store product");
    return;
  }
  size_t next = 1;
  for (auto _ : state) {
    fetcher->enqueue(FakeFetcher::succeed(responses[next]));
    manager->refreshDynamicProductInfosWithCompletion(nullptr);
    platform->runUntilIdle();
    next ^= 1;
  }
  state.SetComplexityN(count);
  state.SetItemsProcessed(state.iterations() * count);
  platform->advanceBy(std::chrono::seconds(10));
}
BENCHMARK(BM_ManagerMergeBySize)
    ->RangeMultiplier(10)
    ->Range(10, 10000)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity();

// The memory of a ready manager holding the 1,100-product fixture catalogue (read by the
// fetcher's own processResponse), each active product with its store product. One iteration: the
// counters are what stays allocated once the manager is ready (heap_MB, this thread's
// allocations, the reading of the answer included, the JSON reader's reused buffers not) and the
// growth of the process's resident memory (rss_MB), against the catalogue's size (MB of JSON).
void BM_ManagerReadyMemory(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  auto platform = std::make_unique<TestPlatform>();
  std::vector<ZBIAPStoreProductPtr> storeProducts;
  for (int i = 0; i < count; ++i) {
    storeProducts.push_back(FakeStore::makeProduct(bench::catalogProductIdentifier(i)));
  }
  auto store = FakeStore::create();
  store->scriptCountry(Answer::kAtOnce, "US");
  std::string text = bench::makeCatalogJSON(count);
  const double catalogueMB = static_cast<double>(text.size()) / 1e6;
  // The JSON reader's per-thread buffers are made here, outside the count: they belong to the
  // thread, not to the manager.
  static_cast<void>(parseJSON(text));
  for (auto _ : state) {
    const int64_t residentBefore = bench::residentBytes();
    bench::startHeapTracking();
    std::shared_ptr<ZBIAPProductInfoResponse> response;
    {
      auto reader = ZBIAPProductInfoV1Fetcher::initWithBaseURL("http://127.0.0.1/",
                                                               "application/json", "bench", "");
      auto blocks = std::make_shared<ZBIAPProductInfoV1FetcherBlocks>();
      blocks->success = [&](std::shared_ptr<ZBIAPProductInfoResponse> r) { response = r; };
      reader->processResponse(text, {blocks});
    }
    auto fetcher = FakeFetcher::create();
    fetcher->setDefault(FakeFetcher::succeed(response));
    response.reset();
    auto manager = ZBIAPManager::initWithConfiguration(
        ZBIAPManagerConfiguration::initWithStore(store, "com.example.country", "US", fetcher));
    manager->commitConfiguration();
    platform->runUntilIdle();
    const int64_t heap = bench::trackedHeapInUse();
    bench::stopHeapTracking();
    const int64_t resident = bench::residentBytes() - residentBefore;
    if (!manager->isReady()) state.SkipWithError("the manager did not become ready");
    state.counters["with_store_product"] =
        static_cast<double>(manager->dynamicProductInfosWithStoreProducts().size());
    state.counters["heap_MB"] = static_cast<double>(heap) / 1e6;
    state.counters["rss_MB"] = static_cast<double>(resident) / 1e6;
    state.counters["catalogue_MB"] = catalogueMB;
    platform->advanceBy(std::chrono::seconds(10));
  }
}
BENCHMARK(BM_ManagerReadyMemory)->Arg(1100)->Iterations(1)->Unit(benchmark::kMillisecond);

// sortDynamicProductInfos over DPIs whose identifiers end in distinct durations ("0d", "0w",
// "0m", "0y", "1d", ...; some equal in length, as "7d" and "1w"), one in ten with none at all.
void BM_DurationSortBySize(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  ZBIAPManager::ProductInfos dpis;
  for (int i = 0; i < count; ++i) {
    Dictionary product = benchProduct(i);
    const std::string duration = std::to_string(i / 4) + "dwmy"[i % 4];
    product.set("identifier", Value(i % 10 == 0 ? "com.example.app.lifetime." + std::to_string(i)
                                                : "com.example.app.sub." + duration));
    dpis.push_back(ZBIAPProductInfoV1::initWithDictionary(Value(std::move(product))));
  }
  const std::vector<std::string> prefixes = {"com.example.app.sub."};
  for (auto _ : state) {
    benchmark::DoNotOptimize(ZBIAPManager::sortDynamicProductInfos(dpis, prefixes));
  }
  state.SetComplexityN(count);
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_DurationSortBySize)
    ->RangeMultiplier(10)
    ->Range(10, 10000)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity();

}  // namespace
}  // namespace zbiap::testing
