#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace kiro {

struct CHeapFree {
    void operator()(char* bytes) const noexcept { std::free(bytes); }
};

/// Bytes from `std::malloc`, which the host's buffers free with `std::free`.
using CHeapBytes = std::unique_ptr<char, CHeapFree>;

/// Throws `std::runtime_error` ("Out of memory!"), which takes no memory itself. Any thread.
[[noreturn]] void throwOutOfMemory();

/// `size` bytes, never null. Throws as above. Any thread.
CHeapBytes allocateBytes(std::size_t size);

/// Has `allocateBytes` ask `allocate` instead of `std::malloc`; null restores that. For tests.
void replaceAllocate(void* (*allocate)(std::size_t));

}  // namespace kiro
