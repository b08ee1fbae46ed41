// The catalogue fetcher: a whole fetch on loopback (OAuth-signed request through libcurl to the
// development catalogue server, RSA-checked answer, parse, records), and the parse of an answer
// alone (processResponse on the 1 MB, 1,100-product catalogue).
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "bench/catalog_fixture.h"
#include "zbiap/catalog/product_info_response.h"
#include "zbiap/catalog/product_info_v1_fetcher.h"
#include "zbiap/devserver/catalog_server.h"

namespace zbiap {
namespace {

// Waits for one fetch's outcome; the response is kept so that freeing it stays out of the timing.
class Outcome {
 public:
  ZBIAPProductInfoFetcher::SuccessBlock success() {
    return [this](std::shared_ptr<ZBIAPProductInfoResponse> response) {
      finish(std::move(response), true);
    };
  }
  ZBIAPProductInfoFetcher::FailureBlock failure() {
    return [this](ZBIAPErrorPtr) { finish(nullptr, false); };
  }
  // False when the fetch failed.
  bool wait() {
    std::unique_lock lock(mutex_);
    done_.wait(lock, [&] { return finished_; });
    finished_ = false;
    return ok_;
  }
  std::shared_ptr<ZBIAPProductInfoResponse> take() { return std::move(response_); }

 private:
  void finish(std::shared_ptr<ZBIAPProductInfoResponse> response, bool ok) {
    std::lock_guard lock(mutex_);
    response_ = std::move(response);
    ok_ = ok;
    finished_ = true;
    done_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  bool ok_ = false;
  std::shared_ptr<ZBIAPProductInfoResponse> response_;
};

// Argument: products in the served catalogue (0: the development server's example catalogue).
void BM_FetchRoundTripLoopback(benchmark::State& state) {
  auto server = CatalogServer::create();
  if (!server ||
      (state.range(0) > 0 &&
       !server->setCatalog(bench::makeCatalogJSON(static_cast<int>(state.range(0))))) ||
      !server->start()) {
    state.SkipWithError("no catalogue server");
    return;
  }
  auto fetcher = ZBIAPProductInfoV1Fetcher::initWithBaseURL(
      server->baseURL(), "application/json", server->consumerKey(), server->consumerSecret(),
      server->publicKeyBase64());
  Outcome outcome;
  for (auto _ : state) {
    fetcher->fetchWithSuccess(outcome.success(), outcome.failure());
    if (!outcome.wait()) {
      state.SkipWithError("fetch failed");
      break;
    }
    state.PauseTiming();
    outcome.take().reset();
    state.ResumeTiming();
  }
  state.counters["bytes"] = static_cast<double>(server->catalog().size());
}
BENCHMARK(BM_FetchRoundTripLoopback)
    ->Arg(0)
    ->Arg(1100)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_FetcherProcessResponse(benchmark::State& state) {
  const std::string text = bench::makeCatalogJSON(static_cast<int>(state.range(0)));
  auto fetcher = ZBIAPProductInfoV1Fetcher::initWithBaseURL("http://127.0.0.1/", "application/json",
                                                            "bench", "");
  Outcome outcome;
  auto blocks = std::make_shared<ZBIAPProductInfoV1FetcherBlocks>();
  blocks->success = outcome.success();
  blocks->failure = outcome.failure();
  for (auto _ : state) {
    fetcher->processResponse(text, {blocks});
    if (!outcome.wait()) {
      state.SkipWithError("answer rejected");
      break;
    }
    state.PauseTiming();
    outcome.take().reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.counters["bytes"] = static_cast<double>(text.size());
}
BENCHMARK(BM_FetcherProcessResponse)->Arg(1100)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zbiap
