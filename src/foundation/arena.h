// A reference-counted bump allocator for the many small shared nodes of a value tree read from
// JSON (strings, arrays, dictionaries): one chunk allocation serves hundreds of nodes.
//
// Each node allocated through ArenaAllocator holds a reference on the arena and releases it when
// the node is freed; the arena frees its chunks when the last reference goes. Allocation is for
// the one thread building the tree; releases may happen on any thread.
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
  // Starts with one reference, the builder's.
  static Arena* create() { return new Arena(); }
  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;

  void retain() { refs_.fetch_add(1, std::memory_order_relaxed); }
  void release() {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  void* allocate(size_t size, size_t align) {
    uintptr_t p = (reinterpret_cast<uintptr_t>(cursor_) + align - 1) & ~(align - 1);
    if (cursor_ == nullptr || p + size > reinterpret_cast<uintptr_t>(end_)) {
      grow(size + align);
      p = (reinterpret_cast<uintptr_t>(cursor_) + align - 1) & ~(align - 1);
    }
    cursor_ = reinterpret_cast<char*>(p + size);
    return reinterpret_cast<void*>(p);
  }

 private:
  struct Chunk {
    Chunk* next;
  };
  static constexpr size_t kChunkSize = 32 * 1024;

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

  std::atomic<size_t> refs_{1};
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

  T* allocate(size_t n) {
    arena_->retain();
    return static_cast<T*>(arena_->allocate(n * sizeof(T), alignof(T)));
  }
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
