// zbiap::SmallSet: an unordered set kept as a vector in insertion order, for the catalogue's many
// small sets (a product's features, its feature descriptions). Membership follows Hash and Equal
// as std::unordered_set's does; small sets compare elements directly, larger ones also keep an
// index by hash. Copyable; not thread-safe for concurrent mutation, like the standard containers.
#ifndef ZBIAP_CATALOG_SMALL_SET_H_
#define ZBIAP_CATALOG_SMALL_SET_H_

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <unordered_map>
#include <utility>
#include <vector>

namespace zbiap {

template <typename T, typename Hash = std::hash<T>, typename Equal = std::equal_to<T>>
class SmallSet {
 public:
  using value_type = T;
  using size_type = size_t;
  using const_iterator = typename std::vector<T>::const_iterator;
  using iterator = const_iterator;

  SmallSet() = default;
  SmallSet(std::initializer_list<T> values) : SmallSet(values.begin(), values.end()) {}
  template <typename Iterator>
  SmallSet(Iterator first, Iterator last) {
    for (; first != last; ++first) insert(*first);
  }

  // Adds `value` unless an equal element is present; returns the element and whether it was
  // added.
  std::pair<const_iterator, bool> insert(T value) {
    const size_t found = position(value);
    if (found != kNone) return {elements_.begin() + static_cast<ptrdiff_t>(found), false};
    elements_.push_back(std::move(value));
    if (!index_.empty()) {
      index_.emplace(Hash()(elements_.back()), elements_.size() - 1);
    } else if (elements_.size() > kLinearLimit) {
      rebuildIndex();
    }
    return {elements_.end() - 1, true};
  }
  // Removes the element equal to `value`; returns how many were removed (0 or 1).
  size_t erase(const T& value) {
    const size_t found = position(value);
    if (found == kNone) return 0;
    elements_.erase(elements_.begin() + static_cast<ptrdiff_t>(found));
    index_.clear();
    if (elements_.size() > kLinearLimit) rebuildIndex();
    return 1;
  }
  void clear() {
    elements_.clear();
    index_.clear();
  }
  void reserve(size_t n) { elements_.reserve(n); }

  const_iterator find(const T& value) const {
    const size_t found = position(value);
    return found == kNone ? elements_.end() : elements_.begin() + static_cast<ptrdiff_t>(found);
  }
  size_t count(const T& value) const { return find(value) == elements_.end() ? 0 : 1; }
  bool contains(const T& value) const { return count(value) != 0; }

  size_t size() const { return elements_.size(); }
  bool empty() const { return elements_.empty(); }
  const_iterator begin() const { return elements_.begin(); }
  const_iterator end() const { return elements_.end(); }

  // The same number of elements, each of one found in the other.
  friend bool operator==(const SmallSet& a, const SmallSet& b) {
    if (a.size() != b.size()) return false;
    for (const T& value : a) {
      if (!b.contains(value)) return false;
    }
    return true;
  }

 private:
  static constexpr size_t kLinearLimit = 16;
  static constexpr size_t kNone = static_cast<size_t>(-1);

  // Small sets are searched without hashing at all.
  size_t position(const T& value) const {
    if (index_.empty()) {
      for (size_t i = 0; i < elements_.size(); ++i) {
        if (Equal()(elements_[i], value)) return i;
      }
      return kNone;
    }
    auto [first, last] = index_.equal_range(Hash()(value));
    for (; first != last; ++first) {
      if (Equal()(elements_[first->second], value)) return first->second;
    }
    return kNone;
  }
  void rebuildIndex() {
    index_.clear();
    index_.reserve(elements_.size());
    for (size_t i = 0; i < elements_.size(); ++i) index_.emplace(Hash()(elements_[i]), i);
  }

  std::vector<T> elements_;
  // Hash -> position, kept once the set outgrows kLinearLimit; empty before.
  std::unordered_multimap<size_t, size_t> index_;
};

}  // namespace zbiap

#endif  // ZBIAP_CATALOG_SMALL_SET_H_
