#pragma once

#include <cstddef>

namespace support {

/// While it lives, the `n`-th allocation (the first is 1) that the calling thread makes with
/// `operator new` fails with `std::bad_alloc`; all others succeed. One at a time on a thread.
///
/// A loop over n = 1, 2, ... until `hasFailed()` answers false fails each allocation of a path in
/// turn. The program that links this has its `operator new` and `operator delete` replaced, by ones
/// over the C heap, so that the sanitizers still see every block.
class FailingNew {
  public:
    explicit FailingNew(std::size_t n);
    ~FailingNew();
    FailingNew(const FailingNew&) = delete;
    FailingNew& operator=(const FailingNew&) = delete;

    [[nodiscard]] bool hasFailed() const;
};

/// Counts the allocations of exactly `size` bytes that the calling thread makes while it lives.
class AllocationCount {
  public:
    explicit AllocationCount(std::size_t size);
    ~AllocationCount();
    AllocationCount(const AllocationCount&) = delete;
    AllocationCount& operator=(const AllocationCount&) = delete;

    [[nodiscard]] std::size_t count() const;
};

}  // namespace support
