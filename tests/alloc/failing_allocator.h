// A test allocator that fails chosen allocations and counts the live ones.
//
// The test executables are linked with
// -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=free, so the
// library's calls of these (crrecord_testing is a static library linked into
// the executable) reach the __wrap_ functions of failing_allocator.cpp; the
// global operator new and delete (plain, array, nothrow and sized, not the
// aligned forms) are replaced, which catches the standard containers wherever
// they are instantiated.
// Allocations made inside the shared system libraries are neither failed nor
// counted, and are freed there. Under LeakSanitizer __real_malloc is the
// sanitizer's, which keeps tracking every block.
#ifndef CRRECORD_TESTS_ALLOC_FAILING_ALLOCATOR_H
#define CRRECORD_TESTS_ALLOC_FAILING_ALLOCATOR_H

namespace crtest {

// The k-th allocation from now on (0 = the next one) and the width - 1 after
// it fail: malloc, calloc and realloc return null with errno ENOMEM,
// operator new throws std::bad_alloc and its nothrow form returns null.
void FailAllocationAt(unsigned long k, unsigned long width = 1);
// Stops injecting; true when an allocation was failed since the arming.
bool StopFailingAllocations();
// Allocations seen since the arming.
unsigned long AllocationsSinceArmed();
// Allocations made and not yet released.
long LiveAllocations();

}  // namespace crtest

#endif  // CRRECORD_TESTS_ALLOC_FAILING_ALLOCATOR_H
