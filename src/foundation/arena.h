// A reference-counted bump allocator for the many small shared nodes of a value tree read from
// JSON (strings, arrays, dictionaries): one chunk allocation serves hundreds of nodes.
//
// Each node allocated through ArenaAllocator holds a reference on the arena and releases it when
// the node is freed; the arena frees its chunks when the last reference goes. Allocation is for
// the one thread building the tree, which counts the nodes' references without atomic operations
// and hands them over in finishBuilding(); releases may happen on any thread, at any time.
#ifndef ZBIAP_SRC_FOUNDATION_ARENA_H_
#define ZBIAP_SRC_FOUNDATION_ARENA_H_

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace zbiap::internal {

class Arena {
 public:
  // Starts with the builder's reference.
  static Arena* create() { return new Arena(); }
  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;

  // A node's memory, with the reference the node holds. Builder thread only.
  void* allocateNode(size_t size, size_t align) {
    ++nodes_;
    return allocate(size, align);
  }
  // The builder is done: the nodes' references become the whole count and the builder's goes.
  // While building, the count holds kBuilding in their place, which no release can exhaust.
  void finishBuilding() {
    const size_t handOver = kBuilding - nodes_;
    if (refs_.fetch_sub(handOver, std::memory_order_acq_rel) == handOver) delete this;
  }
  // A node's release.
  void release() {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

 private:
  void* allocate(size_t size, size_t align) {
    uintptr_t p = (reinterpret_cast<uintptr_t>(cursor_) + align - 1) & ~(align - 1);
    if (cursor_ == nullptr || p + size > reinterpret_cast<uintptr_t>(end_)) {
      grow(size + align);
      p = (reinterpret_cast<uintptr_t>(cursor_) + align - 1) & ~(align - 1);
    }
    cursor_ = reinterpret_cast<char*>(p + size);
    return reinterpret_cast<void*>(p);
  }

  struct Chunk {
    Chunk* next;
  };
  static constexpr size_t kChunkSize = 32 * 1024;
  static constexpr size_t kBuilding = size_t{1} << 48;

  Arena() = default;
  ~Arena() {
    while (chunks_) {
      Chunk* next = chunks_->next;
      ::operator delete(chunks_);
      chunks_ = next;
    }
  }
  void grow(size_t atLeast) {
    const size_t size = std::max(kChunkSize, atLeast + sizeof(Chunk));
    auto* chunk = static_cast<Chunk*>(::operator new(size));
    chunk->next = chunks_;
    chunks_ = chunk;
    cursor_ = reinterpret_cast<char*>(chunk + 1);
    end_ = reinterpret_cast<char*>(chunk) + size;
  }

  std::atomic<size_t> refs_{kBuilding};
  size_t nodes_ = 0;  // references taken by nodes while building
  Chunk* chunks_ = nullptr;
  char* cursor_ = nullptr;
  char* end_ = nullptr;
};

template <class T>
class ArenaAllocator {
 public:
  using value_type = T;
  explicit ArenaAllocator(Arena* arena) : arena_(arena) {}
  template <class U>
  ArenaAllocator(const ArenaAllocator<U>& other) : arena_(other.arena()) {}

  T* allocate(size_t n) { return static_cast<T*>(arena_->allocateNode(n * sizeof(T), alignof(T))); }
  void deallocate(T*, size_t) { arena_->release(); }
  Arena* arena() const { return arena_; }

  template <class U>
  friend bool operator==(const ArenaAllocator& a, const ArenaAllocator<U>& b) {
    return a.arena_ == b.arena();
  }

 private:
  Arena* arena_;
};

}  // namespace zbiap::internal

#endif  // ZBIAP_SRC_FOUNDATION_ARENA_H_
