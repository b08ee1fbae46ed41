// Reading a catalogue's product records: JSON text to DPIs (parse included), and the records
// alone from an already parsed document.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "bench/catalog_fixture.h"
#include "zbiap/catalog/key_table.h"
#include "zbiap/catalog/product_feature.h"
#include "zbiap/catalog/product_info.h"
#include "zbiap/foundation/json.h"

namespace zbiap {
namespace {

struct Records {
  std::vector<std::shared_ptr<ZBIAPProductInfoV1>> infos;
  ProductFeatureSet features;
};

// The records of a parsed envelope, one language choice for all, as the fetcher reads them.
Records buildRecords(const Value& document) {
  CatalogLanguage language("en");
  Records records;
  if (const Array* products = document["products"].asArray()) {
    records.infos.reserve(products->size());
    for (const Value& product : *products) {
      if (auto info = ZBIAPProductInfoV1::create(product, language)) {
        records.infos.push_back(std::move(info));
      }
    }
  }
  if (const Array* metadata = document["features_metadata"].asArray()) {
    for (const Value& feature : *metadata) {
      if (auto record = ZBIAPProductFeatureV1::create(feature)) records.features.insert(record);
    }
  }
  return records;
}

// Freeing a catalogue happens when the next one replaces it, not while reading it.
template <typename... T>
void discardUntimed(benchmark::State& state, T&... objects) {
  state.PauseTiming();
  ((objects = T()), ...);
  state.ResumeTiming();
}

void BM_ProductInfosFromJSON(benchmark::State& state) {
  const std::string text = bench::makeCatalogJSON(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    std::optional<Value> document = parseJSON(text);
    Records records = buildRecords(*document);
    benchmark::DoNotOptimize(records.infos.data());
    discardUntimed(state, records, document);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.counters["bytes"] = static_cast<double>(text.size());
}
BENCHMARK(BM_ProductInfosFromJSON)->Arg(10)->Arg(1100)->Unit(benchmark::kMillisecond);

// The same over catalogues of 10 to 100,000 products (about 1 KB each), fitted to a complexity.
void BM_ProductInfosFromJSONBySize(benchmark::State& state) {
  const std::string text = bench::makeCatalogJSON(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    std::optional<Value> document = parseJSON(text);
    Records records = buildRecords(*document);
    benchmark::DoNotOptimize(records.infos.data());
    discardUntimed(state, records, document);
  }
  state.SetComplexityN(state.range(0));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ProductInfosFromJSONBySize)
    ->RangeMultiplier(10)
    ->Range(10, 100000)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity();

void BM_ProductInfosFromValue(benchmark::State& state) {
  const std::optional<Value> document =
      parseJSON(bench::makeCatalogJSON(static_cast<int>(state.range(0))));
  for (auto _ : state) {
    Records records = buildRecords(*document);
    benchmark::DoNotOptimize(records.infos.data());
    discardUntimed(state, records);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ProductInfosFromValue)->Arg(1100)->Unit(benchmark::kMillisecond);

void BM_CatalogJSONParseOnly(benchmark::State& state) {
  const std::string text = bench::makeCatalogJSON(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    std::optional<Value> document = parseJSON(text);
    benchmark::DoNotOptimize(document->isNil());
    discardUntimed(state, document);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_CatalogJSONParseOnly)->Arg(1100)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zbiap
