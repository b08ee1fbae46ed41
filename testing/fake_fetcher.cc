#include "testing/fake_fetcher.h"

#include <thread>
#include <utility>

namespace zbiap::testing {

void FakeFetcher::setDefault(Outcome outcome) {
  std::lock_guard<std::mutex> lock(mutex_);
  default_ = std::move(outcome);
}

void FakeFetcher::enqueue(Outcome outcome) {
  std::lock_guard<std::mutex> lock(mutex_);
  queued_.push_back(std::move(outcome));
}

void FakeFetcher::setBundle(Outcome outcome) {
  std::lock_guard<std::mutex> lock(mutex_);
  bundle_ = std::move(outcome);
}

size_t FakeFetcher::fetchCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return fetchCount_;
}

size_t FakeFetcher::bundleFetchCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return bundleFetchCount_;
}

size_t FakeFetcher::pendingCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return pending_.size();
}

void FakeFetcher::deliver(const Caller& caller, const Outcome& outcome) {
  if (outcome.succeeds) {
    if (caller.success) caller.success(outcome.response);
  } else if (caller.failure) {
    caller.failure(outcome.error);
  }
}

void FakeFetcher::answerPending(const Outcome& outcome) {
  std::vector<Caller> pending;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    pending.swap(pending_);
  }
  for (const Caller& caller : pending) deliver(caller, outcome);
}

void FakeFetcher::dropPending() {
  std::vector<Caller> pending;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    pending.swap(pending_);
  }
  // Destroyed here, outside the lock: they may own the last reference to their caller.
}

void FakeFetcher::fetchWithSuccess(SuccessBlock success, FailureBlock failure, bool tryBundleData) {
  Caller caller{std::move(success), std::move(failure)};
  Outcome outcome;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (tryBundleData) {
      ++bundleFetchCount_;
      outcome = bundle_;
      outcome.answer = Answer::kAtOnce;
    } else {
      ++fetchCount_;
      if (!queued_.empty()) {
        outcome = std::move(queued_.front());
        queued_.pop_front();
      } else {
        outcome = default_;
      }
      if (outcome.answer == Answer::kLater) {
        pending_.push_back(std::move(caller));
        return;
      }
    }
  }
  if (outcome.answer == Answer::kOnOtherThread) {
    std::thread thread([&] { deliver(caller, outcome); });
    thread.join();
  } else {
    deliver(caller, outcome);
  }
}

std::weak_ptr<ProductInfoFetcherOwner> FakeFetcher::owner() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return owner_;
}

void FakeFetcher::setOwner(std::weak_ptr<ProductInfoFetcherOwner> owner) {
  std::lock_guard<std::mutex> lock(mutex_);
  owner_ = std::move(owner);
}

Dictionary productDictionary(const std::string& identifier, const std::string& title, bool inactive,
                             int64_t sortKey) {
  return Dictionary{{"identifier", Value(identifier)},
                    {"inactive", Value(inactive)},
                    {"title", Value(title)},
                    {"sort_key", Value(sortKey)}};
}

std::shared_ptr<ZBIAPProductInfoResponse> makeResponse(const std::vector<Dictionary>& products,
                                                       std::optional<std::string> htmlStoreHeader,
                                                       std::optional<Dictionary> featureGroups,
                                                       const std::vector<Dictionary>& features) {
  ZBIAPProductInfoResponse::ProductInfos infos;
  for (const Dictionary& product : products) {
    if (auto dpi = ZBIAPProductInfoV1::create(Value(product))) infos.push_back(dpi);
  }
  std::optional<ZBIAPProductInfoResponse::FeatureSet> featureSet;
  if (!features.empty()) {
    featureSet.emplace();
    for (const Dictionary& feature : features) {
      if (auto made = ZBIAPProductFeatureV1::create(Value(feature))) featureSet->insert(made);
    }
  }
  return ZBIAPProductInfoResponse::create(std::move(infos), std::move(htmlStoreHeader),
                                          std::move(featureGroups), std::move(featureSet));
}

}  // namespace zbiap::testing
