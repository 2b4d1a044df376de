// Counts the heap allocations of a whole binary: linking this library
// replaces the global allocation functions with counting ones (they still
// allocate with malloc). Used by the allocation tests and the benchmarks.
#ifndef CORVIDA_TESTS_SUPPORT_ALLOCATION_COUNTER_H_
#define CORVIDA_TESTS_SUPPORT_ALLOCATION_COUNTER_H_

namespace corvida_test {

// Heap allocations made so far by every thread of the process.
long AllocationCount();

// Heap allocations made while f() runs (by any thread).
template <typename F>
long AllocationsOf(F f) {
    const long before = AllocationCount();
    f();
    return AllocationCount() - before;
}

}  // namespace corvida_test

#endif  // CORVIDA_TESTS_SUPPORT_ALLOCATION_COUNTER_H_
