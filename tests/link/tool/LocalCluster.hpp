#pragma once

#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "Cluster.hpp"
#include "annotated/Mutex.hpp"

namespace link_test {

/// A cluster within one process: any thread publishes, and what was published is handed over by
/// the thread that says so.
class LocalCluster final : public kirolink::Cluster {
  public:
    bool publish(const std::string& subject, Bytes bytes) noexcept override {
        const annotated::Lock lock(fMutex);
        fQueue.emplace_back(subject, std::move(bytes));
        return true;
    }
    std::unique_ptr<Subscription> subscribe(const std::string& subject,
                                            Listener listener) override {
        const auto listening = std::make_shared<Listening>(subject, std::move(listener));
        const annotated::Lock lock(fMutex);
        fListeners.push_back(listening);
        return std::make_unique<End>(*this, std::prev(fListeners.end()));
    }
    bool isConnected() const noexcept override { return isThere; }

    /// Hands over what was published, and what is published meanwhile.
    void deliver() {
        for (;;) {
            std::pair<std::string, Bytes> message;
            Listeners listeners;
            {
                const annotated::Lock lock(fMutex);
                if (fQueue.empty()) return;
                message = std::move(fQueue.front());
                fQueue.pop_front();
                listeners = fListeners;
            }
            if (loses && loses(message.first, *message.second)) continue;
            for (const auto& one : listeners) {
                if (matches(one->subject, message.first)) one->call(message.first, *message.second);
            }
        }
    }

    bool isThere = true;
    /// Says of each message whether nobody gets it; empty: everything arrives.
    std::function<bool(std::string_view subject, std::string_view bytes)> loses;

  private:
    struct Listening {
        Listening(std::string toSubject, Listener called)
            : subject(std::move(toSubject)), listener(std::move(called)) {}

        void call(std::string_view toSubject, std::string_view bytes) {
            const std::scoped_lock lock(mutex);
            if (listener != nullptr) listener(toSubject, bytes);
        }
        /// Waits for a call that is under way; there is none after it.
        void end() {
            const std::scoped_lock lock(mutex);
            listener = nullptr;
        }

        const std::string subject;
        std::mutex mutex;  // outside the order of locks, as a thread that calls listeners is
        Listener listener;
    };
    using Listeners = std::list<std::shared_ptr<Listening>>;

    class End final : public Subscription {
      public:
        End(LocalCluster& cluster, Listeners::iterator at) : fCluster(cluster), fAt(at) {}
        ~End() override {
            (*fAt)->end();
            const annotated::Lock lock(fCluster.fMutex);
            fCluster.fListeners.erase(fAt);
        }

      private:
        LocalCluster& fCluster;
        const Listeners::iterator fAt;
    };

    /// "*" stands for one part.
    static bool matches(std::string_view pattern, std::string_view subject) {
        for (;;) {
            const auto part = pattern.substr(0, pattern.find('.'));
            const auto given = subject.substr(0, subject.find('.'));
            if (part != "*" && part != given) return false;
            const bool isLast = part.size() == pattern.size();
            if (isLast || given.size() == subject.size()) {
                return isLast && given.size() == subject.size();
            }
            pattern.remove_prefix(part.size() + 1);
            subject.remove_prefix(given.size() + 1);
        }
    }

    annotated::Mutex fMutex;
    std::deque<std::pair<std::string, Bytes>> fQueue;
    Listeners fListeners;
};

}  // namespace link_test
