// What the library relies on in the rest of the host: dispatcher, logs, tokens, waits, tasks,
// storage and texts.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <limits>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bedrock/json/Value.hpp"
#include "bedrock/text/convertUTF16.hpp"
#include "bedrock/usm/thisthread.hpp"
#include "component_Quarn/catalog_graphics.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kiroutils/CompletionToken.hpp"
#include "kiroutils/EventDispatcher.hpp"
#include "kiroutils/KiroBlockingOperation.hpp"
#include "kiroutils/Logger.hpp"
#include "kiroutils/UniqueIDGenerator.hpp"
#include "kiroutils/timestamp.hpp"
#include "qvm/detail/taskRouterAccess.hpp"
#include "qvm/messages.hpp"
#include "taskrouter/TaskRouter.hpp"

namespace {

using kiroutils::EventData;
using kiroutils::EventDispatcher;
using kiroutils::KiroBlockingOperation;
using kiroutils::KiroTerminatingCondition;
using kiroutils::TerminatingConditionException;
using std::chrono::seconds;

using Lines = std::vector<std::string>;
using Listener = EventDispatcher::Listener;

template <typename Function>
void onAnotherThread(Function function) {
    std::thread(std::move(function)).join();
}

// --- Dispatcher ------------------------------------------------------------------------------

class Dispatcher : public testing::Test {
  protected:
    [[nodiscard]] Listener hear(const std::string& name, const std::string& who) {
        return dispatcher->createListener(name, [this, who](const std::string& sent, const auto&) {
            heard.push_back(who + " " + sent);
        });
    }
    Lines send(const std::string& name) {
        heard.clear();
        dispatcher->send(name, EventData());
        return heard;
    }

    std::unique_ptr<EventDispatcher> dispatcher = std::make_unique<EventDispatcher>();
    Lines heard;
};

TEST_F(Dispatcher, CallsExactAndWildcardListenersInTheOrderOfRegistration) {
    const auto a = hear("/g/*", "wide");
    const auto b = hear("/g/x", "exact");
    const auto c = hear("/g/x/*", "deep");
    const auto d = hear("/*", "all");
    const auto e = hear("/g/x", "again");
    const auto f = hear("", "empty");
    const auto g = hear("/g*", "no wildcard");
    EXPECT_EQ(send("/g/x"), (Lines{"wide /g/x", "exact /g/x", "all /g/x", "again /g/x"}));
    EXPECT_EQ(send("/g/x/"), (Lines{"wide /g/x/", "deep /g/x/", "all /g/x/"}));
    EXPECT_EQ(send("/g/*"), (Lines{"wide /g/*", "all /g/*"}));
    EXPECT_EQ(send("/g"), (Lines{"all /g"}));
    EXPECT_EQ(send("/g*"), (Lines{"all /g*", "no wildcard /g*"}));
    EXPECT_EQ(send(""), (Lines{"empty "}));
    EXPECT_EQ(dispatcher->numListeners("/g/x"), 2U);
    EXPECT_EQ(dispatcher->numListeners("/g/*"), 1U);
    EXPECT_EQ(dispatcher->numListeners("/g/y"), 0U);
}

TEST_F(Dispatcher, WorksOnASnapshotWhileCallbacksChangeTheListeners) {
    Listener self;
    Listener other;
    Listener made;
    self = dispatcher->createListener("n", [&](const auto&, const auto&) {
        heard.emplace_back("self");
        Listener(std::move(self));
        other = Listener();
        made = hear("n", "made");
    });
    const auto kept = hear("n", "kept");
    other = hear("n", "other");
    EXPECT_EQ(send("n"), (Lines{"self", "kept n"}));
    EXPECT_EQ(send("n"), (Lines{"kept n", "made n"}));
    EXPECT_EQ(dispatcher->numListeners("n"), 2U);
}

TEST_F(Dispatcher, MayBeDestroyedInACallbackAndBeforeItsListeners) {
    auto first = dispatcher->createListener("n", [this](const auto&, const auto&) {
        dispatcher.reset();
        heard.emplace_back("destroyed");
    });
    EXPECT_EQ(send("n"), Lines{"destroyed"});
    Listener moved(std::move(first));
}

TEST_F(Dispatcher, EndsASendAtAnException) {
    const auto first = hear("n", "first");
    auto thrower = dispatcher->createListener(
        "n", [](const auto&, const auto&) { throw std::range_error("out"); });
    const auto last = hear("n", "last");
    EXPECT_THROW(send("n"), std::range_error);
    EXPECT_EQ(heard, Lines{"first n"});
    thrower = dispatcher->createListener("n", nullptr);
    EXPECT_THROW(send("n"), std::bad_function_call);
    EXPECT_EQ(heard, (Lines{"first n", "last n"}));
}

TEST_F(Dispatcher, LetsACallbacksCapturesUseItWhenTheyGo) {
    struct Captured {
        ~Captured() { numListeners = dispatcher->numListeners("n"); }
        EventDispatcher* dispatcher;
        std::size_t& numListeners;
    };
    std::size_t numListeners = 99;
    std::shared_ptr<Captured> captured(new Captured{dispatcher.get(), numListeners});
    auto listener = dispatcher->createListener("n", [captured](const auto&, const auto&) {});
    captured.reset();
    listener = Listener();
    EXPECT_EQ(numListeners, 0U);
}

TEST_F(Dispatcher, CallsNobodyWhoseListenerAnotherThreadHasDestroyed) {
    std::promise<void> begun;
    std::promise<void> destroyed;
    const auto first = dispatcher->createListener("n", [&](const auto&, const auto&) {
        begun.set_value();
        destroyed.get_future().wait();
    });
    auto second = hear("n", "second");
    auto sending = std::async(std::launch::async, [this] { dispatcher->send("n", EventData()); });
    begun.get_future().wait();
    second = Listener();
    destroyed.set_value();
    sending.get();
    EXPECT_EQ(heard, Lines());
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

// --- Small utilities -------------------------------------------------------------------------

TEST(CompletionToken, IsEqualByIdentifierAndDefaultOnlyWithoutStamps) {
    kiroutils::CompletionToken token("7");
    auto stamped = token;
    stamped.getTimeStamps().clientSend = 3;
    EXPECT_EQ(stamped, token);
    EXPECT_EQ(stamped.convertToString(), "7");
    EXPECT_FALSE(token == kiroutils::CompletionToken("8"));
    EXPECT_FALSE(token.isDefaultToken());
    EXPECT_TRUE(kiroutils::CompletionToken().isDefaultToken());
    kiroutils::CompletionToken onlyStamp;
    onlyStamp.getTimeStamps().serverReceive = 1;
    EXPECT_FALSE(onlyStamp.isDefaultToken());
}

TEST(UniqueIDGenerator, NeverRepeatsItself) {
    kiroutils::UniqueIDGenerator one;
    kiroutils::UniqueIDGenerator other;
    std::set<std::string> ids;
    for (int round = 0; round < 100; ++round) {
        ids.insert(one.nextID());
        ids.insert(other.nextID());
    }
    EXPECT_EQ(ids.size(), 200U);
    for (const char character : *ids.begin()) EXPECT_TRUE(character > ' ' && character < '\x7f');
}

TEST(Timestamp, IsMicrosecondsAndSurvivesAPagesNumbers) {
    const auto year2020 = std::uint64_t{1'577'836'800} * 1'000'000;
    EXPECT_GT(kiroutils::timestamp(), year2020);
    EXPECT_LT(kiroutils::timestamp(), std::uint64_t{1} << 53U);
}

TEST(Logger, KeepsTheLastEntriesOfAnEnabledHistory) {
    auto& logger = kiroutils::Logger::instance();
    const std::string name = "conformance";
    logger.log(name, "before");
    EXPECT_FALSE(logger.isHistoryEnabled(name));
    logger.setHistoryEnabled(name, true, 3, true);
    EXPECT_TRUE(logger.isHistoryEnabled(name));
    EXPECT_FALSE(logger.isHistoryEnabled("conformance, another"));
    for (const char* text : {"a", "b", "c", "d"}) logger.log(name, text);
    logger.log("conformance, another", "x");
    EXPECT_EQ(logger.history(name), (Lines{"b", "c", "d"}));
    logger.setHistoryEnabled(name, true, 2, true);
    EXPECT_EQ(logger.history(name), (Lines{"c", "d"}));
    logger.clearHistory(name);
    logger.log(name, "e");
    EXPECT_EQ(logger.history(name), Lines{"e"});
    logger.setHistoryEnabled(name, false, 2, false);
    logger.log(name, "after");
    EXPECT_EQ(logger.history(name), Lines());
}

// --- Waits and tasks -------------------------------------------------------------------------

boost::future<void> enqueue(qnutil::contextmgr::QcrID context, std::function<void()> function) {
    const taskrouter::RunOptions options{taskrouter::WhenToDequeue::kWhenIdle, ""};
    const auto router = qvm::detail::getTaskRouterAndSinks(context, options).router;
    taskrouter::PackagedTaskIIP<void> task({std::move(function)}, "conformance");
    return router->enqueueWithFuture(std::move(task), options, qvm::detail::createID());
}

void waitUntil(std::function<bool()> condition, std::function<void()> pump = nullptr,
               seconds timeout = seconds::max()) {
    KiroBlockingOperation::waitOrThrow(
        std::make_unique<KiroTerminatingCondition>("conformance", std::move(condition), timeout),
        std::move(pump));
}

/// A condition with an error pending.
class Failing : public KiroTerminatingCondition {
  public:
    Failing(bool holds, seconds timeout)
        : KiroTerminatingCondition(
              "failing", [holds] { return holds; }, timeout) {}
    bool doThrowIfError() override {
        respondToError("new view", component_Quarn::catalog_graphics::key_newView());
    }
};

TEST(BlockingWait, LooksAtTheConditionThenAtTheTimeThenAtErrors) {
    const auto wait = [](bool holds, seconds timeout) {
        KiroBlockingOperation::waitOrThrow(std::make_unique<Failing>(holds, timeout), nullptr);
    };
    using NewView = bedrock::core::except::Exception<component_Quarn::catalog_graphics::key_newView,
                                                     TerminatingConditionException>;
    EXPECT_NO_THROW(wait(true, seconds(0)));
    EXPECT_THROW(wait(false, seconds::max()), NewView);
    try {
        wait(false, seconds(0));
        FAIL() << "the wait ended normally";
    } catch (const NewView&) {
        FAIL() << "the error came before the time-out";
    } catch (const TerminatingConditionException&) {
    }
}

TEST(BlockingWait, RunsTasksOfOtherThreadsAndThePump) {
    const auto context = graphics_util::getContextQCRID();
    const auto waiting = std::this_thread::get_id();
    bool ran = false;
    std::thread::id ranOn;
    int pumped = 0;
    std::promise<void> begun;
    std::thread other([&] {
        begun.get_future().wait();
        (void)enqueue(context, [&] {
            ranOn = std::this_thread::get_id();
            ran = true;
        });
    });
    waitUntil([&ran] { return ran; },
              [&] {
                  if (pumped++ == 0) begun.set_value();
              });
    other.join();
    EXPECT_EQ(ranOn, waiting);
    EXPECT_GT(pumped, 0);
}

TEST(BlockingWait, IsLeftByWhatTheConditionOrThePumpThrows) {
    EXPECT_THROW(waitUntil([]() -> bool { throw std::range_error("condition"); }),
                 std::range_error);
    EXPECT_THROW(waitUntil(nullptr, [] { throw std::range_error("pump"); }), std::range_error);
}

TEST(Tasks, HandBackWhatTheyThrow) {
    struct Derived : std::runtime_error {
        using std::runtime_error::runtime_error;
    };
    auto future = enqueue(graphics_util::getContextQCRID(), [] { throw Derived("kept"); });
    waitUntil([&future] { return future.is_ready(); });
    EXPECT_THROW(future.get(), Derived);
}

TEST(Contexts, AreTheMainOneOnAForeignThread) {
    const auto main = graphics_util::getContextQCRID();
    EXPECT_TRUE(utIsSignalThread());
    onAnotherThread([main] {
        EXPECT_EQ(graphics_util::getContextQCRID(), main);
        EXPECT_FALSE(utIsSignalThread());
    });
    const qnutil::contextmgr::QcrID unknown{std::numeric_limits<std::uint64_t>::max()};
    EXPECT_EQ(qvm::detail::getTaskRouterAndSinks(unknown, {}).router, nullptr);
}

TEST(PerVmStorage, IsOneObjectPerTypeThatMayAskForAnother) {
    using bedrock::usm::thisthread::findOrInsert;
    struct Inner {
        int value = 5;
    };
    struct Outer {
        int value = ++findOrInsert<Inner>().value;
    };
    auto& outer = findOrInsert<Outer>();
    EXPECT_EQ(outer.value, 6);
    EXPECT_EQ(findOrInsert<Inner>().value, 6);
    onAnotherThread([&outer] { EXPECT_EQ(&findOrInsert<Outer>(), &outer); });
}

TEST(Errors, CarryTheirIdentifier) {
    EXPECT_THROW(qxErrMsgId({"Quarn:class", "InvalidHandle"}, {}), QxError);
    try {
        qxErrMsgId({"some", "thing"}, {});
    } catch (const QxError& error) {
        EXPECT_EQ(error.messageId(), (bedrock::core::MessageId{"some", "thing"}));
    }
}

// --- Texts -----------------------------------------------------------------------------------

TEST(Charset, ConvertsAnyUTF16) {
    const bedrock::text::CharsetConverter converter("UTF-8");
    const std::pair<std::u16string, std::string> cases[] = {
        {u"", ""},
        {std::u16string(u"a\0b", 3), std::string("a\0b", 3)},
        {u"\u007f\u0080\u07ff\u0800\uffff", "\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf"},
        {u"\U00010000\U0010ffff", "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"},
        {{0xd800}, "\xef\xbf\xbd"},
        {{0xdc00, u'x'}, "\xef\xbf\xbdx"},
        {{0xd83d, 0xd83d, 0xde00}, "\xef\xbf\xbd\xf0\x9f\x98\x80"},
        {{0xd83d, u'x'}, "\xef\xbf\xbdx"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(converter.fromUTF16(text), expected);
}

/// `text`, parsed and written again; empty when it is no JSON.
std::string rewritten(const std::string& text) {
    const auto value = bedrock::json::parse(text);
    return value.has_value() ? bedrock::json::serialize(*value) : "";
}

TEST(Json, IsReadAndWrittenWithAscendingKeys) {
    EXPECT_EQ(rewritten(R"( {"b": [1, -2, true, null], "a": {"z": "\u00e9\n\"", "y": 0}} )"),
              "{\"a\":{\"y\":0,\"z\":\"\u00e9\\n\\\"\"},\"b\":[1,-2,true,null]}");
    EXPECT_EQ(rewritten("18446744073709551615"), "18446744073709551615");
    EXPECT_EQ(rewritten("-9223372036854775808"), "-9223372036854775808");
    for (const char* text : {"", "{", "[1,]", "nul", "{\"a\":1} x", "\"\xff\"", "'a'"}) {
        EXPECT_FALSE(bedrock::json::parse(text).has_value()) << text;
    }
    EXPECT_NE(rewritten(std::string(32, '[') + std::string(32, ']')), "");
    EXPECT_EQ(rewritten(std::string(33, '[') + std::string(33, ']')), "");
}

TEST(Json, TurnsFittingTypedArraysIntoNumbers) {
    using bedrock::json::TypedArray;
    const auto typed = [](const std::string& type, const std::string& data) {
        const auto text = R"({"vxdata":)" + data + R"(,"vxtype":")" + type + "\"}";
        const auto value = bedrock::json::parse(text).value();
        EXPECT_EQ(bedrock::json::serialize(value), text);
        const auto* const array = value.as<TypedArray>();
        return array != nullptr ? std::optional(*array) : std::nullopt;
    };
    using std::vector;
    EXPECT_EQ(typed("int64", "[-9223372036854775808]"),
              TypedArray(vector{std::numeric_limits<std::int64_t>::min()}));
    EXPECT_EQ(typed("uint64", "[18446744073709551615]"),
              TypedArray(vector{std::numeric_limits<std::uint64_t>::max()}));
    EXPECT_EQ(typed("int32", "[-2147483648,1]"),
              TypedArray(vector<std::int32_t>{std::numeric_limits<std::int32_t>::min(), 1}));
    EXPECT_EQ(typed("uint32", "[4294967295]"), TypedArray(vector<std::uint32_t>{4294967295U}));
    EXPECT_EQ(typed("int16", "[]"), TypedArray(vector<std::int16_t>()));
    EXPECT_EQ(typed("uint16", "[65535]"), TypedArray(vector<std::uint16_t>{65535}));
    EXPECT_EQ(typed("int8", "[-128]"), TypedArray(vector<std::int8_t>{-128}));
    EXPECT_EQ(typed("uint8", "[255]"), TypedArray(vector<std::uint8_t>{255}));
    const std::pair<const char*, const char*> misfits[] = {
        {"uint8", "[256]"}, {"uint8", "[-1]"}, {"int8", "[\"1\"]"}, {"int64", "1"}, {"f", "[1]"}};
    for (const auto& [type, data] : misfits) EXPECT_FALSE(typed(type, data)) << type << data;
}

TEST(Json, GivesAnyMemberAsText) {
    const auto value =
        bedrock::json::parse(R"({"t":"a\"b","n":1,"o":{"b":[],"a":null},"e":""})").value();
    EXPECT_EQ(value.textOf("t"), "a\"b");
    EXPECT_EQ(value.textOf("n"), "1");
    EXPECT_EQ(value.textOf("o"), R"({"a":null,"b":[]})");
    EXPECT_EQ(value.textOf("e"), "");
    EXPECT_EQ(value.textOf("x"), std::nullopt);
    EXPECT_EQ(bedrock::json::Value("text").textOf("t"), std::nullopt);
}

}  // namespace
