// Start-up of the manager from a saved catalogue: commitConfiguration until the manager is
// ready, with a store and a fetcher that answer at once (the fetcher with the saved catalogue,
// so the merge compares every DPI and finds no change, and the same feature list, which is taken
// but need not be written again).
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <string>

#include "testing/fake_fetcher.h"
#include "testing/fake_store.h"
#include "testing/test_platform.h"
#include "zbiap/foundation/json.h"
#include "zbiap/manager/manager.h"

namespace zbiap::testing {
namespace {

// A product as the catalogue service writes one, with texts in two languages.
Dictionary benchProduct(int i) {
  auto texts = [&](const std::string& what) {
    return Value(Dictionary{{"de", Value(what + " " + std::to_string(i) + " (de)")},
                            {"en", Value(what + " " + std::to_string(i))}});
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

}  // namespace
}  // namespace zbiap::testing
