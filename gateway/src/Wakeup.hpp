#pragma once

#include <atomic>
#include <memory>

#include "annotated/Mutex.hpp"

namespace kirogateway {

/// Calls the gateway's thread from any other, without memory: whoever has run out of it can still
/// say so. What is asked for is kept in the one who asks, each at most once in the list.
class Wakeup {
  public:
    /// Somebody for whom the gateway's thread can be asked to do something.
    class Target {
      public:
        Target() = default;
        Target(const Target&) = delete;
        Target& operator=(const Target&) = delete;
        virtual ~Target() = default;

        /// `what`: the bits of all requests since the last call. The gateway's thread.
        virtual void serve(unsigned what) noexcept = 0;

      private:
        friend class Wakeup;
        std::atomic<unsigned> fRequested{0};
        std::shared_ptr<Target> fSelf;  ///< while it is in the list, with what follows
        Target* fNext = nullptr;
    };

    /// Throws std::system_error when there is no descriptor left.
    Wakeup();
    Wakeup(const Wakeup&) = delete;
    Wakeup& operator=(const Wakeup&) = delete;
    ~Wakeup();

    /// Has `target.serve` called with the bits of `what`, soon. `self` returns the shared owner of
    /// `target`, or nothing when it is about to go. Any thread; any lock may be held.
    template <typename Self>
    void request(Target& target, unsigned what, const Self& self) noexcept {
        // Whoever finds other requests there leaves the call to them, and holds no reference that
        // might turn out to be the last one.
        if (target.fRequested.fetch_or(what) != 0) return;
        if (std::shared_ptr<Target> owner = self()) push(std::move(owner));
    }

    /// Makes the descriptor readable.
    void ring() const noexcept;
    /// Readable when `serveAll` has something to do.
    [[nodiscard]] int descriptor() const noexcept { return fDescriptor; }
    /// The gateway's thread.
    void serveAll() noexcept;
    /// Forgets all requests, and those to come: that thread is no more.
    void close() noexcept;

  private:
    void push(std::shared_ptr<Target> target) noexcept;
    [[nodiscard]] std::shared_ptr<Target> pop() noexcept;

    const int fDescriptor;
    annotated::Mutex fMutex;
    Target* fFirst GUARDED_BY(fMutex) = nullptr;
    Target* fLast GUARDED_BY(fMutex) = nullptr;
    bool fIsClosed GUARDED_BY(fMutex) = false;
};

}  // namespace kirogateway
