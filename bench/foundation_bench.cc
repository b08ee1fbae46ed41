// Foundation benchmarks: reading a catalogue-sized JSON document into Value, writing it back,
// and reading decimals from text.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bench/catalog_fixture.h"
#include "zbiap/foundation/decimal.h"
#include "zbiap/foundation/json.h"

namespace {

void BM_JSONParseCatalog(benchmark::State& state) {
  const std::string json = zbiap::bench::makeCatalogJSON(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    auto value = zbiap::parseJSON(json);
    if (!value) state.SkipWithError("catalogue did not parse");
    benchmark::DoNotOptimize(value);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * json.size()));
  state.counters["bytes"] = static_cast<double>(json.size());
}
BENCHMARK(BM_JSONParseCatalog)->Arg(10)->Arg(1100)->Unit(benchmark::kMicrosecond);

void BM_JSONWriteCatalog(benchmark::State& state) {
  const auto value =
      zbiap::parseJSON(zbiap::bench::makeCatalogJSON(static_cast<int>(state.range(0))));
  size_t bytes = 0;
  for (auto _ : state) {
    std::string text = zbiap::toJSON(*value);
    bytes = text.size();
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_JSONWriteCatalog)->Arg(1100)->Unit(benchmark::kMicrosecond);

void BM_DecimalParse(benchmark::State& state) {
  const std::vector<std::string> texts = {
      "9.99", "0.99", "1299", "-0.50", "19.989999", "123456789012345678901234567890.123456789"};
  for (auto _ : state) {
    for (const std::string& t : texts) benchmark::DoNotOptimize(zbiap::Decimal::fromString(t));
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * texts.size()));
}
BENCHMARK(BM_DecimalParse);

void BM_DecimalFromDouble(benchmark::State& state) {
  double v = 9.99;
  for (auto _ : state) {
    benchmark::DoNotOptimize(zbiap::Decimal::fromDouble(v));
    v += 0.01;
  }
}
BENCHMARK(BM_DecimalFromDouble);

}  // namespace
