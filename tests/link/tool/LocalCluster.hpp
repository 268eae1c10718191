#pragma once

#include <deque>
#include <list>
#include <memory>
#include <string>
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
        const annotated::Lock lock(fMutex);
        fListeners.push_back({subject, std::move(listener)});
        return std::make_unique<Ended>(*this, std::prev(fListeners.end()));
    }
    bool isConnected() const noexcept override { return isThere; }

    /// Hands over what was published, and what is published meanwhile.
    void deliver() {
        for (;;) {
            std::pair<std::string, Bytes> message;
            std::list<Listening> listeners;
            {
                const annotated::Lock lock(fMutex);
                if (fQueue.empty()) return;
                message = std::move(fQueue.front());
                fQueue.pop_front();
                listeners = fListeners;
            }
            for (const auto& [subject, listener] : listeners) {
                if (matches(subject, message.first)) listener(message.first, *message.second);
            }
        }
    }

    bool isThere = true;

  private:
    struct Listening {
        std::string subject;
        Listener listener;
    };
    class Ended final : public Subscription {
      public:
        Ended(LocalCluster& cluster, std::list<Listening>::iterator at)
            : fCluster(cluster), fAt(at) {}
        ~Ended() override {
            const annotated::Lock lock(fCluster.fMutex);
            fCluster.fListeners.erase(fAt);
        }

      private:
        LocalCluster& fCluster;
        const std::list<Listening>::iterator fAt;
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
    std::list<Listening> fListeners;
};

}  // namespace link_test
