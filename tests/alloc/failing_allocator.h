// A test allocator that fails one chosen allocation, counts the allocations
// that are alive, and sweeps an operation over every allocation it makes.
//
// How allocations are caught. The test executables are linked with
// -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=free, so every call
// of these from the library's objects (crrecord_testing is a static library,
// linked into the executable) reaches the __wrap_ functions of
// failing_allocator.cpp, and the global operator new and delete (every
// variant but the aligned ones) are replaced, which catches the standard
// containers of the library wherever they are instantiated. The
// allocations made inside the shared system libraries (the C++ runtime's own
// exception objects, OpenSSL's initialisation) are neither failed nor
// counted, but they are also freed there.
//
// Why not define malloc itself: under LeakSanitizer the sanitizer runtime
// owns malloc and an executable's own malloc would hide every allocation
// from it. The link-time wrappers work the same with and without the
// sanitizer: __real_malloc is then the sanitizer's malloc, which keeps
// tracking every block, so the LeakSanitizer variant of this test
// (alloc_failure_lsan_test) checks for leaks on its own besides the
// live-allocation count checked here. The AddressSanitizer, ThreadSanitizer
// and fuzzing builds leave these tests out: their runtimes replace the
// allocator too, and the two variants here already cover leaks.
//
// The TRef pool keeps the blocks it takes (with nothrow new[]) until the
// process ends. They are counted apart, as pool blocks, and left out of the
// live count that the sweeps compare.
#ifndef CRRECORD_TESTS_ALLOC_FAILING_ALLOCATOR_H
#define CRRECORD_TESTS_ALLOC_FAILING_ALLOCATOR_H

#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "crrecord/platform/status.h"

namespace crtest {

// The k-th allocation from now on (0 = the next one) fails, and the
// count - 1 after it: malloc, calloc and realloc return null with errno
// ENOMEM, operator new throws std::bad_alloc and its nothrow form returns
// null. The allocations after those succeed.
void FailAllocationAt(unsigned long k, unsigned long count = 1);
// Stops injecting; true when the chosen allocation was reached and failed.
bool StopFailingAllocations();
// Allocations seen since FailAllocationAt.
unsigned long AllocationsSinceArmed();
// The call whose allocation was failed last: "malloc", "calloc", "realloc"
// or "new".
const char* FailedAllocationCall();
// Allocations made and not yet released, pool blocks left out.
long LiveAllocations();
// Blocks the TRef pool holds (live nothrow new[] allocations).
long PoolBlocks();

// What one run of an operation did.
struct Outcome {
  enum Kind { kCompleted, kCrErrno, kBadAlloc, kOtherException };
  bool injected = false;  // the chosen allocation was reached and failed
  Kind kind = kCompleted;
  cr_status_t status = 0;  // of a Cr_ErrnoException, or what the op returned
  std::string message;     // of a Cr_ErrnoException
  long liveDelta = 0;      // live allocations after the op minus before it

  // "bad_alloc", "throw 22: <message>", "return 22", "return 0".
  std::string Describe() const {
    switch (kind) {
      case kBadAlloc: return "bad_alloc";
      case kCrErrno: return "throw " + std::to_string(status) + ": " + message;
      case kOtherException: return "other exception: " + message;
      case kCompleted: break;
    }
    return "return " + std::to_string(status);
  }
};

namespace internal {

// Room for an exception's text, taken before anything is counted, so that
// copying the text into the outcome allocates nothing that counts.
constexpr size_t kMessageRoom = 2048;

// Fills `out`, which comes with its message room taken.
template <class Op, class State>
void RunArmed(unsigned long k, Op& op, State& state, Outcome& out) {
  const long before = LiveAllocations();
  // Nothing allocates between the failure and StopFailingAllocations: the
  // exception's text is copied only afterwards.
  FailAllocationAt(k);
  try {
    if constexpr (std::is_void_v<decltype(op(state))>) {
      op(state);
      out.injected = StopFailingAllocations();
    } else {
      const cr_status_t result = static_cast<cr_status_t>(op(state));
      out.injected = StopFailingAllocations();
      out.status = result;
    }
  } catch (const Cr_ErrnoException& e) {
    out.injected = StopFailingAllocations();
    out.kind = Outcome::kCrErrno;
    out.status = e.GetStatus();
    out.message = e.what();
  } catch (const std::bad_alloc&) {
    out.injected = StopFailingAllocations();
    out.kind = Outcome::kBadAlloc;
  } catch (const std::exception& e) {
    out.injected = StopFailingAllocations();
    out.kind = Outcome::kOtherException;
    out.message = e.what();
  }
  out.liveDelta = LiveAllocations() - before;
}

constexpr unsigned long kSweepLimit = 10000;

}  // namespace internal

// Runs `op` with its k-th allocation failing, for k = 0, 1, 2, ..., until a
// run reaches no injected failure, and returns the outcomes of the runs that
// had one, in order (the run without failure is not among them).
//
// `setup` makes a fresh state for each run, unarmed; `op(state)` is the
// operation under test (void, or returning a status); `check(state,
// outcome)` looks at the state after each run, the clean one included. Once
// the state is gone, the live-allocation count must be where it was before
// `setup`: whatever a failed or successful run leaves, the state's
// destructor must release.
template <class Setup, class Op, class Check>
std::vector<Outcome> SweepAllocationFailures(Setup setup, Op op, Check check) {
  std::vector<Outcome> failures;
  for (unsigned long k = 0; k < internal::kSweepLimit; ++k) {
    Outcome out;
    out.message.reserve(internal::kMessageRoom);
    const long base = LiveAllocations();
    {
      auto state = setup();
      internal::RunArmed(k, op, state, out);
      check(state, out);
    }
    EXPECT_EQ(LiveAllocations(), base)
        << "allocations left behind after failing allocation " << k << ": " << out.Describe();
    if (!out.injected) return failures;
    failures.push_back(out);
  }
  ADD_FAILURE() << "the operation never completed without an injected failure";
  return failures;
}

// The same over an object that lives outside the sweep and that a failed
// run must leave as it was: after every injected failure the
// live-allocation count must be back where it was before the run. The run
// that succeeds may change the object and keep what it allocated.
template <class Op, class Check>
std::vector<Outcome> SweepAllocationFailures(Op op, Check check) {
  struct NoState {};
  auto setup = [] { return NoState{}; };
  auto opOnState = [&op](NoState&) { return op(); };
  std::vector<Outcome> failures;
  for (unsigned long k = 0; k < internal::kSweepLimit; ++k) {
    NoState state = setup();
    Outcome out;
    out.message.reserve(internal::kMessageRoom);
    internal::RunArmed(k, opOnState, state, out);
    check(out);
    if (!out.injected) return failures;
    EXPECT_EQ(out.liveDelta, 0) << "failing allocation " << k << " (" << out.Describe()
                                << ") changed the live allocations";
    failures.push_back(out);
  }
  ADD_FAILURE() << "the operation never completed without an injected failure";
  return failures;
}

inline std::vector<std::string> Describe(const std::vector<Outcome>& outcomes) {
  std::vector<std::string> texts;
  for (const Outcome& o : outcomes) texts.push_back(o.Describe());
  return texts;
}

}  // namespace crtest

#endif  // CRRECORD_TESTS_ALLOC_FAILING_ALLOCATOR_H
