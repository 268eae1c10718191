#pragma once

#include <cstddef>

/// The program that links this has its C heap and its `operator new` replaced by ones that count
/// what is allocated, and fail where they are told to: whatever allocates, a library as well.
namespace torture {

/// Whether the calling thread's allocations fail when it is their turn; not at its start. Returns
/// what held before.
bool exposeThread(bool isExposed) noexcept;

/// What a program's own end does on a thread that is exposed.
class Spared {
  public:
    Spared() noexcept : fWasExposed(exposeThread(false)) {}
    ~Spared() { exposeThread(fWasExposed); }
    Spared(const Spared&) = delete;
    Spared& operator=(const Spared&) = delete;

  private:
    const bool fWasExposed;
};

/// Which allocation fails: the `number`-th (the first is 1; 0: none), or that and all others.
struct Failure {
    std::size_t number = 0;
    bool andAllBehind = false;
};

/// From now on. With `endsByItself` there is memory again a little after the first failure.
void arm(Failure failure, bool endsByItself) noexcept;
/// Returns whether an allocation failed since `arm`.
bool disarm() noexcept;

/// Blocks that were allocated and not freed, on all threads.
long liveBlocks() noexcept;

}  // namespace torture
