// The failing allocator (see failing_allocator.h): one countdown and one
// live-allocation count shared by malloc, calloc, realloc, free and the
// global operator new and delete. The tests run on one thread.
#include "alloc/failing_allocator.h"

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

bool gArmed = false;
bool gInjected = false;
unsigned long gFailAt = 0;
unsigned long gWidth = 1;
unsigned long gSeen = 0;
long gLive = 0;

bool ShouldFail() {
  if (!gArmed) return false;
  const unsigned long n = gSeen++;
  if (n < gFailAt || n - gFailAt >= gWidth) return false;
  gInjected = true;
  errno = ENOMEM;
  return true;
}

void* Counted(void* p) {
  gLive += p != nullptr;
  return p;
}

}  // namespace

extern "C" {
void* __wrap_malloc(size_t size) { return ShouldFail() ? nullptr : Counted(__real_malloc(size)); }
void* __wrap_calloc(size_t count, size_t size) {
  return ShouldFail() ? nullptr : Counted(__real_calloc(count, size));
}
// A failed realloc leaves the old block as it was; realloc(p, 0) may free p.
void* __wrap_realloc(void* old, size_t size) {
  if (ShouldFail()) return nullptr;
  void* p = __real_realloc(old, size);
  gLive += (old == nullptr && p != nullptr) - (old != nullptr && size == 0 && p == nullptr);
  return p;
}
void __wrap_free(void* p) {
  gLive -= p != nullptr;
  __real_free(p);
}
}  // extern "C"

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return __wrap_malloc(size != 0 ? size : 1);
}
void* operator new(size_t size) {
  void* p = operator new(size, std::nothrow);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return operator new(size, std::nothrow);
}
void operator delete(void* p) noexcept { __wrap_free(p); }
void operator delete[](void* p) noexcept { __wrap_free(p); }
void operator delete(void* p, size_t) noexcept { __wrap_free(p); }
void operator delete[](void* p, size_t) noexcept { __wrap_free(p); }

namespace crtest {

void FailAllocationAt(unsigned long k, unsigned long width) {
  gFailAt = k;
  gWidth = width;
  gSeen = 0;
  gInjected = false;
  gArmed = true;
}

bool StopFailingAllocations() {
  gArmed = false;
  return gInjected;
}

unsigned long AllocationsSinceArmed() { return gSeen; }
long LiveAllocations() { return gLive; }

}  // namespace crtest
