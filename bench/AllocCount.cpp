#include "AllocCount.h"

#include <atomic>
#include <cstddef>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define TAMRIK_BENCH_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TAMRIK_BENCH_SANITIZED 1
#endif

namespace {
std::atomic<bool> g_counting{false};
std::atomic<uint64_t> g_allocations{0};

inline void Note() {
  if (g_counting.load(std::memory_order_relaxed)) g_allocations.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace

namespace tamrik::bench {

#if defined(TAMRIK_BENCH_SANITIZED)
bool AllocationCountingAvailable() { return false; }
#else
bool AllocationCountingAvailable() { return true; }
#endif

void StartCountingAllocations() {
  g_allocations.store(0);
  g_counting.store(true);
}

uint64_t StopCountingAllocations() {
  g_counting.store(false);
  return g_allocations.load();
}

}  // namespace tamrik::bench

#if !defined(TAMRIK_BENCH_SANITIZED)
// glibc's own entry points, under the names it exports for exactly this kind of wrapper.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

void* malloc(size_t n) {
  Note();
  return __libc_malloc(n);
}
void* calloc(size_t count, size_t n) {
  Note();
  return __libc_calloc(count, n);
}
void* realloc(void* p, size_t n) {
  Note();
  return __libc_realloc(p, n);
}
void* memalign(size_t alignment, size_t n) {
  Note();
  return __libc_memalign(alignment, n);
}
void* aligned_alloc(size_t alignment, size_t n) {
  Note();
  return __libc_memalign(alignment, n);
}
int posix_memalign(void** out, size_t alignment, size_t n) {
  Note();
  void* p = __libc_memalign(alignment, n);
  if (p == nullptr) return 12;  // ENOMEM
  *out = p;
  return 0;
}
void free(void* p) { __libc_free(p); }
}
#endif
