// Reading a catalogue's product records: JSON text to DPIs (parse included), and the records
// alone from an already parsed document. CatalogueRecordsFile does the same for any catalogue
// file named by the environment variable ZBIAP_BENCH_CATALOG, and measures simdjson's own DOM
// parse of that file in the same run to compare with. The counter peak_x_file is the largest
// heap in use during one reading (the records and the parser's buffers included) over the
// document's size.
#include <benchmark/benchmark.h>
#include <simdjson.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/catalog_fixture.h"
#include "bench/heap_tracker.h"
#include "testing/testdata.h"
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
      if (auto info = ZBIAPProductInfoV1::initWithDictionary(product, language)) {
        records.infos.push_back(std::move(info));
      }
    }
  }
  if (const Array* metadata = document["features_metadata"].asArray()) {
    for (const Value& feature : *metadata) {
      if (auto record = ZBIAPProductFeatureV1::initWithDictionary(feature)) records.features.insert(record);
    }
  }
  return records;
}

// When ZBIAP_BENCH_WRITE_CATALOGS names a directory, the fixture catalogues of 140, 1,100,
// 11,000 and 110,000 products (0.15, 1.2, 11.7 and 117 MB) are written there before any
// benchmark runs, as catalog-<products>.json, for measuring the command-line tool on them.
const bool kCatalogFilesWritten = [] {
  const char* dir = std::getenv("ZBIAP_BENCH_WRITE_CATALOGS");
  if (dir == nullptr || *dir == '\0') return false;
  std::filesystem::create_directories(dir);
  for (int products : {140, 1100, 11000, 110000}) {
    const std::string text = bench::makeCatalogJSON(products);
    std::ofstream(std::filesystem::path(dir) / ("catalog-" + std::to_string(products) + ".json"),
                  std::ios::binary)
        .write(text.data(), static_cast<std::streamsize>(text.size()));
  }
  return true;
}();

// Freeing a catalogue happens when the next one replaces it, not while reading it.
template <typename... T>
void discardUntimed(benchmark::State& state, T&... objects) {
  state.PauseTiming();
  ((objects = T()), ...);
  state.ResumeTiming();
}

// Records from JSON text, timed over the benchmark's iterations, then one more reading measured
// for its peak heap (the previous records released first).
void readRecords(benchmark::State& state, const std::string& text) {
  if (!parseJSON(text)) {
    state.SkipWithError("the catalogue is no JSON");
    return;
  }
  for (auto _ : state) {
    std::optional<Value> document = parseJSON(text);
    Records records = buildRecords(*document);
    benchmark::DoNotOptimize(records.infos.data());
    discardUntimed(state, records, document);
  }
  // On a thread of its own, so that the parser's buffers are made afresh and counted too.
  int64_t peak = 0;
  size_t products = 0;
  std::thread([&] {
    bench::startHeapTracking();
    {
      std::optional<Value> document = parseJSON(text);
      Records records = buildRecords(*document);
      products = records.infos.size();
      document.reset();  // what a reader keeps is the records
      benchmark::DoNotOptimize(records.infos.data());
    }
    peak = bench::stopHeapTracking();
  }).join();
  state.counters["products"] = static_cast<double>(products);
  state.counters["peak_x_file"] = static_cast<double>(peak) / static_cast<double>(text.size());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.counters["bytes"] = static_cast<double>(text.size());
}

void BM_ProductInfosFromJSON(benchmark::State& state) {
  readRecords(state, bench::makeCatalogJSON(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_ProductInfosFromJSON)->Arg(10)->Arg(1100)->Unit(benchmark::kMillisecond);

// The same over catalogues of 10 to 100,000 products (about 1 KB each), fitted to a complexity.
void BM_ProductInfosFromJSONBySize(benchmark::State& state) {
  const std::string text = bench::makeCatalogJSON(static_cast<int>(state.range(0)));
  buildRecords(*parseJSON(text));  // warms the parser's buffers and the heap
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

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

// Our reading and simdjson's DOM parse (one reused parser, as simdjson advises) of the same
// text, taken in turns so that whatever else the machine does weighs on both alike: the
// medians of `runs` each, in seconds. Zero when simdjson refuses the text.
std::pair<double, double> oursAndSimdjsonSeconds(const std::string& text, int runs) {
  using Clock = std::chrono::steady_clock;
  simdjson::dom::parser parser;
  const simdjson::padded_string padded(text);
  std::vector<double> ours, theirs;
  for (int i = 0; i < runs; ++i) {
    auto start = Clock::now();
    simdjson::dom::element root;
    if (parser.parse(padded).get(root) != simdjson::SUCCESS) return {0, 0};
    theirs.push_back(std::chrono::duration<double>(Clock::now() - start).count());

    start = Clock::now();
    std::optional<Value> document = parseJSON(text);
    Records records = buildRecords(*document);
    ours.push_back(std::chrono::duration<double>(Clock::now() - start).count());
  }
  return {median(std::move(ours)), median(std::move(theirs))};
}

// The counters: ours_ms and simdjson_ms, medians of runs taken in turns, and x_simdjson, their
// ratio (the goal is at most 2.5).
void CatalogueRecordsFile(benchmark::State& state) {
  const char* path = std::getenv("ZBIAP_BENCH_CATALOG");
  if (path == nullptr || *path == '\0') {
    state.SkipWithError("set ZBIAP_BENCH_CATALOG to a catalogue file to measure it");
    return;
  }
  const std::string text = testing::readFile(path);
  if (text.empty()) {
    state.SkipWithError("ZBIAP_BENCH_CATALOG names no readable file");
    return;
  }
  readRecords(state, text);
  const auto [ours, theirs] = oursAndSimdjsonSeconds(text, 21);
  if (theirs > 0) {
    state.counters["ours_ms"] = ours * 1e3;
    state.counters["simdjson_ms"] = theirs * 1e3;
    state.counters["x_simdjson"] = ours / theirs;
  }
}
BENCHMARK(CatalogueRecordsFile)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zbiap
