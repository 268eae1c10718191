// What the library relies on in the host's event dispatcher. The order in which several listeners
// are called is the host's.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kiroutils/EventDispatcher.hpp"

namespace {

using kiroutils::EventData;
using kiroutils::EventDispatcher;
using Lines = std::vector<std::string>;
using Listener = EventDispatcher::Listener;

class Dispatcher : public testing::Test {
  protected:
    [[nodiscard]] Listener hear(const std::string& name, const std::string& who) {
        return dispatcher->createListener(name, [this, who](const std::string& sent, const auto&) {
            heard.push_back(who + " " + sent);
        });
    }
    /// What is heard, sorted.
    Lines send(const std::string& name) {
        heard.clear();
        dispatcher->send(name, EventData());
        auto sorted = heard;
        std::sort(sorted.begin(), sorted.end());
        return sorted;
    }

    std::unique_ptr<EventDispatcher> dispatcher = std::make_unique<EventDispatcher>();
    Lines heard;
};

TEST_F(Dispatcher, CallsEachListenerThatMatchesOnceOnTheSendingThread) {
    const auto a = hear("/g/*", "wide");
    const auto b = hear("/g/x", "exact");
    const auto c = hear("/g/x/*", "deep");
    const auto d = hear("/*", "all");
    const auto e = hear("/g/x", "again");
    const auto f = hear("", "empty");
    const auto g = hear("/g*", "no wildcard");
    EXPECT_EQ(send("/g/x"), (Lines{"again /g/x", "all /g/x", "exact /g/x", "wide /g/x"}));
    EXPECT_EQ(send("/g/x/"), (Lines{"all /g/x/", "deep /g/x/", "wide /g/x/"}));
    EXPECT_EQ(send("/g/*"), (Lines{"all /g/*", "wide /g/*"}));
    EXPECT_EQ(send("/g"), (Lines{"all /g"}));
    EXPECT_EQ(send("/g*"), (Lines{"all /g*", "no wildcard /g*"}));
    EXPECT_EQ(send(""), (Lines{"empty "}));
    EXPECT_EQ(dispatcher->numListeners("/g/x"), 2U);
    EXPECT_EQ(dispatcher->numListeners("/g/*"), 1U);
    EXPECT_EQ(dispatcher->numListeners("/g/y"), 0U);
    std::thread::id calledOn;
    const auto probe = dispatcher->createListener(
        "on", [&calledOn](const auto&, const auto&) { calledOn = std::this_thread::get_id(); });
    dispatcher->send("on", EventData());
    EXPECT_EQ(calledOn, std::this_thread::get_id());
}

TEST_F(Dispatcher, LetsACallbackChangeTheListeners) {
    Listener self;
    Listener other;
    Listener made;
    self = dispatcher->createListener("n", [&](const auto&, const auto&) {
        Listener(std::move(self));
        other = Listener();
        made = hear("n", "made");
        heard.emplace_back("self");
    });
    const auto kept = hear("n", "kept");
    other = hear("n", "other");
    send("n");
    EXPECT_EQ(std::count(heard.begin(), heard.end(), "self"), 1);
    EXPECT_EQ(std::count(heard.begin(), heard.end(), "kept n"), 1);
    const auto changed = std::find(heard.begin(), heard.end(), "self");
    EXPECT_EQ(std::count(changed, heard.end(), "other n"), 0) << "it was destroyed by then";
    EXPECT_EQ(send("n"), (Lines{"kept n", "made n"}));
    EXPECT_EQ(dispatcher->numListeners("n"), 2U);
}

TEST_F(Dispatcher, HoldsNoLockWhileItCalls) {
    const auto listener = dispatcher->createListener("n", [this](const auto&, const auto&) {
        auto other = std::async(std::launch::async, [this] {
            const auto made = hear("other", "made");
            dispatcher->send("other", EventData());
            return dispatcher->numListeners("other");
        });
        EXPECT_EQ(other.get(), 1U);
    });
    EXPECT_EQ(send("n"), Lines{"made other"});
}

TEST_F(Dispatcher, MayBeDestroyedInACallbackAndBeforeItsListeners) {
    auto first = dispatcher->createListener("n", [this](const auto&, const auto&) {
        dispatcher.reset();
        heard.emplace_back("destroyed");
    });
    EXPECT_EQ(send("n"), Lines{"destroyed"});
    Listener moved(std::move(first));
}

TEST_F(Dispatcher, PassesOnWhatACallbackThrows) {
    auto thrower = dispatcher->createListener(
        "n", [](const auto&, const auto&) { throw std::range_error("out"); });
    EXPECT_THROW(send("n"), std::range_error);
    thrower = hear("n", "later");
    EXPECT_EQ(send("n"), Lines{"later n"});
}

TEST_F(Dispatcher, LetsACallbacksCapturesUseItWhenTheyGo) {
    struct Captured {
        ~Captured() { (void)dispatcher->numListeners("n"); }
        EventDispatcher* dispatcher;
    };
    std::shared_ptr<Captured> captured(new Captured{dispatcher.get()});
    auto listener = dispatcher->createListener("n", [captured](const auto&, const auto&) {});
    captured.reset();
    listener = Listener();
    EXPECT_EQ(dispatcher->numListeners("n"), 0U);
}

TEST_F(Dispatcher, CallsNobodyWhoseListenerAnotherThreadHasDestroyed) {
    std::promise<std::size_t> begun;
    std::promise<void> destroyed;
    int calls = 0;
    Listener listeners[2];
    for (std::size_t index = 0; index < 2; ++index) {
        listeners[index] = dispatcher->createListener("n", [&, index](const auto&, const auto&) {
            if (++calls > 1) return;
            begun.set_value(index);
            destroyed.get_future().wait();
        });
    }
    auto sending = std::async(std::launch::async, [this] { dispatcher->send("n", EventData()); });
    listeners[1 - begun.get_future().get()] = Listener();
    destroyed.set_value();
    sending.get();
    EXPECT_EQ(calls, 1);
}

TEST_F(Dispatcher, TakesManyThreads) {
    std::atomic<int> calls = 0;
    std::vector<std::thread> threads;
    for (int number = 0; number < 3; ++number) {
        threads.emplace_back([this, &calls, name = "/t/" + std::to_string(number)] {
            const auto count = [&calls](const auto&, const auto&) { ++calls; };
            for (int round = 0; round < 200; ++round) {
                const auto exact = dispatcher->createListener(name, count);
                const auto wildcard = dispatcher->createListener(name + "/*", count);
                dispatcher->send(name, EventData());
                dispatcher->send(name + "/x", EventData());
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(calls, 3 * 200 * 2);
}

}  // namespace
