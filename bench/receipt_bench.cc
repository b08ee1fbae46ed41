// Receipt decoding: writer-made receipts of 10, 1,000 and 10,000 purchases, the real
// 187-purchase receipt of the shared test material, and any receipt named by the environment
// variable ZBIAP_BENCH_RECEIPT (ReceiptDecodeFile). Each iteration decodes the whole file into
// the receipt dictionary and the purchase records. The counter peak_x_file is the largest
// heap in use during one decode (output included) over the file's size.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <map>

#include "bench/heap_tracker.h"
#include "bench/receipt_fixture.h"
#include "testing/testdata.h"
#include "zbiap/receipt/asn1_parser.h"
#include "zbiap/receipt/receipt_parser.h"

namespace {

void decode(benchmark::State& state, const zbiap::Data& data) {
  auto parser = ZBIAPReceiptParser::initWithReceiptData(data);
  if (!parser->isLoaded()) {
    state.SkipWithError("the receipt is rejected");
    return;
  }
  size_t purchases = parser->inAppPurchases().size();
  parser->refresh();  // warm the per-thread date tools
  for (auto _ : state) {
    parser->refresh();
    benchmark::DoNotOptimize(parser->isLoaded());
  }
  // One more decode, measured for heap use. The previous results are released first.
  parser->setReceiptData(std::nullopt);
  parser->refresh();
  parser->setReceiptData(data);
  zbiap::bench::startHeapTracking();
  parser->refresh();
  const int64_t peak = zbiap::bench::stopHeapTracking();
  state.counters["purchases"] = static_cast<double>(purchases);
  state.counters["file_MB"] = static_cast<double>(data.size()) / 1e6;
  state.counters["peak_x_file"] = static_cast<double>(peak) / static_cast<double>(data.size());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}

void BM_ReceiptDecodeWriter(benchmark::State& state) {
  static std::map<int64_t, zbiap::Data> receipts;
  auto& data = receipts[state.range(0)];
  if (data.empty()) data = zbiap::bench::makeWriterReceipt(static_cast<int>(state.range(0)));
  decode(state, data);
}
BENCHMARK(BM_ReceiptDecodeWriter)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

// Writer receipts of 10 to 100,000 purchases, fitted to a complexity over the purchases.
void BM_ReceiptDecodeBySize(benchmark::State& state) {
  const zbiap::Data data = zbiap::bench::makeWriterReceipt(static_cast<int>(state.range(0)));
  decode(state, data);
  state.SetComplexityN(state.range(0));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ReceiptDecodeBySize)
    ->RangeMultiplier(10)
    ->Range(10, 100000)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity();

zbiap::Data readFile(const std::filesystem::path& path) {
  std::string bytes = zbiap::testing::readFile(path);
  return zbiap::Data(bytes.begin(), bytes.end());
}

void BM_ReceiptDecodeReal187(benchmark::State& state) {
  zbiap::Data data = zbiap::bench::realReceipt187();
  if (data.empty()) {
    state.SkipWithError("shared test material not found");
    return;
  }
  decode(state, data);
}
BENCHMARK(BM_ReceiptDecodeReal187)->Unit(benchmark::kMicrosecond);

void ReceiptDecodeFile(benchmark::State& state) {
  const char* path = std::getenv("ZBIAP_BENCH_RECEIPT");
  if (path == nullptr || *path == '\0') {
    state.SkipWithError("set ZBIAP_BENCH_RECEIPT to a receipt file to measure it");
    return;
  }
  zbiap::Data data = readFile(path);
  if (data.empty()) {
    state.SkipWithError("ZBIAP_BENCH_RECEIPT names no readable file");
    return;
  }
  decode(state, data);
}
BENCHMARK(ReceiptDecodeFile)->Unit(benchmark::kMicrosecond);

// The ASN.1 parser alone over the attribute SET of the 10,000-purchase receipt.
void BM_ASN1ParseReceiptContent(benchmark::State& state) {
  static zbiap::Data data = [] {
    zbiap::ASN1Tree container;
    zbiap::Data receipt = zbiap::bench::makeWriterReceipt(10000);
    ZBIAPASN1Parser::parseASN1Data(receipt, &container);
    // ContentInfo [1] -> [0] SignedData -> encapsulated content info [2] -> [0] -> octets.
    auto octets = container[0][1].tagValue()[0][2][1].tagValue()[0].bytes();
    return zbiap::Data(octets.begin(), octets.end());
  }();
  zbiap::ASN1Tree tree;
  for (auto _ : state) {
    benchmark::DoNotOptimize(ZBIAPASN1Parser::parseASN1Data(data, &tree));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}
BENCHMARK(BM_ASN1ParseReceiptContent)->Unit(benchmark::kMicrosecond);

}  // namespace
