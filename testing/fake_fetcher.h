// zbiap::testing::FakeFetcher: a scriptable ZBIAPProductInfoFetcher for tests of what drives a
// fetcher (the manager above all). A server fetch takes the next queued outcome, else the
// default one, and answers as its Timing says; while one is unanswered, later fetches join it
// and hear its outcome, as the real fetcher's callers do. Bundle loads answer inside the call
// (or join a running fetch). `trace` hears every call and answer.
//
// Thread-safe; callbacks never run with the fake's lock held. Held callbacks keep whatever they
// captured alive until they are answered or dropped (dropPending()).
#ifndef ZBIAP_TESTING_FAKE_FETCHER_H_
#define ZBIAP_TESTING_FAKE_FETCHER_H_

#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "testing/fake_store.h"
#include "zbiap/catalog/product_info_fetcher.h"
#include "zbiap/catalog/product_info_response.h"
#include "zbiap/foundation/error.h"
#include "zbiap/foundation/value.h"

namespace zbiap::testing {

class FakeFetcher final : public ZBIAPProductInfoFetcher,
                          public std::enable_shared_from_this<FakeFetcher> {
 public:
  using ZBIAPProductInfoFetcher::fetchWithSuccess;

  // One scripted answer: a response (success) or an error (failure, which may be null).
  struct Outcome {
    std::shared_ptr<ZBIAPProductInfoResponse> response;
    ZBIAPErrorPtr error;
    bool succeeds = true;
    Timing when;
  };
  static Outcome succeed(std::shared_ptr<ZBIAPProductInfoResponse> response, Timing when = {}) {
    return Outcome{std::move(response), nullptr, true, when};
  }
  static Outcome fail(ZBIAPErrorPtr error, Timing when = {}) {
    return Outcome{nullptr, std::move(error), false, when};
  }
  static Outcome hold() { return fail(nullptr, {Answer::kLater, std::nullopt}); }

  static std::shared_ptr<FakeFetcher> create() {
    return std::shared_ptr<FakeFetcher>(new FakeFetcher);
  }
  FakeFetcher(const FakeFetcher&) = delete;
  FakeFetcher& operator=(const FakeFetcher&) = delete;

  // Used when no queued outcome is left; held by default.
  void setDefault(Outcome outcome);
  // Used by the next server fetch that starts, in queueing order.
  void enqueue(Outcome outcome);
  // Bundle loads answer with this at once (its timing is ignored); fails by default.
  void setBundle(Outcome outcome);
  // Answers the running fetch with `outcome` (its timing is ignored).
  void answerPending(const Outcome& outcome);
  void dropPending();
  // Set before the fetcher is used.
  TraceHook trace;

  void fetchWithSuccess(SuccessBlock success, FailureBlock failure, bool tryBundleData) override;
  std::weak_ptr<zbiap::ProductInfoFetcherOwner> owner() const override;
  void setOwner(std::weak_ptr<zbiap::ProductInfoFetcherOwner> owner) override;

 private:
  struct Caller {
    SuccessBlock success;
    FailureBlock failure;
  };
  FakeFetcher() = default;
  // Serves `callers` (all of the running fetch's when null) with `outcome`.
  void deliver(const std::string& what, const Outcome& outcome, std::vector<Caller>* callers);

  mutable std::mutex mutex_;
  Outcome default_ = hold();
  std::deque<Outcome> queued_;
  Outcome bundle_ = fail(nullptr);
  std::vector<Caller> pending_;  // the running fetch's callers; empty when none runs
  std::weak_ptr<zbiap::ProductInfoFetcherOwner> owner_;
};

// A catalogue product's JSON object: "identifier", "inactive", "title", "sort_key".
Dictionary productDictionary(const std::string& identifier, const std::string& title = "Title",
                             bool inactive = false, int64_t sortKey = 1);
// A response with DPIs built from `products` (those that do not build are left out), and the
// other parts as given.
std::shared_ptr<ZBIAPProductInfoResponse> makeResponse(
    const std::vector<Dictionary>& products, std::optional<std::string> htmlStoreHeader = {},
    std::optional<Dictionary> featureGroups = {}, const std::vector<Dictionary>& features = {});

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTING_FAKE_FETCHER_H_
