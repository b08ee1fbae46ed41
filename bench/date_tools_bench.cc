// RFC 3339 reading (the fast path and ICU alone) and writing, and duration strings. Receipts
// carry thousands of stamps, so reading is the figure that matters.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <random>
#include <string>
#include <vector>

#include "zbiap/support/date_tools.h"

namespace {

// Stamps of the shapes receipts and servers send: "Z", "+HH:MM" and "+HHMM" zones, whole
// seconds or five fraction digits.
const std::vector<std::string>& stamps() {
  static const std::vector<std::string> texts = [] {
    std::mt19937 rng(42);
    auto pick = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    std::vector<std::string> out;
    for (int i = 0; i < 1024; ++i) {
      std::string text =
          fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", pick(2010, 2030), pick(1, 12),
                      pick(1, 28), pick(0, 23), pick(0, 59), pick(0, 59));
      if (i % 4 == 0) text += fmt::format(".{:05}", pick(0, 99999));
      switch (i % 3) {
        case 0:
          text += 'Z';
          break;
        case 1:
          text += fmt::format("{}{:02}:{:02}", i % 2 ? '+' : '-', pick(0, 12), 30 * pick(0, 1));
          break;
        default:
          text += fmt::format("{}{:02}{:02}", i % 2 ? '+' : '-', pick(0, 12), 0);
          break;
      }
      out.push_back(std::move(text));
    }
    return out;
  }();
  return texts;
}

void BM_RFC3339Read(benchmark::State& state) {
  ZBIAPDateTools& tools = ZBIAPDateTools::dateTools();
  const auto& texts = stamps();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tools.dateFromRFC3339String(texts[i++ & 1023]));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RFC3339Read);

void BM_RFC3339ReadICU(benchmark::State& state) {
  ZBIAPDateTools& tools = ZBIAPDateTools::dateTools();
  const auto& texts = stamps();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tools.dateFromRFC3339StringWithICU(texts[i++ & 1023]));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RFC3339ReadICU);

// A shape the fast path leaves to ICU ("GMT"), to show what the fallback costs.
void BM_RFC3339ReadFallback(benchmark::State& state) {
  ZBIAPDateTools& tools = ZBIAPDateTools::dateTools();
  for (auto _ : state) {
    benchmark::DoNotOptimize(tools.dateFromRFC3339String("2024-03-05T10:20:30GMT"));
  }
}
BENCHMARK(BM_RFC3339ReadFallback);

void BM_RFC3339Write(benchmark::State& state) {
  ZBIAPDateTools& tools = ZBIAPDateTools::dateTools();
  int64_t seconds = 1709634030;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        tools.rfc3339StringFromDate(zbiap::Date::fromMicrosSince1970(seconds++ * 1000000)));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RFC3339Write);

void BM_DurationString(benchmark::State& state) {
  ZBIAPDateTools& tools = ZBIAPDateTools::dateTools();
  const char* texts[] = {"1m", "12M", " 3 d", "1y", "2w", "3dd"};
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tools.componentsFromDurationString(texts[i++ % 6]));
  }
}
BENCHMARK(BM_DurationString);

}  // namespace
