#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "zbiap/foundation/value.h"

namespace zbiap {

namespace {

// Small dictionaries are searched linearly; from this size on a hash index of positions is kept.
constexpr size_t kIndexThreshold = 12;

// Open-addressing table of positions into the entry vector (slot value = position + 1, 0 =
// empty). It holds positions, not keys, so copies of a dictionary can share it.
struct Index {
  std::vector<uint32_t> slots;
  size_t mask = 0;
};

size_t keyHash(std::string_view key) { return std::hash<std::string_view>()(key); }

std::shared_ptr<Index> buildIndex(const std::vector<Dictionary::Entry>& entries) {
  auto index = std::make_shared<Index>();
  size_t capacity = 16;
  while (capacity < entries.size() * 2) capacity <<= 1;
  index->slots.assign(capacity, 0);
  index->mask = capacity - 1;
  for (size_t i = 0; i < entries.size(); ++i) {
    size_t slot = keyHash(entries[i].first) & index->mask;
    while (index->slots[slot] != 0) slot = (slot + 1) & index->mask;
    index->slots[slot] = static_cast<uint32_t>(i + 1);
  }
  return index;
}

const Index* asIndex(const std::shared_ptr<void>& p) { return static_cast<const Index*>(p.get()); }

}  // namespace

Dictionary::Dictionary() = default;
Dictionary::~Dictionary() = default;
Dictionary::Dictionary(const Dictionary&) = default;
Dictionary::Dictionary(Dictionary&&) noexcept = default;
Dictionary& Dictionary::operator=(const Dictionary&) = default;
Dictionary& Dictionary::operator=(Dictionary&&) noexcept = default;

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
  entries_.reserve(entries.size());
  for (const Entry& e : entries) set(e.first, e.second);
}

const Value* Dictionary::find(std::string_view key) const {
  if (!index_) {
    for (const Entry& e : entries_) {
      if (e.first == key) return &e.second;
    }
    return nullptr;
  }
  const Index* index = asIndex(index_);
  size_t slot = keyHash(key) & index->mask;
  while (uint32_t pos = index->slots[slot]) {
    const Entry& e = entries_[pos - 1];
    if (e.first == key) return &e.second;
    slot = (slot + 1) & index->mask;
  }
  return nullptr;
}

const Value& Dictionary::operator[](std::string_view key) const {
  const Value* v = find(key);
  return v ? *v : nilValue();
}

void Dictionary::set(std::string key, Value value) {
  if (const Value* existing = find(key)) {
    *const_cast<Value*>(existing) = std::move(value);
    return;
  }
  entries_.emplace_back(std::move(key), std::move(value));
  if (entries_.size() < kIndexThreshold) return;
  // Rebuild when the table would fill beyond half or is shared with a copy; else insert.
  const Index* index = asIndex(index_);
  if (!index || index_.use_count() > 1 || entries_.size() * 2 > index->slots.size()) {
    rebuildIndex();
    return;
  }
  auto* mutableIndex = const_cast<Index*>(index);
  size_t slot = keyHash(entries_.back().first) & mutableIndex->mask;
  while (mutableIndex->slots[slot] != 0) slot = (slot + 1) & mutableIndex->mask;
  mutableIndex->slots[slot] = static_cast<uint32_t>(entries_.size());
}

bool Dictionary::remove(std::string_view key) {
  const Value* v = find(key);
  if (!v) return false;
  size_t pos = 0;
  while (&entries_[pos].second != v) ++pos;
  entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(pos));
  index_.reset();
  if (entries_.size() >= kIndexThreshold) rebuildIndex();
  return true;
}

void Dictionary::rebuildIndex() const { index_ = buildIndex(entries_); }

bool operator==(const Dictionary& a, const Dictionary& b) {
  if (a.size() != b.size()) return false;
  if (&a == &b) return true;
  for (const Dictionary::Entry& e : a.entries_) {
    const Value* other = b.find(e.first);
    if (!other || !(*other == e.second)) return false;
  }
  return true;
}

}  // namespace zbiap
