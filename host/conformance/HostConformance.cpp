// What the library relies on in the host's utilities: tokens, waits, tasks, storage and texts.

#include <gtest/gtest.h>

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
#include "kiroutils/KiroBlockingOperation.hpp"
#include "kiroutils/UniqueIDGenerator.hpp"
#include "kiroutils/timestamp.hpp"
#include "qvm/detail/taskRouterAccess.hpp"
#include "qvm/messages.hpp"
#include "taskrouter/TaskRouter.hpp"

namespace {

using kiroutils::KiroBlockingOperation;
using kiroutils::KiroTerminatingCondition;
using kiroutils::TerminatingConditionException;
using std::chrono::seconds;

using Lines = std::vector<std::string>;

template <typename Function>
void onAnotherThread(Function function) {
    std::thread(std::move(function)).join();
}

// --- Small utilities -------------------------------------------------------------------------

TEST(CompletionToken, IsEqualByIdentifierAndDefaultOnlyWithoutStamps) {
    using Stamps = kiroutils::CompletionToken::CompletionTokenTimeStamps;
    const kiroutils::CompletionToken token("7");
    EXPECT_EQ(token.convertToString(), "7");
    EXPECT_FALSE(token == kiroutils::CompletionToken("8"));
    EXPECT_FALSE(token.isDefaultToken());
    EXPECT_TRUE(kiroutils::CompletionToken().isDefaultToken());
    const auto stamps = {&Stamps::serverSend, &Stamps::clientReceive, &Stamps::clientSend,
                         &Stamps::serverReceive};
    for (const auto stamp : stamps) {
        auto stamped = token;
        stamped.getTimeStamps().*stamp = 3;
        EXPECT_TRUE(stamped == token) << "a stamp counts";
        EXPECT_EQ(std::as_const(stamped).getTimeStamps().*stamp, 3U);
        kiroutils::CompletionToken onlyStamp;
        onlyStamp.getTimeStamps().*stamp = 3;
        EXPECT_FALSE(onlyStamp.isDefaultToken()) << "a stamp does not count";
    }
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
    EXPECT_FALSE(ids.contains("")) << "it would make the default token";
}

TEST(Timestamp, IsMicrosecondsAndSurvivesAPagesNumbers) {
    const auto year2020 = std::uint64_t{1'577'836'800} * 1'000'000;
    EXPECT_GT(kiroutils::timestamp(), year2020);
    EXPECT_LT(kiroutils::timestamp(), std::uint64_t{1} << 53U);
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

TEST(BlockingWait, EndsByItsConditionByTimeAndByErrors) {
    const auto wait = [](bool holds, seconds timeout) {
        KiroBlockingOperation::waitOrThrow(std::make_unique<Failing>(holds, timeout), nullptr);
    };
    using NewView = bedrock::core::except::Exception<component_Quarn::catalog_graphics::key_newView,
                                                     TerminatingConditionException>;
    EXPECT_NO_THROW(wait(true, seconds(0))) << "the condition is asked first";
    EXPECT_THROW(wait(false, seconds::max()), NewView);
    EXPECT_THROW(waitUntil([] { return false; }, nullptr, seconds(0)),
                 TerminatingConditionException);
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
