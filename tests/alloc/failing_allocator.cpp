// The failing allocator: link-time wrappers of malloc, calloc, realloc and
// free, and replacements of the global operator new and delete, sharing one
// countdown and one live-allocation count (see failing_allocator.h).
#include "alloc/failing_allocator.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <mutex>
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
std::atomic<unsigned long> gFailCount{1};
std::atomic<unsigned long> gSeen{0};
std::atomic<long> gLive{0};
std::atomic<const char*> gFailedCall{""};

// The TRef pool's blocks, told apart on release by their address. A fixed
// table, since nothing here may allocate; the pool doubles its block size,
// so it never holds more than a few dozen blocks.
constexpr int kMaxPoolBlocks = 64;
std::mutex gPoolMutex;
void* gPoolBlocks[kMaxPoolBlocks];
long gPoolBlockCount = 0;

bool ShouldFail(const char* call) {
  if (!gArmed.load(std::memory_order_acquire)) return false;
  const unsigned long n = gSeen.fetch_add(1);
  if (n < gFailAt.load() || n - gFailAt.load() >= gFailCount.load()) return false;
  gInjected = true;
  gFailedCall = call;
  return true;
}

void* Allocate(size_t size) {
  if (ShouldFail("new")) return nullptr;
  void* p = __real_malloc(size != 0 ? size : 1);
  if (p != nullptr) ++gLive;
  return p;
}

void Release(void* p) {
  if (p == nullptr) return;
  --gLive;
  __real_free(p);
}

void RememberPoolBlock(void* p) {
  std::lock_guard<std::mutex> lock(gPoolMutex);
  for (void*& slot : gPoolBlocks) {
    if (slot == nullptr) {
      slot = p;
      ++gPoolBlockCount;
      return;
    }
  }
  std::abort();  // more pool blocks than the table holds
}

// True when p was a pool block; it is one no longer.
bool ForgetPoolBlock(void* p) {
  std::lock_guard<std::mutex> lock(gPoolMutex);
  for (void*& slot : gPoolBlocks) {
    if (slot == p) {
      slot = nullptr;
      --gPoolBlockCount;
      return true;
    }
  }
  return false;
}

}  // namespace

extern "C" {

void* __wrap_malloc(size_t size) {
  if (ShouldFail("malloc")) {
    errno = ENOMEM;
    return nullptr;
  }
  void* p = __real_malloc(size);
  if (p != nullptr) ++gLive;
  return p;
}

void* __wrap_calloc(size_t count, size_t size) {
  if (ShouldFail("calloc")) {
    errno = ENOMEM;
    return nullptr;
  }
  void* p = __real_calloc(count, size);
  if (p != nullptr) ++gLive;
  return p;
}

// A failed realloc leaves the old block as it was.
void* __wrap_realloc(void* old, size_t size) {
  if (ShouldFail("realloc")) {
    errno = ENOMEM;
    return nullptr;
  }
  void* p = __real_realloc(old, size);
  if (old == nullptr && p != nullptr) ++gLive;
  if (old != nullptr && size == 0 && p == nullptr) --gLive;  // glibc released it
  return p;
}

void __wrap_free(void* p) { Release(p); }

}  // extern "C"

void* operator new(size_t size) {
  void* p = Allocate(size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

void* operator new[](size_t size) {
  void* p = Allocate(size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

void* operator new(size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }

// The TRef pool takes its blocks this way (boost's
// default_user_allocator_new_delete).
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  void* p = Allocate(size);
  if (p != nullptr) {
    --gLive;
    RememberPoolBlock(p);
  }
  return p;
}

void operator delete(void* p) noexcept { Release(p); }
void operator delete(void* p, size_t) noexcept { Release(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { Release(p); }

void operator delete[](void* p) noexcept {
  if (p != nullptr && ForgetPoolBlock(p)) {
    __real_free(p);  // never on the live count
    return;
  }
  Release(p);
}
void operator delete[](void* p, size_t) noexcept { operator delete[](p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { operator delete[](p); }

namespace crtest {

void FailAllocationAt(unsigned long k, unsigned long count) {
  gFailAt = k;
  gFailCount = count;
  gSeen = 0;
  gInjected = false;
  gArmed.store(true, std::memory_order_release);
}

bool StopFailingAllocations() {
  gArmed.store(false, std::memory_order_release);
  return gInjected.load();
}

unsigned long AllocationsSinceArmed() { return gSeen.load(); }

const char* FailedAllocationCall() { return gFailedCall.load(); }

long LiveAllocations() { return gLive.load(); }

long PoolBlocks() {
  std::lock_guard<std::mutex> lock(gPoolMutex);
  return gPoolBlockCount;
}

}  // namespace crtest
