#include "CHeap.hpp"

#include <algorithm>
#include <stdexcept>

#include "Replaceable.hpp"
#include "process/Immortal.hpp"

namespace kiro {

namespace {

using Allocation = Replaceable<void*(std::size_t)>;

Allocation& allocation() {
    static Immortal<Allocation> immortal(&std::malloc);
    return *immortal;
}

/// Made while there is memory: what is thrown is a copy, which shares its text.
Immortal<std::runtime_error> outOfMemory("Out of memory!");

}  // namespace

void throwOutOfMemory() { throw std::runtime_error(*outOfMemory); }

CHeapBytes allocateBytes(std::size_t size) {
    // Of no bytes malloc may return null, which is not a failure.
    void* bytes = allocation()(std::max<std::size_t>(size, 1));
    if (bytes == nullptr) throwOutOfMemory();
    return CHeapBytes(static_cast<char*>(bytes));
}

void replaceAllocate(void* (*allocate)(std::size_t)) {
    allocation().exchange(allocate != nullptr ? allocate : &std::malloc);
}

}  // namespace kiro
