// The stores' work that grows with what they hold: the account store's reading of the server's
// product list (10 to 100,000 records) and the compound store's joins over 1 to 16 held
// stores. Both are fitted to a complexity; items are records and held stores.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "store/store_morvane_body.h"
#include "testing/fake_store.h"
#include "zbiap/store/compound_store.h"

namespace zbiap {
namespace {

// The account server's answer listing `count` products, most with an expiry.
std::string accountProductsBody(int count) {
  std::string out = R"({"is_existing_customer":true,"products":[)";
  for (int i = 0; i < count; ++i) {
    if (i > 0) out.push_back(',');
    fmt::format_to(std::back_inserter(out),
                   R"({{"product_identifier":"com.example.app.sub.{}m","purchased_at":)"
                   R"("20{:02}-{:02}-{:02}T10:{:02}:00Z")",
                   i % 12 + 1, 10 + i % 15, i % 12 + 1, i % 28 + 1, i % 60);
    if (i % 5 != 0) {
      fmt::format_to(std::back_inserter(out), R"(,"valid_until":"20{:02}-{:02}-{:02}T10:00:00Z")",
                     11 + i % 15, i % 12 + 1, i % 28 + 1);
    }
    out.push_back('}');
  }
  out += "]}";
  return out;
}

void BM_AccountStoreListBySize(benchmark::State& state) {
  const std::string body = accountProductsBody(static_cast<int>(state.range(0)));
  parseAccountProductsBody(body, nullptr);  // warms the parser's buffers and the heap
  for (auto _ : state) {
    std::optional<AccountProductsBody> list = parseAccountProductsBody(body, nullptr);
    if (!list || list->inAppPurchases.size() != static_cast<size_t>(state.range(0))) {
      state.SkipWithError("the answer was refused");
      break;
    }
    benchmark::DoNotOptimize(list->inAppPurchases.data());
    state.PauseTiming();
    list.reset();
    state.ResumeTiming();
  }
  state.SetComplexityN(state.range(0));
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["bytes"] = static_cast<double>(body.size());
}
BENCHMARK(BM_AccountStoreListBySize)
    ->RangeMultiplier(10)
    ->Range(10, 100000)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity();

// One round of a compound store over `state.range(0)` stores, each holding 100 purchases and
// selling 100 products: a product query and a restore fanned out and joined, and one held store
// reporting new purchases (which joins every store's list again).
void BM_CompoundStoreJoinsBySize(benchmark::State& state) {
  constexpr int kPerStore = 100;
  const int count = static_cast<int>(state.range(0));
  std::vector<std::shared_ptr<testing::FakeStore>> fakes;
  std::vector<std::shared_ptr<ZBIAPStore>> stores;
  std::vector<std::string> identifiers;
  for (int p = 0; p < kPerStore; ++p) identifiers.push_back(fmt::format("com.example.p{}", p));
  for (int s = 0; s < count; ++s) {
    auto fake = testing::FakeStore::create();
    std::vector<ZBIAPStoreProductPtr> products;
    std::vector<ZBIAPReceiptIAPPtr> purchases;
    for (int p = 0; p < kPerStore; ++p) {
      products.push_back(testing::FakeStore::makeProduct(identifiers[p]));
      purchases.push_back(
          ZBIAPReceiptIAP::initWithProductIdentifier(identifiers[p], 1, fmt::format("{}", s * kPerStore + p),
                                  std::nullopt, Date::fromMicrosSince1970(1600000000000000 + p),
                                  std::nullopt, std::nullopt, std::nullopt, 0, true));
    }
    fake->setInAppPurchases(std::move(purchases));
    fakes.push_back(fake);
    stores.push_back(fake);
  }
  auto compound = ZBIAPCompoundStore::initWithStores(stores);
  size_t joined = 0;
  size_t reporter = 0;
  for (auto _ : state) {
    compound->queryProducts(identifiers, [&](std::vector<ZBIAPStoreProductPtr> products,
                                             ZBIAPErrorPtr) { joined = products.size(); });
    compound->restorePurchasesWithCompletion([](ZBIAPStoreRestoreResult, ZBIAPErrorPtr) {});
    fakes[reporter++ % fakes.size()]->tellDelegateInformationsChanged();
  }
  if (joined != static_cast<size_t>(count * kPerStore) ||
      compound->inAppPurchases().size() != static_cast<size_t>(count * kPerStore)) {
    state.SkipWithError("the joins lost answers");
  }
  state.SetComplexityN(count);
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_CompoundStoreJoinsBySize)
    ->RangeMultiplier(2)
    ->Range(1, 16)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity();

}  // namespace
}  // namespace zbiap
