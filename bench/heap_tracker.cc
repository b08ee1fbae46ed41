#include "bench/heap_tracker.h"

#include <malloc.h>
#include <unistd.h>

// The replaced operator new and delete below allocate with malloc and free; GCC sees the
// free behind an inlined delete and cannot tell that the new was replaced too.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

#include <cstdlib>
#include <fstream>
#include <new>

namespace {

thread_local bool tTracking = false;
thread_local int64_t tInUse = 0;
thread_local int64_t tPeak = 0;

void track(void* p, bool add) {
  if (!tTracking || p == nullptr) return;
  auto size = static_cast<int64_t>(malloc_usable_size(p));
  tInUse += add ? size : -size;
  if (tInUse > tPeak) tPeak = tInUse;
}

}  // namespace

void* operator new(size_t size) {
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  track(p, true);
  return p;
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  void* p = std::malloc(size == 0 ? 1 : size);
  track(p, true);
  return p;
}
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
  return operator new(size, tag);
}
void operator delete(void* p) noexcept {
  track(p, false);
  std::free(p);
}
void operator delete(void* p, size_t) noexcept { operator delete(p); }
void operator delete[](void* p) noexcept { operator delete(p); }
void operator delete[](void* p, size_t) noexcept { operator delete(p); }

namespace zbiap::bench {

void startHeapTracking() {
  tInUse = tPeak = 0;
  tTracking = true;
}

int64_t stopHeapTracking() {
  tTracking = false;
  return tPeak;
}

int64_t trackedHeapInUse() { return tInUse; }

int64_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  int64_t size = 0, resident = 0;
  if (!(statm >> size >> resident)) return 0;
  return resident * sysconf(_SC_PAGESIZE);
}

}  // namespace zbiap::bench
