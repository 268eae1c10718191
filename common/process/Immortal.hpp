#pragma once

#include <new>
#include <utility>

/// Holds a process-wide object whose destructor never runs: a thread of a service may still use
/// it while the process exits.
template <typename T>
class Immortal {
  public:
    template <typename... Arguments>
    explicit Immortal(Arguments&&... arguments) {
        ::new (static_cast<void*>(fStorage)) T(std::forward<Arguments>(arguments)...);
    }
    Immortal(const Immortal&) = delete;
    Immortal& operator=(const Immortal&) = delete;

    T& operator*() noexcept { return *std::launder(reinterpret_cast<T*>(fStorage)); }
    T* operator->() noexcept { return &**this; }

  private:
    alignas(T) unsigned char fStorage[sizeof(T)];
};
