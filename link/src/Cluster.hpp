#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kirolink {

/// The way to other machines: messages on subjects, to whoever hears them there. It may lose what
/// it is given, at any time and silently; what matters is numbered and sent again by its users. A
/// message is at most 1 MiB. Any thread.
class Cluster {
  public:
    using Bytes = std::shared_ptr<const std::string>;
    /// Called for one message after the other of a subscription, on a thread of the cluster's,
    /// which must not be made to wait there. What it throws is logged.
    using Listener = std::function<void(std::string_view subject, std::string_view bytes)>;

    /// Destroying it ends it: when the destructor has returned no call is under way, unless it runs
    /// within that call. REQUIRES: destroyed before its cluster.
    class Subscription {
      public:
        Subscription() = default;
        Subscription(const Subscription&) = delete;
        Subscription& operator=(const Subscription&) = delete;
        virtual ~Subscription() = default;
    };

    Cluster() = default;
    Cluster(const Cluster&) = delete;
    Cluster& operator=(const Cluster&) = delete;
    virtual ~Cluster() = default;

    /// Queues a message and never waits. False: there was no room or no memory, it is lost.
    virtual bool publish(const std::string& subject, Bytes bytes) noexcept = 0;
    /// `subject` may hold "*" in the place of one of its parts. Throws std::bad_alloc and
    /// std::runtime_error with a text of one line.
    [[nodiscard]] virtual std::unique_ptr<Subscription> subscribe(const std::string& subject,
                                                                  Listener listener) = 0;
    [[nodiscard]] virtual bool isConnected() const noexcept = 0;
};

}  // namespace kirolink
