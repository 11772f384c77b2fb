// The failing allocator (see failing_allocator.h): one countdown and one
// live-allocation count shared by malloc, calloc, realloc, free and the
// global operator new and delete.
#include "alloc/failing_allocator.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <new>

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* p, size_t size);
void __real_free(void* p);
}

namespace {

std::atomic<bool> gArmed{false};
std::atomic<bool> gInjected{false};
std::atomic<unsigned long> gFailAt{0};
std::atomic<unsigned long> gWidth{1};
std::atomic<unsigned long> gSeen{0};
std::atomic<long> gLive{0};

bool ShouldFail() {
  if (!gArmed.load(std::memory_order_acquire)) return false;
  const unsigned long n = gSeen.fetch_add(1);
  if (n < gFailAt.load() || n - gFailAt.load() >= gWidth.load()) return false;
  gInjected = true;
  errno = ENOMEM;
  return true;
}

void* Counted(void* p) {
  if (p != nullptr) ++gLive;
  return p;
}

void* NewBlock(size_t size) {
  return ShouldFail() ? nullptr : Counted(__real_malloc(size != 0 ? size : 1));
}

}  // namespace

extern "C" {

void* __wrap_malloc(size_t size) { return ShouldFail() ? nullptr : Counted(__real_malloc(size)); }

void* __wrap_calloc(size_t count, size_t size) {
  return ShouldFail() ? nullptr : Counted(__real_calloc(count, size));
}

// A failed realloc leaves the old block as it was.
void* __wrap_realloc(void* old, size_t size) {
  if (ShouldFail()) return nullptr;
  void* p = __real_realloc(old, size);
  if (old == nullptr && p != nullptr) ++gLive;
  if (old != nullptr && size == 0 && p == nullptr) --gLive;  // glibc released it
  return p;
}

void __wrap_free(void* p) {
  if (p == nullptr) return;
  --gLive;
  __real_free(p);
}

}  // extern "C"

void* operator new(size_t size) {
  void* p = NewBlock(size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return NewBlock(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return NewBlock(size); }
void operator delete(void* p) noexcept { __wrap_free(p); }
void operator delete[](void* p) noexcept { __wrap_free(p); }
void operator delete(void* p, size_t) noexcept { __wrap_free(p); }
void operator delete[](void* p, size_t) noexcept { __wrap_free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { __wrap_free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { __wrap_free(p); }

namespace crtest {

void FailAllocationAt(unsigned long k, unsigned long width) {
  gFailAt = k;
  gWidth = width;
  gSeen = 0;
  gInjected = false;
  gArmed.store(true, std::memory_order_release);
}

bool StopFailingAllocations() {
  gArmed.store(false, std::memory_order_release);
  return gInjected.load();
}

unsigned long AllocationsSinceArmed() { return gSeen.load(); }

long LiveAllocations() { return gLive.load(); }

}  // namespace crtest
