// Heap accounting for benchmarks: the program's operator new and delete are replaced (in
// heap_tracker.cc) so that the bytes in use by the measuring thread, and their peak, can be
// read around one operation. Other threads only pay one thread-local test per allocation.
#ifndef ZBIAP_BENCH_HEAP_TRACKER_H_
#define ZBIAP_BENCH_HEAP_TRACKER_H_

#include <cstdint>

namespace zbiap::bench {

// Counts this thread's allocations from zero until stopped.
void startHeapTracking();
// Stops counting; returns the largest number of bytes in use meanwhile.
int64_t stopHeapTracking();
// The bytes this thread allocated since tracking started and has not freed yet.
int64_t trackedHeapInUse();
// The process's resident memory, in bytes (0 when /proc is not readable).
int64_t residentBytes();

}  // namespace zbiap::bench

#endif  // ZBIAP_BENCH_HEAP_TRACKER_H_
