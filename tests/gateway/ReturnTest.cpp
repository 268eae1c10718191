// Losing and regaining a connection, and what time does to a view: sessions with a clock that is
// set, and with connections that have no socket.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/json.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Buffers.hpp"
#include "FailingNew.hpp"
#include "Fanout.hpp"
#include "Frames.hpp"
#include "Session.hpp"
#include "kirohost/Controls.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"

using namespace kirogateway;
using gatewaytest::Frame;
using namespace relay::binary::experimental;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

/// An engine that hears nothing of what pages say, and may have no room for views.
struct DeafBus final : Bus, relay::TransportLink {
    relay::TransportLink& texts() noexcept override { return *this; }
    void deliver(const std::string&, relay::Publication::Text,
                 std::shared_ptr<const void>) override {}
    bool send(const std::string&, std::string_view) override { return false; }
    void announce(wire::ViewKind, const View::Identity&) override {
        if (cannotAnnounce) throw 7;
    }
    void pages(std::size_t) noexcept override { ++timesTold; }

    int timesTold = 0;
    bool cannotAnnounce = false;
};

/// A page whose frames are collected, and handed to its session, by the test.
class ModelPage final : public Connection {
  public:
    /// With a `socket`, frames are written to that.
    ModelPage(const SessionServices& services, const TimePoint& now,
              const std::shared_ptr<Socket>& socket = nullptr)
        : fSession(services, {*this, socket, socket != nullptr}), fNow(now) {}
    ~ModelPage() override { lose(); }

    void request(Request what) noexcept override { fAsked |= what; }
    void close(std::uint16_t code, std::string_view reason, std::string rest) noexcept override {
        try {
            fBytes += rest;
            fEnd = std::to_string(code) + " " + std::string(reason);
        } catch (...) {
            cut();
        }
    }
    void cut() noexcept override {
        fBytes.clear();
        fEnd = "cut";
    }
    void readOn() noexcept override {}
    bool isReadingHeld() const noexcept override { return fIsHeld; }

    void say(std::string_view text, bool isLast = true) { fSession.text(text, isLast, fNow); }
    void lose() noexcept { fSession.ended(false, fNow); }
    /// Takes up to `most` bytes, if the view has asked for that; returns the frames that are whole.
    std::vector<Frame> read(std::size_t most = 100'000'000) {
        auto* here = fSession.viewHere();
        if (here != nullptr && (fAsked & kTail) != 0 && !here->writeTail(fNow)) fAsked &= ~kTail;
        const auto end = fBytes.size() + most;
        while (here != nullptr && (fAsked & kWrite) != 0 && fBytes.size() < end) {
            if (!here->collect(fBytes, end - fBytes.size())) fAsked &= ~kWrite;
        }
        return gatewaytest::takeFrames(fBytes);
    }
    [[nodiscard]] View& view() const { return *fSession.view(); }

    Session fSession;
    const TimePoint& fNow;
    std::string fBytes;  ///< of a frame that is not whole
    std::string fEnd;    ///< how the gateway ended it
    bool fIsHeld = false;
    unsigned fAsked = 0;  ///< of it by the view
};

class ReturnTest : public testing::Test {
  protected:
    using Page = std::unique_ptr<ModelPage>;
    using Part = View::Part;
    using Channels = std::set<std::string>;

    ReturnTest() {
        fOptions.maySubscribe = {"/*"};
        auto& limits = fOptions.limits;
        limits.ping = seconds(10);
        limits.queue = limits.block = std::chrono::hours(1);
        limits.gone = seconds(1);
        limits.comeback = seconds(60);
        limits.pieceSize = 100;
    }

    void start() {
        fContext = std::make_shared<Context>(fOptions);
        fInbound.emplace(fContext);
        fInbound->connect(fBus);
        fViews = std::make_shared<ViewRegistry>(fContext, fWakeup, *fInbound, [this] { ++fGone; });
        fServices.emplace(SessionServices{fContext, fViews, *fInbound});
    }
    /// A page that has read the gateway's hello, which is kept.
    Page join(const std::string& more = {}) {
        auto page = std::make_unique<ModelPage>(*fServices, fNow);
        page->say(R"({"t":"hello","version":1,"client":"c","subscribe":["/c","/bin"])" + more +
                  "}");
        std::string hello;  // it alone: what follows is the test's to read
        while (page->fEnd.empty() && hello.empty()) {
            const auto frames = page->read(1);
            if (!frames.empty()) hello = frames.front().payload;
        }
        fHello = boost::json::parse(hello.empty() ? "{}" : hello).as_object();
        return page;
    }
    static std::string returnOf(const View& view, int last, const std::string& more = {}) {
        return R"(,"view":")" + view.identity().name + R"(","last":)" + std::to_string(last) + more;
    }
    std::string hello(const char* member) { return boost::json::serialize(fHello[member]); }
    Channels channels(const char* member) {
        return boost::json::value_to<Channels>(fHello[member]);
    }
    /// Of the only view there is, as the diagnostics have it: its state, and its silence.
    std::string seen() {
        const auto all = boost::json::parse(fViews->diagnostics(fNow));
        const auto& view = all.at("detail").at(0);
        return boost::json::serialize(view.at("state")) + " " +
               boost::json::serialize(view.at("lastSignOfLifeMilliseconds"));
    }
    void pass(milliseconds time) {
        fNow += time;
        fViews->tick(fNow);
    }
    static void publish(const Page& page, const std::string& text) {
        EXPECT_EQ(page->view().publish({"/c", text, false, 0, nullptr}, false),
                  Outbox::Added::kYes);
    }
    /// Offers the page a block, which nobody else gets; notes what becomes of it.
    Part offer(View& view, std::size_t size) {
        fBlock = fStream->send(support::bufferOf(std::string(size, 'b')));
        const auto transfer =
            std::make_shared<HostTransfer>(*std::move(fDelivery), fContext->counters);
        const auto part = view.offer("/bin", 0, transfer, fNow, false);
        transfer->close(part == Part::kJoined ? Transfer::Outcome::kDelivered
                                              : Transfer::Outcome::kRefused);
        return part;
    }
    void answer(const Page& page, int transfer) {
        page->say(R"({"t":"block","transfer":)" + std::to_string(transfer) + R"(,"ok":true})");
    }

    Options fOptions;
    Connection::TimePoint fNow{std::chrono::hours(1)};
    std::shared_ptr<Context> fContext;
    std::shared_ptr<Wakeup> fWakeup = std::make_shared<Wakeup>();
    DeafBus fBus;
    std::optional<Inbound> fInbound;
    std::shared_ptr<ViewRegistry> fViews;
    std::optional<SessionServices> fServices;
    int fGone = 0;  ///< how often the last page had gone
    boost::json::object fHello;
    std::optional<Delivery> fDelivery;
    ClientEnd fClientEnd{"/bin", [this](Delivery delivery) { fDelivery = std::move(delivery); }};
    std::shared_ptr<BinaryStream> fStream = createBinaryStream("/bin", {{"returnOnFail", "true"}});
    relay::Future<SendResult> fBlock;
};

}  // namespace

TEST_F(ReturnTest, AConnectionIsEndedBetweenTwoFramesOrWithoutAWord) {
    Page page;
    Page back;
    const struct {
        std::string end;
        bool canReturn;
        std::function<void()> step;
    } table[] = {
        {"4005 returned elsewhere", true, [&] { back = join(returnOf(page->view(), 0)); }},
        {"4004 no sign of life", true, [&] { pass(seconds(31)); }},
        {"4000 bad message: not JSON", false, [&] { page->say("x"); }},
        {"4003 too slow: no room", false,
         [&] {
             page->view().fail("no room");
             page->fSession.viewFailed();
         }},
        {"1001 gateway stopped", false, [&] { fViews->shut(); }},
    };
    // The `failing`-th allocation of the step fails: 0, none.
    const auto expectEnd = [&](const auto& row, std::size_t size, std::size_t failing) {
        start();
        page = join();
        const std::string text(size, 'x');
        publish(page, text);
        EXPECT_TRUE(page->read(100).empty());
        const auto [hasFailed, error] = support::failingNew(failing, row.step);
        if (!error.empty()) page->lose();  // as its connection does
        const auto end = std::exchange(page->fEnd, {});
        const bool isCut = end.empty() || end == "cut";
        const bool isLarge = size > 8'000'000;
        EXPECT_TRUE(isCut ? failing > 0 || isLarge : !isLarge && row.end.starts_with(end)) << end;
        const auto frames = page->read();
        EXPECT_EQ(frames.size(), isCut ? 0U : 1U);
        EXPECT_TRUE(isCut || frames.at(0).payload.ends_with(text));

        // However late and in whatever way it ends, a connection that was replaced ends itself.
        page->fSession.ended(true, fNow);
        page->lose();
        // One that had begun to come back goes on from what it said then.
        const bool hasRest = !isCut && back == nullptr && error.empty();
        if (back == nullptr) back = join(returnOf(page->view(), hasRest ? 1 : 0));
        EXPECT_EQ(back->fEnd, row.end.starts_with("1001") ? "1001 gateway stopped" : "");
        EXPECT_EQ(hello("kind") == "\"return\"", row.canReturn || !error.empty())
            << "with the rest";
        const bool isMissed = !hasRest && (row.canReturn || !error.empty());
        EXPECT_EQ(back->read().size(), isMissed ? 1U : 0U) << "missed";
        back.reset();
        page.reset();
        return hasFailed;
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.end);
        expectEnd(row, 9'000'000, 0);
        for (std::size_t n = 1; expectEnd(row, 1000, n) && !HasFailure();) SCOPED_TRACE(++n);
    }
}

TEST_F(ReturnTest, APublisherLeavesTheSocketAloneUntilTheGatewaysThreadHasWritten) {
    start();
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    boost::asio::io_context context;
    using Stream = boost::asio::ip::tcp::socket;
    const Stream other(context, boost::asio::ip::tcp::v4(), ends[1]);
    const auto received = [&ends] {
        std::size_t size = 0;
        std::vector<char> buffer(1 << 20);
        for (ssize_t got = 1; got > 0; size += got > 0 ? static_cast<std::size_t>(got) : 0) {
            got = ::recv(ends[1], buffer.data(), buffer.size(), MSG_DONTWAIT);
        }
        return size;
    };
    const auto page = std::make_unique<ModelPage>(
        *fServices, fNow,
        std::make_shared<Socket>(Stream(context, boost::asio::ip::tcp::v4(), ends[0])));
    page->say(R"({"t":"hello","version":1,"subscribe":["/c"]})");
    EXPECT_GT(received(), 0U);
    publish(page, std::string(4000000, 't'));
    EXPECT_GT(received(), 0U) << "as much as the socket took";
    publish(page, "behind it");
    EXPECT_EQ(received(), 0U);
    page->view().writeMore();
    EXPECT_GT(received(), 0U);
    do page->view().writeMore();
    while (received() > 0);
    // In a burst the rest is looked at later, once for all.
    page->fAsked = 0;
    for (int i = 0; i < 100000 && page->fAsked == 0; ++i) publish(page, "text");
    EXPECT_EQ(page->fAsked, Connection::kTail);
    received();
    page->fAsked = 0;
    for (int i = 0; i < 9; ++i) publish(page, "text");
    EXPECT_EQ(received() + page->fAsked, 0U);
    EXPECT_TRUE(page->view().writeTail(fNow));
    EXPECT_GT(received(), 0U);
    EXPECT_FALSE(page->view().writeTail(fNow)) << "that is all";
    for (int i = 0; i < 100000 && page->fAsked == 0; ++i) publish(page, "text");
    EXPECT_EQ(page->fAsked, Connection::kTail) << "and the next burst";
    while (page->view().writeTail(fNow)) continue;
    page->fAsked = 0;
    page->say(R"({"t":"publish","channel":"/no","text":""})");
    for (int i = 0; i < 8; ++i) publish(page, "text");
    EXPECT_EQ(page->fAsked, 0U) << "who speaks keeps up";
}

TEST_F(ReturnTest, TheHelloOfAReturnCounts) {
    fOptions.limits.subscriptions = 3;
    const std::string longName = "/" + std::string(1024, 'n');
    start();
    auto page = join(R"(,"limits":{"block":100})");
    EXPECT_EQ(offer(page->view(), 101), Part::kRefused);
    EXPECT_EQ(offer(page->view(), 100), Part::kJoined);
    page->read();
    page->lose();
    auto back = join(returnOf(page->view(), 1, R"(,"limits":{"block":200},"resume":false)"));
    EXPECT_TRUE(fBlock.get().delivered) << "its answer was lost";
    EXPECT_EQ(offer(back->view(), 200), Part::kJoined);
    EXPECT_EQ(back->read().at(0).opcode, 2U) << "the name is known already";
    back->lose();
    EXPECT_EQ(page->view().state(), View::State::kOver);
    EXPECT_FALSE(fBlock.get().delivered);

    // Bounds on what it names. What it has already is not refused.
    page = join();
    page->lose();
    back = join(returnOf(page->view(), 0) + R"(,"subscribe":["/c",")" + longName +
                R"(","/d","/e","/d"])");
    EXPECT_EQ(channels("subscribed"), (Channels{"/bin", "/c", "/d"}));
    EXPECT_EQ(channels("refused"), (Channels{"/e", longName}));
    EXPECT_TRUE(back->view().hears("/d"));
    back->say(R"({"t":"subscribe","channels":["/d","/e"]})");
    EXPECT_FALSE(back->view().hears("/e"));
    page = join(R"(,"resume":false)");
    back = join(returnOf(page->view(), 0));
    EXPECT_EQ(hello("kind"), "\"further\"");
    EXPECT_TRUE(page->fEnd.starts_with("4006 bad return: "));
    page->say("what its connection says now is nobody's affair");
    page->fSession.binary("nor this", true, fNow);
    EXPECT_TRUE(page->fEnd.starts_with("4006 bad return: "));

    page = join();
    publish(page, std::string(9'000'000, 'x'));
    EXPECT_TRUE(page->read(100).empty());
    back = join(returnOf(page->view(), 0));
    EXPECT_EQ(page->fEnd, "cut");
    back = join(returnOf(page->view(), 1));
    EXPECT_EQ(hello("kind"), "\"further\"") << "it cannot have all of that";
}

TEST_F(ReturnTest, TheLogHasTheStoryOfAView) {
    std::vector<std::string> lines;
    const auto observing = kirohost::observeLog(
        [&lines](const kirohost::LogRecord& record) { lines.push_back(record.text); });
    start();
    auto page = join();
    page->say(
        R"([{"t":"publish","channel":"/no","text":""},{"t":"block","transfer":1,"ok":false}])");
    page->lose();
    auto back = join(returnOf(page->view(), 0));
    pass(seconds(31));
    page = join(returnOf(back->view(), 0));
    for (int i = 0; i < 2; ++i) page->say("nonsense");
    page = join();
    page->fSession.ended(true, fNow);
    page = join();
    fBus.cannotAnnounce = true;
    back = join();
    fViews->shut();
    const std::vector<std::string> story{
        "page connected: c",
        "refused a page's publish: /no",
        "page refused a block",
        "connection lost: c",
        "page returned: c",
        "page disconnected, no sign of life: c",
        "page returned: c",
        "bad message from a page: not JSON",
        "page disconnected, bad message: not JSON: c",
        "the last page has gone",
        "page connected: c",
        "page left: c",
        "the last page has gone",
        "page connected: c",
        "page connected: c",
        "a view could not be announced: an exception of no known kind",
        "gateway stopped",
        "the last page has gone"};
    EXPECT_EQ(lines, story);
    const auto statistics = fViews->statistics();
    EXPECT_EQ(statistics.views, 4U);
    EXPECT_EQ(statistics.returns, 2U);
    EXPECT_EQ(statistics.disconnected, 4U);
}

TEST_F(ReturnTest, BlocksThatWereCutComeAgainWhole) {
    start();
    // Piece by piece: two frames of 116 and one of 66 bytes, with headers of 2, 2 and 2.
    for (std::size_t cut = 0; cut <= 2 * 118 + 68; cut += 17) {
        auto page = join();
        EXPECT_EQ(offer(page->view(), 30), Part::kJoined);
        page->read();
        EXPECT_EQ(offer(page->view(), 250), Part::kJoined);
        if (cut > 0) page->read(cut);
        page->lose();
        auto back = join(returnOf(page->view(), 1));
        EXPECT_FALSE(fBlock.isReady()) << cut;
        std::string whole;
        for (const auto& frame : back->read()) {
            if (frame.opcode == 2) whole += frame.payload.substr(16);
        }
        EXPECT_EQ(whole, std::string(250, 'b')) << cut;
        answer(back, 2);
        EXPECT_TRUE(fBlock.get().delivered);
    }
}

TEST_F(ReturnTest, ALostPageIsMissedThenGoneThenOver) {
    start();
    fViews->shut();
    EXPECT_EQ(fGone, 0) << "nobody came";
    start();
    auto page = join();
    EXPECT_EQ(offer(page->view(), 9), Part::kJoined);
    page->read();
    EXPECT_EQ(seen(), "\"connected\" 0");
    page->lose();
    pass(seconds(1));
    EXPECT_FALSE(fBlock.isReady());
    EXPECT_EQ(seen(), "\"lost\" 1000");
    pass(milliseconds(1));
    EXPECT_FALSE(fBlock.get().delivered);
    EXPECT_EQ(seen(), "\"gone\" 1001");
    EXPECT_EQ(fGone, 1);
    EXPECT_EQ(offer(page->view(), 9), Part::kNone);
    publish(page, "kept");
    pass(seconds(58));
    auto back = join(returnOf(page->view(), 0));
    EXPECT_EQ(fGone, 1) << "once";
    EXPECT_FALSE(fViews->lastPageGone());
    pass(seconds(0));
    EXPECT_EQ(back->fEnd, "") << "it was silent because it was away";
    const auto missed = back->read();
    ASSERT_EQ(missed.size(), 2U);
    EXPECT_TRUE(missed[0].payload.starts_with(R"({"t":"withdrawn")"));
    EXPECT_TRUE(missed[1].payload.ends_with("kept"));
    bool hasFailed = true;
    for (std::size_t n = 1; hasFailed; ++n) {  // the end comes, wherever memory runs out
        back->lose();
        hasFailed = support::failingNew(n, [&] { pass(milliseconds(60001)); }).failed;
        EXPECT_EQ(back->view().state(), View::State::kOver);
        pass(seconds(0));
        EXPECT_TRUE(fViews->isEmpty());
        back = join();
    }
}

TEST_F(ReturnTest, LostViewsEndInTheOrderOfTheirLossesAndLateOnesTogether) {
    fOptions.limits.lostViews = 3;
    start();
    std::vector<Page> pages;
    for (int i = 0; i < 5; ++i) pages.push_back(join());
    const auto fate = [&](std::size_t i) {
        const auto& view = pages[i]->view();
        return std::string(view.state() == View::State::kOver ? "over"
                           : view.failure() != nullptr        ? "fails"
                                                              : "kept");
    };
    for (std::size_t i = 0; i < 3; ++i) pages[i]->lose();
    auto back = join(returnOf(pages[0]->view(), 0));
    EXPECT_TRUE(fViews->makeLostRoom());
    EXPECT_EQ(fate(0) + fate(1) + fate(2), "keptfailskept") << "the first has returned";
    back->lose();
    EXPECT_EQ(fate(1), "fails");
    pages[3]->lose();
    EXPECT_EQ(fate(1) + fate(2), "overkept") << "it had to end anyway";
    pages[4]->lose();
    EXPECT_EQ(fate(2) + fate(0), "overkept");
    fBus.timesTold = 0;
    const auto version = fViews->version();
    pass(milliseconds(60001));
    EXPECT_EQ(fate(0) + fate(3) + fate(4), "overoverover");
    EXPECT_EQ(fViews->version(), version + 1) << "not one after the other";
    EXPECT_EQ(fBus.timesTold, 1);
}

TEST_F(ReturnTest, WhatIsRememberedHasABound) {
    start();
    auto page = join(R"(,"subscribe":["/*"])");
    Fanout fanout(fContext, fViews);
    for (int i = 0; i < 5000; ++i) fanout.messagePublished({"/" + std::to_string(i), "x"});
    const auto routes = page->fSession.view().use_count();
    EXPECT_TRUE(routes > 800 && routes < 4200) << routes;

    std::vector<Page> closed;
    for (int i = 0; i < 34; ++i) {
        closed.push_back(join());
        closed.back()->fSession.ended(true, fNow);
    }
    for (const std::size_t i : {33U, 2U, 1U}) {
        const auto back = join(returnOf(closed[i]->view(), 0));
        EXPECT_EQ(fHello.contains("ended"), i > 1) << "of the last 32, why it ended is known";
    }
}

TEST_F(ReturnTest, SilenceIsWhatNobodyHeard) {
    start();
    auto page = join();
    for (const bool isPong : {false, true}) {
        fNow += seconds(11);
        std::size_t n = 1;  // wherever memory runs out, the next look makes up for it
        while (support::failingNew(n, [&] { pass(seconds(0)); }).failed) ++n;
        pass(seconds(18));
        const auto frames = page->read();
        ASSERT_EQ(frames.size(), 1U) << "one ping for each time";
        EXPECT_EQ(frames[0].opcode, 9U);
        isPong ? page->fSession.heard(fNow) : page->say(R"({"t":"ack","last":0})");
        pass(seconds(0));
    }
    page->fIsHeld = true;
    pass(seconds(100));
    page->fIsHeld = false;
    EXPECT_EQ(page->fEnd, "");
    publish(page, "a long text");
    for (int i = 0; i < 9; ++i) {  // the page takes it a byte at a time, and has nothing to say
        page->read(1);
        pass(seconds(5));
    }
    EXPECT_EQ(page->fEnd, "");
    pass(seconds(31));
    EXPECT_EQ(page->fEnd, "4004 no sign of life");
    page = join(R"(,"resume":false)");
    pass(seconds(31));
    EXPECT_EQ(page->view().state(), View::State::kOver);
}

TEST_F(ReturnTest, APageThatTakesNothingHasFailedBeforeItsBlocksAreTold) {
    fOptions.limits.queue = fOptions.limits.block = seconds(1);
    start();
    auto page = join();
    publish(page, "text");
    EXPECT_EQ(offer(page->view(), 9), Part::kJoined);
    pass(seconds(0));
    std::optional<std::size_t> held;  // what the next publisher would make room with, for ever
    static_cast<void>(fBlock.then([&](auto&&) { held = page->view().heldBytes(); }));
    pass(seconds(2));
    EXPECT_EQ(held, 0U);
    EXPECT_EQ(page->fEnd, "4003 too slow: it took nothing for too long");
}

TEST_F(ReturnTest, APageIsNotSlowWhereItCouldNotHaveTakenAnything) {
    fOptions.limits.queue = seconds(2);
    fOptions.limits.blocksUnderWay = 1;
    start();
    auto page = join();
    for (int i = 0; i < 2; ++i) EXPECT_EQ(offer(page->view(), 9), Part::kJoined);
    page->read();
    pass(seconds(0));
    pass(seconds(3));
    EXPECT_EQ(page->fEnd, "") << "the gateway holds the block back itself";
    publish(page, "text");
    page->lose();
    fNow += seconds(3);
    ModelPage back(*fServices, fNow);
    back.say(R"({"t":"hello","version":1)" + returnOf(page->view(), 0) + "}");
    pass(seconds(0));
    EXPECT_EQ(back.fEnd, "") << "it has only just come back";
}

TEST_F(ReturnTest, TheViewThatHoldsMostMakesRoomAlsoWhenItIsLostAndNobodyElse) {
    fOptions.limits.memory = 100000;
    start();
    for (const bool isLost : {false, true}) {
        auto small = join();
        auto large = join();
        publish(small, "text");
        publish(large, std::string(60000, 't'));
        isLost ? large->lose() : static_cast<void>(large->read(100));  // the rest is still held
        EXPECT_TRUE(fContext->memory->makeRoom(50000));
        EXPECT_STREQ(large->view().failure(), View::kMemoryUsedUp);
        EXPECT_EQ(small->view().failure(), nullptr);
        large->fSession.viewFailed();
        EXPECT_FALSE(fContext->memory->account()->hasRoomFor(100000, 100000))
            << "what it held is given already";
    }
}

TEST_F(ReturnTest, WhatIsHeldForAViewIsKnownAtAnyTime) {
    start();
    auto page = join();
    const auto& view = page->view();
    const std::pair<const char*, std::function<void()>> steps[]{
        {"a text", [&] { publish(page, "text"); }},
        {"a block", [&] { EXPECT_EQ(offer(page->view(), 9), Part::kJoined); }},
        {"written", [&] { page->read(); }},
        {"acknowledged", [&] { page->say(R"({"t":"ack","last":1})"); }},
        {"answered", [&] { answer(page, 1); }},
        {"an answer to the page", [&] { page->say(R"({"t":"echo","id":1})"); }},
        {"a pong for the page", [&] { page->view().sendFrames("pong"); }},
        {"a block that waits", [&] { EXPECT_EQ(offer(page->view(), 9), Part::kJoined); }},
        {"lost", [&] { page->lose(); }},
        {"gone", [&] { pass(seconds(2)); }},
        {"back", [&] { page = join(returnOf(view, 1)); }},
    };
    for (const auto& [what, step] : steps) {
        step();
        EXPECT_EQ(view.heldBytes(), view.report(fNow).bytes) << what;
    }
}

TEST_F(ReturnTest, NobodyEndsForWhatAnotherGatewayHoldsWhileItStops) {
    fOptions.limits.memory = 100000;
    start();
    const std::vector<Page> pages = [this] {
        std::vector<Page> all;
        for (int i = 0; i < 2; ++i) {
            all.push_back(join());
            publish(all.back(), std::string(30000, 't'));
        }
        return all;
    }();
    const auto room = std::make_shared<Budget>(100000, fContext->memory->account());
    bool hasRoom = false;
    EXPECT_EQ(offer(pages.front()->view(), 9), Part::kJoined);
    const auto given = fBlock.then([&](auto&&) { hasRoom = room->makeRoom(90000); });
    fViews->shut();
    EXPECT_TRUE(hasRoom) << "though the second page holds its texts still";
}

TEST_F(ReturnTest, AnAnswerLetsTheNextBlockGoAndAFailedViewHearsNoMore) {
    fOptions.limits.blocksUnderWay = 1;
    start();
    auto page = join();
    for (int i = 0; i < 2; ++i) EXPECT_EQ(offer(page->view(), 9), Part::kJoined);
    EXPECT_EQ(page->read().size(), 2U) << "the channel and a block";
    answer(page, 1);
    EXPECT_EQ(page->read().size(), 1U);
    page->fSession.helloOverdue();
    EXPECT_EQ(page->fEnd, "") << "it has said hello";
    EXPECT_TRUE(page->view().hears("/c"));
    page->view().fail("no room");
    EXPECT_FALSE(page->view().hears("/c"));
    page->say(
        R"([{"t":"publish","channel":"/no","text":""},{"t":"publish","channel":"/no","text":""}])");
    EXPECT_EQ(fContext->counters->refusals, 1U) << "the rest is passed over";
}

TEST_F(ReturnTest, APageIsReadFromAsLongAsThereIsRoom) {
    fOptions.limits.memory = 100000;
    start();
    auto page = join();
    page->read();  // nothing is held for it, so that its end would make no room
    const auto before = fContext->memory->used();
    page->say(R"({"t":"publish","text":")" + std::string(50000, 'x'), false);
    EXPECT_EQ(page->fSession.mayRead(), Session::Reading::kNow);
    page->say(std::string(50001, 'x'), false);
    EXPECT_EQ(page->fSession.mayRead(), Session::Reading::kLater);
    page->say(R"(","channel":"/not/allowed"})");
    EXPECT_EQ(page->fSession.mayRead(), Session::Reading::kNow);
    EXPECT_LT(fContext->memory->used(), before + 1000);
    page->fSession.binary(std::string(100001, 'b'), false, fNow);
    EXPECT_EQ(page->fSession.mayRead(), Session::Reading::kLater);

    page = join(R"(,"subscribe":["/)" + std::string(1000, 'n') + "\"]");
    page->read();
    EXPECT_GT(fContext->memory->used(), before + 1000) << "for the name";
}

TEST_F(ReturnTest, AViewThatCannotBeAnnouncedIsThereNevertheless) {
    fBus.cannotAnnounce = true;
    start();
    auto page = join();
    publish(page, "text");
    EXPECT_EQ(page->read().size(), 1U);
    auto back = join(returnOf(page->view(), 1));
    EXPECT_EQ(hello("kind"), "\"return\"");
    EXPECT_EQ(back->fEnd, "");
}

TEST_F(ReturnTest, AViewThatCannotBeMadeLeavesNothing) {
    start();
    const auto visit = [this] { join(R"(,"resume":false)"); };
    for (std::size_t n = 1; support::failingNew(n, visit).failed; ++n) {
        pass(seconds(0));
        EXPECT_TRUE(fViews->isEmpty()) << n;
    }
}

TEST_F(ReturnTest, WhoMissesATextForLackOfMemoryEnds) {
    start();
    const std::string channel = "/c";
    for (const auto& [before, size] : {std::pair(0U, 10U), {0U, 20000U}, {300U, 10000U}}) {
        const std::string text(size, 't');
        bool hasFailed = true;
        for (std::size_t n = 1; hasFailed; ++n) {
            Fanout fanout(fContext, fViews);
            auto page = join();
            if (before > 0) fanout.messagePublished({channel, std::string(before, 'b')});
            const auto publish = [&] { fanout.messagePublished({channel, text}); };
            hasFailed = support::failingNew(n, publish).failed;
            EXPECT_EQ(page->read().size() == 1, page->view().failure() == nullptr) << n;
        }
    }
    fViews->shut();
    EXPECT_EQ(fContext->memory->used(), 0U);
}

TEST_F(ReturnTest, LostViewsCostLittleWhenTextsArePublishedAndAtTheEnd) {
    start();
    std::vector<Page> pages;
    for (int i = 0; i < 60; ++i) {
        pages.push_back(join());
        pages.back()->lose();
    }
    const std::string channel = "/c";
    Fanout fanout(fContext, fViews);
    const auto publish = [&] { fanout.messagePublished({channel, "text"}); };
    publish();
    publish();  // where a batch grows, for some time
    EXPECT_FALSE(support::failingNew(1, publish).failed) << "nothing is made for a text";
    EXPECT_FALSE(support::failingNew(pages.size(), [&] { fViews->shut(); }).failed)
        << "nothing is made for a view";
}
