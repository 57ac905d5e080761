// AllocationFaults: makes an allocation through operator new fail, for the library
// code linked into a test executable. Every test executable that links the shared
// fixtures gets this operator new; it passes every allocation on to malloc unless an
// instance lives. While one lives, the allocations of the thread that made it are
// counted (those of other threads are left alone), and the chosen one fails as a
// real shortage would: std::bad_alloc, or a null pointer for new (std::nothrow).
//
//   AllocationFaults oom(1);      // the next allocation on this thread fails
//   AllocationFaults oom(1, 48);  // the next allocation of 48 bytes fails
//
// One instance at a time.
#pragma once
#include <cstddef>

namespace nvtest {

class AllocationFaults {
public:
    static constexpr std::size_t kAnySize = 0;

    // Fails allocation number n from now (1 = the next) among those of `size` bytes
    // (or of any size), and only that one.
    explicit AllocationFaults(unsigned n, std::size_t size = kAnySize);
    ~AllocationFaults();
    AllocationFaults(const AllocationFaults&) = delete;
    AllocationFaults& operator=(const AllocationFaults&) = delete;

    // The allocations counted so far (of the chosen size), and how many failed.
    unsigned calls() const;
    unsigned failed() const;
};

} // namespace nvtest
