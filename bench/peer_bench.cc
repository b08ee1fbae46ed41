// Peers measured in the same run as our own benchmarks: nlohmann's and simdjson's DOM parses of
// the catalogue, and a receipt decoder on OpenSSL alone (bench/openssl_receipt_decoder.h) over
// the same receipts as BM_ReceiptDecodeBySize and BM_ReceiptDecodeReal187. Python's asn1crypto
// is run by bench/peers/asn1crypto_receipt.py on the receipt files this program writes when the
// environment variable ZBIAP_BENCH_WRITE_RECEIPTS names a directory.
#include <benchmark/benchmark.h>
#include <simdjson.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "bench/catalog_fixture.h"
#include "bench/openssl_receipt_decoder.h"
#include "bench/receipt_fixture.h"

namespace zbiap::bench {
namespace {

const Data& writerReceipt(int purchases) {
  static std::map<int, Data> receipts;
  Data& data = receipts[purchases];
  if (data.empty()) data = makeWriterReceipt(purchases);
  return data;
}

// Writes receipt-10.der, receipt-1000.der, receipt-10000.der and receipt-real-187.der for the
// Python peer, before any benchmark runs.
const bool kReceiptFilesWritten = [] {
  const char* dir = std::getenv("ZBIAP_BENCH_WRITE_RECEIPTS");
  if (dir == nullptr || *dir == '\0') return false;
  std::filesystem::create_directories(dir);
  auto save = [&](const std::string& name, const Data& data) {
    std::ofstream(std::filesystem::path(dir) / name, std::ios::binary)
        .write(reinterpret_cast<const char*>(data.data()),
               static_cast<std::streamsize>(data.size()));
  };
  for (int n : {10, 1000, 10000}) save("receipt-" + std::to_string(n) + ".der", writerReceipt(n));
  if (Data real = realReceipt187(); !real.empty()) save("receipt-real-187.der", real);
  return true;
}();

void BM_PeerNlohmannParseCatalog(benchmark::State& state) {
  const std::string text = makeCatalogJSON(static_cast<int>(state.range(0)));
  benchmark::DoNotOptimize(nlohmann::json::parse(text).size());  // warms the heap, as ours is
  for (auto _ : state) {
    nlohmann::json document = nlohmann::json::parse(text);
    benchmark::DoNotOptimize(document.size());
    state.PauseTiming();
    document = nullptr;
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_PeerNlohmannParseCatalog)
    ->RangeMultiplier(10)
    ->Range(10, 100000)
    ->Arg(1100)
    ->Unit(benchmark::kMillisecond);

// simdjson's DOM parse alone of the fixture catalogue, with one reused parser.
void BM_PeerSimdjsonDOMParseCatalog(benchmark::State& state) {
  const simdjson::padded_string padded(bench::makeCatalogJSON(static_cast<int>(state.range(0))));
  simdjson::dom::parser parser;
  static_cast<void>(parser.parse(padded));  // sizes the parser's buffers, as ours are kept
  for (auto _ : state) {
    simdjson::dom::element root;
    if (parser.parse(padded).get(root) != simdjson::SUCCESS) state.SkipWithError("no JSON");
    benchmark::DoNotOptimize(root);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * padded.size()));
}
BENCHMARK(BM_PeerSimdjsonDOMParseCatalog)
    ->RangeMultiplier(10)
    ->Range(10, 100000)
    ->Arg(1100)
    ->Unit(benchmark::kMillisecond);

void decodeWithOpenSSL(benchmark::State& state, const Data& data) {
  OpenSSLReceipt check;
  if (!decodeReceiptWithOpenSSL(data, &check)) {
    state.SkipWithError("OpenSSL decoder rejects the receipt");
    return;
  }
  for (auto _ : state) {
    OpenSSLReceipt receipt;
    benchmark::DoNotOptimize(decodeReceiptWithOpenSSL(data, &receipt));
  }
  state.counters["purchases"] = static_cast<double>(check.purchases.size());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}

void BM_PeerOpenSSLReceiptDecodeWriter(benchmark::State& state) {
  decodeWithOpenSSL(state, writerReceipt(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_PeerOpenSSLReceiptDecodeWriter)
    ->RangeMultiplier(10)
    ->Range(10, 100000)
    ->Unit(benchmark::kMicrosecond);

void BM_PeerOpenSSLReceiptDecodeReal187(benchmark::State& state) {
  Data data = realReceipt187();
  if (data.empty()) {
    state.SkipWithError("shared test material not found");
    return;
  }
  decodeWithOpenSSL(state, data);
}
BENCHMARK(BM_PeerOpenSSLReceiptDecodeReal187)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace zbiap::bench
