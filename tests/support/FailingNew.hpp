#pragma once

#include <cstddef>
#include <functional>
#include <string>

/// The program that links this has its `operator new` and `operator delete` replaced, by ones over
/// the C heap, so that the sanitizers still see every block.
namespace support {

struct Outcome {
    bool failed = false;  ///< an allocation did
    std::string error;    ///< the text of the exception; empty: none
};

/// Runs `call` with the `n`-th allocation (the first is 1) failing that it makes with
/// `operator new` on the calling thread.
Outcome failingNew(std::size_t n, const std::function<void()>& call);

/// Calls `attempt` with 1, 2, ... until it answers that no allocation failed, so that each of a
/// path fails in turn. Answers how many did.
std::size_t failEachNew(const std::function<bool(std::size_t)>& attempt);

}  // namespace support
