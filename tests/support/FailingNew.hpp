#pragma once

#include <cstddef>
#include <functional>

/// The program that links this has its `operator new` and `operator delete` replaced, by ones over
/// the C heap, so that the sanitizers still see every block.
namespace support {

/// Runs `call`, which must not throw, with the `n`-th allocation (the first is 1) failing that it
/// makes with `operator new` on the calling thread. Answers whether it got so far: a loop over
/// n = 1, 2, ... until it did not fails each allocation of a path in turn.
bool failingNew(std::size_t n, const std::function<void()>& call);

/// How many allocations of exactly `size` bytes `call` makes on the calling thread.
std::size_t allocationsOf(std::size_t size, const std::function<void()>& call);

}  // namespace support
