#include "testing/fake_fetcher.h"

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

void FakeFetcher::deliver(const std::string& what, const Outcome& outcome,
                          std::vector<Caller>* callers) {
  std::vector<Caller> running;
  if (!callers) {
    std::lock_guard<std::mutex> lock(mutex_);
    running.swap(pending_);
    callers = &running;
  }
  if (trace) {
    std::string text = what;
    if (!outcome.succeeds) {
      text += " error=" + traceText(outcome.error);
    } else if (outcome.response && outcome.response->productInfos()) {
      std::vector<std::string> identifiers;
      for (const auto& dpi : *outcome.response->productInfos()) {
        identifiers.push_back(dpi->productIdentifier());
      }
      text += " " + traceList(identifiers);
    }
    if (callers->size() != 1) text += " to " + std::to_string(callers->size()) + " callers";
    trace("ANSWER", std::move(text));
  }
  for (const Caller& caller : *callers) {
    if (!outcome.succeeds) {
      if (caller.failure) caller.failure(outcome.error);
    } else if (caller.success) {
      caller.success(outcome.response);
    }
  }
}

void FakeFetcher::answerPending(const Outcome& outcome) { deliver("fetch", outcome, nullptr); }

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
  bool joins = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!pending_.empty()) {
      pending_.push_back(std::move(caller));
      joins = true;
    } else if (tryBundleData) {
      outcome = bundle_;
    } else {
      if (queued_.empty()) {
        outcome = default_;
      } else {
        outcome = std::move(queued_.front());
        queued_.pop_front();
      }
      pending_.push_back(std::move(caller));
    }
  }
  if (trace) {
    trace("CALL",
          std::string(tryBundleData ? "fetch bundle" : "fetch") + (joins           ? " joins"
                                                                   : tryBundleData ? ""
                                                                                   : " starts"));
  }
  if (joins) return;
  if (tryBundleData) {
    std::vector<Caller> one{std::move(caller)};
    deliver("bundle", outcome, &one);
    return;
  }
  replyAs(outcome.when,
          [self = shared_from_this(), outcome] { self->deliver("fetch", outcome, nullptr); });
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
    if (auto dpi = ZBIAPProductInfoV1::initWithDictionary(Value(product))) infos.push_back(dpi);
  }
  std::optional<ZBIAPProductInfoResponse::FeatureSet> featureSet;
  if (!features.empty()) {
    featureSet.emplace();
    for (const Dictionary& feature : features) {
      if (auto made = ZBIAPProductFeatureV1::initWithDictionary(Value(feature))) featureSet->insert(made);
    }
  }
  return ZBIAPProductInfoResponse::initWithProductInfos(std::move(infos), std::move(htmlStoreHeader),
                                          std::move(featureGroups), std::move(featureSet));
}

}  // namespace zbiap::testing
