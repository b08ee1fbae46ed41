// Sorting DPIs by the subscription duration written at the end of their product identifiers
// ("com.example.pro.1m" with the prefix "com.example.pro." lasts one month).
#include <algorithm>
#include <string>
#include <vector>

#include "zbiap/manager/manager.h"
#include "zbiap/support/date_tools.h"

namespace {

// What the comparison needs of one DPI, worked out once instead of at every comparison.
struct SortKey {
  enum Rank { kDuration = 0, kUnreadableDuration = 1, kNoDuration = 2 };
  Rank rank = kNoDuration;
  zbiap::Date date;  // For kDuration: the duration's components read as a calendar date.
  const std::string* identifier = nullptr;
  size_t index = 0;
};

SortKey makeKey(const ZBIAPProductInfo& dpi, size_t index, const std::vector<std::string>& prefixes,
                ZBIAPDateTools& tools) {
  SortKey key;
  key.identifier = &dpi.productIdentifier();
  key.index = index;
  const std::string& identifier = dpi.productIdentifier();
  for (const std::string& prefix : prefixes) {
    if (!identifier.starts_with(prefix)) continue;
    key.rank = SortKey::kUnreadableDuration;
    std::string_view duration = std::string_view(identifier).substr(prefix.size());
    if (auto components = tools.componentsFromDurationString(duration)) {
      // Fields the duration leaves unset take their lowest values, so "1m" and "1y" become
      // dates that order as the durations do.
      if (auto date = tools.dateFromComponents(*components)) {
        key.rank = SortKey::kDuration;
        key.date = *date;
      }
    }
    break;
  }
  return key;
}

bool comesBefore(const SortKey& a, const SortKey& b) {
  if (a.rank != b.rank) return a.rank < b.rank;
  if (a.rank != SortKey::kDuration) return false;
  if (a.date != b.date) return a.date < b.date;
  return *a.identifier < *b.identifier;
}

}  // namespace

ZBIAPManager::ProductInfos ZBIAPManager::sortDynamicProductInfos(
    const ProductInfos& dpis, const std::vector<std::string>& prefixes) {
  ZBIAPDateTools& tools = ZBIAPDateTools::dateTools();
  static const std::string kEmpty;
  std::vector<SortKey> keys;
  keys.reserve(dpis.size());
  for (size_t i = 0; i < dpis.size(); ++i) {
    if (dpis[i]) {
      keys.push_back(makeKey(*dpis[i], i, prefixes, tools));
    } else {
      keys.push_back(SortKey{SortKey::kNoDuration, zbiap::Date(), &kEmpty, i});
    }
  }
  // Stable, so DPIs that compare equal keep their order, which callers find least surprising.
  std::stable_sort(keys.begin(), keys.end(), comesBefore);
  ProductInfos sorted;
  sorted.reserve(dpis.size());
  for (const SortKey& key : keys) sorted.push_back(dpis[key.index]);
  return sorted;
}
