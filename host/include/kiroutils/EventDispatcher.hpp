#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "kirohost/Export.hpp"

namespace kiroutils {

/// An event record. Empty here; what is sent derives from it.
class KIROHOST_EXPORT EventData {
  public:
    EventData() = default;
    EventData(const EventData&) = default;
    EventData& operator=(const EventData&) = default;
    virtual ~EventData();
};

/// Keeps listeners by event name and calls them. All operations on any thread.
class KIROHOST_EXPORT EventDispatcher {
    struct State;
    struct Node;

  public:
    /// Runs on the thread that sends, with no lock held; it may create and destroy listeners, its
    /// own included, send, and destroy the dispatcher. What it throws ends the `send` there.
    using Callback = std::function<void(const std::string& name, const EventData& data)>;

    /// Owns one registration. Move-only; default-constructed and moved-from ones hold none. It
    /// may outlive the dispatcher. After its destructor has returned no new call begins; one
    /// already begun on another thread may still run, and the destructor does not wait for it.
    class KIROHOST_EXPORT Listener {
      public:
        Listener() noexcept;
        Listener(Listener&&) noexcept;
        Listener& operator=(Listener&&) noexcept;
        Listener(const Listener&) = delete;
        Listener& operator=(const Listener&) = delete;
        ~Listener();

      private:
        friend class EventDispatcher;
        explicit Listener(std::weak_ptr<State> state, std::shared_ptr<Node> node) noexcept;
        void detach() noexcept;

        std::weak_ptr<State> fState;
        std::shared_ptr<Node> fNode;
    };

    EventDispatcher();
    ~EventDispatcher();
    EventDispatcher(const EventDispatcher&) = delete;
    EventDispatcher& operator=(const EventDispatcher&) = delete;

    /// The number of listeners registered under exactly this name.
    [[nodiscard]] std::size_t numListeners(const std::string& name) const;

    /// Registers `callback` under `name`. A name that ends in "/*" hears every event whose name
    /// begins with what stands before the "*"; any other text, the empty one included, hears
    /// itself. An empty callback throws `std::bad_function_call` when it is called.
    [[nodiscard]] Listener createListener(const std::string& name, Callback callback);

    /// Calls the listeners of `name`, exact and wildcard, in the order of their registration,
    /// each with `name` itself, on this thread. It works on a snapshot: a listener made meanwhile
    /// is not called, one destroyed meanwhile is not called any more.
    void send(const std::string& name, const EventData& data) const;

  private:
    std::shared_ptr<State> fState;
};

}  // namespace kiroutils
