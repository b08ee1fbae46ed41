#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "zbiap/foundation/value.h"

namespace zbiap {

namespace {

// Small dictionaries are searched linearly; from this size on a hash index of positions is kept.
constexpr size_t kIndexThreshold = 12;

// The index is one shared array: element 0 holds the mask, elements 1..mask+1 an open-addressing
// table of positions into the entry vector (position + 1; 0 = empty). It holds positions, not
// keys, so copies of a dictionary can share it.

// Keys are short: a word at a time, multiplied and folded, is far cheaper than the standard
// library's byte-wise hash and spreads such keys as well.
size_t keyHash(std::string_view key) {
  constexpr uint64_t kMul = 0x9E3779B97F4A7C15ull;
  uint64_t h = key.size() * kMul;
  const char* p = key.data();
  size_t n = key.size();
  for (; n >= 8; p += 8, n -= 8) {
    uint64_t word;
    std::memcpy(&word, p, 8);
    h = (h ^ word) * kMul;
    h ^= h >> 29;
  }
  if (n > 0) {
    uint64_t word = 0;
    std::memcpy(&word, p, n);
    h = (h ^ word) * kMul;
  }
  h ^= h >> 32;
  return static_cast<size_t>(h);
}

uint32_t* slotsOf(const std::shared_ptr<void>& index) {
  return static_cast<uint32_t*>(index.get());
}

// Sized for the entries the vector has room for (up to twice those present), so a dictionary
// filled after reserve() usually builds its index once.
std::shared_ptr<void> buildIndex(const std::vector<Dictionary::Entry>& entries) {
  const size_t planned = std::max(entries.size(), std::min(entries.capacity(), 2 * entries.size()));
  size_t capacity = 16;
  while (capacity < planned * 2) capacity <<= 1;
  std::shared_ptr<uint32_t[]> index = std::make_shared<uint32_t[]>(capacity + 1);
  uint32_t* slots = index.get();
  const size_t mask = capacity - 1;
  slots[0] = static_cast<uint32_t>(mask);
  for (size_t i = 0; i < entries.size(); ++i) {
    size_t slot = keyHash(entries[i].first) & mask;
    while (slots[slot + 1] != 0) slot = (slot + 1) & mask;
    slots[slot + 1] = static_cast<uint32_t>(i + 1);
  }
  return index;
}

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
  const uint32_t* slots = slotsOf(index_);
  const size_t mask = slots[0];
  size_t slot = keyHash(key) & mask;
  while (uint32_t pos = slots[slot + 1]) {
    const Entry& e = entries_[pos - 1];
    if (e.first == key) return &e.second;
    slot = (slot + 1) & mask;
  }
  return nullptr;
}

const Value& Dictionary::operator[](std::string_view key) const {
  const Value* v = find(key);
  return v ? *v : nilValue();
}

void Dictionary::set(std::string key, Value value) { slot(std::move(key)) = std::move(value); }

Value& Dictionary::slot(std::string key) {
  if (!index_) {
    for (Entry& e : entries_) {
      if (e.first == key) return e.second;
    }
    entries_.emplace_back(std::move(key), Value());
    if (entries_.size() >= kIndexThreshold) rebuildIndex();
    return entries_.back().second;
  }
  // One probe finds either the key or the empty slot where it belongs.
  uint32_t* slots = slotsOf(index_);
  const size_t mask = slots[0];
  size_t at = keyHash(key) & mask;
  while (uint32_t pos = slots[at + 1]) {
    Entry& e = entries_[pos - 1];
    if (e.first == key) return e.second;
    at = (at + 1) & mask;
  }
  entries_.emplace_back(std::move(key), Value());
  // Rebuild when the table would fill beyond half or is shared with a copy; else insert.
  if (index_.use_count() > 1 || entries_.size() * 2 > mask + 1) {
    rebuildIndex();
  } else {
    slots[at + 1] = static_cast<uint32_t>(entries_.size());
  }
  return entries_.back().second;
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
