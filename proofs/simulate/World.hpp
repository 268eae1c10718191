#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Fanout.hpp"
#include "HostBus.hpp"
#include "Memory.hpp"
#include "Model.hpp"
#include "Peer.hpp"
#include "Random.hpp"
#include "Session.hpp"
#include "Wakeup.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"

namespace simulate {

struct World;

/// The gateway's end of one connection: does what a view and a session want of one, in steps that
/// the world chooses.
class Conn final : public kirogateway::Connection,
                   public kirogateway::Wakeup::Target,
                   public std::enable_shared_from_this<Conn> {
  public:
    Conn(World& world, Peer& peer, std::shared_ptr<kirogateway::Socket> socket, bool isDirect);
    ~Conn() override;
    Conn(const Conn&) = delete;
    Conn& operator=(const Conn&) = delete;

    void request(Request what) noexcept override;
    void close(std::uint16_t code, std::string_view reason, std::string rest) noexcept override;
    void cut() noexcept override;
    void readOn() noexcept override { fPeer.isHeld = false; }
    bool isReadingHeld() const noexcept override { return fPeer.isHeld; }
    void serve(unsigned what) noexcept override;

    /// Reads up to `size` bytes of what the page said, if it may.
    void read(std::size_t size);
    /// The page's connection has ended: with a close frame for good, or without.
    void onEnd(bool wasClosed);
    void pong();
    /// The socket takes bytes, if the view waits for that.
    void writable();
    /// Whether a text that waits, and that nothing holds up, is about to be written.
    [[nodiscard]] bool isHeeded() const;
    void tail();
    void checkTime();
    /// Whether nothing waits for it any more.
    [[nodiscard]] bool isDone() const noexcept {
        return fPeer.isEnded && (fIsDropped || fHasEnded);
    }

  private:
    template <typename Call>
    void guard(const Call& call) noexcept;
    void readPiece(const Saying& saying, std::string_view piece, bool isLast);
    void pump();
    void drop() noexcept;

    World& fWorld;
    Peer& fPeer;
    const std::shared_ptr<kirogateway::Socket> fSocket;
    const bool fIsDirect;
    std::optional<kirogateway::Session> fSession;
    TimePoint fDeadline;
    bool fHasDeadline = true;
    bool fIsClosing = false;
    bool fIsDropped = false;
    bool fHasEnded = false;
    bool fAsksAgain = false;
    bool fWaitsWritable = false;
    std::optional<TimePoint> fTailAt;
};

/// A page over all its connections.
struct Page {
    Peer* peer = nullptr;
    std::string view;  ///< to which it may return
    std::uint64_t handled = 0;
    std::deque<Arrived> unanswered;      ///< blocks
    std::vector<std::uint64_t> refused;  ///< numbers of blocks
    bool isLively = false;               ///< reads and answers by itself
};

/// What a schedule did.
struct Figures {
    std::uint64_t schedules = 0, steps = 0, failures = 0, messages = 0, returns = 0;
    std::chrono::duration<double> time{0};
};

/// One gateway with its engine and its pages, all from one seed.
struct World final : relay::TransportLink {
    explicit World(std::uint64_t theSeed, bool isTold);
    ~World() override;
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    /// Runs the steps for which `keep` is true (all, if it is empty), then everything to its end.
    /// Returns what was wrong, or nothing.
    std::string run(const std::vector<bool>& keep, Figures& figures);
    [[nodiscard]] std::size_t numSteps() const { return stepCount; }

    // --- What the gateway calls ---
    void deliver(const std::string& channel, relay::Publication::Text text,
                 std::shared_ptr<const void> ticket) override;
    std::ptrdiff_t write(const kirogateway::Socket& socket, const kirogateway::Socket::Bytes& bytes,
                         std::size_t most);

    // --- Steps (Steps.cpp, of pages Pages.cpp) ---
    void step();
    void publishTexts();
    void publishText(std::string channel, std::size_t size, unsigned kind);
    void publishBlock();
    void join();
    void comeBack();
    void speak();
    void lie();
    void readPage();
    void answerBlocks();
    void endPage();
    void readAsGateway();
    void serveSome();
    void hearInbound();
    void pass();
    void inspect();
    /// Everybody reads and answers, then everything ends.
    void finish();

    // --- Their parts ---
    struct Wish {
        std::string view;
        std::uint64_t last = 0;
        bool mayReturn = true;
        std::uint64_t maxBlock = UINT64_MAX;
        std::vector<std::uint64_t> refused;
        std::vector<std::string> subscribe;
    };
    void connect(Page& page, const Wish& wish);
    void greet(Peer& peer, const Wish& wish);
    /// Of a view, before its page returned.
    struct Before {
        std::uint64_t acknowledged = 0;
        std::map<std::string, bool> subscriptions;
    };
    void reckonHello(Peer& peer, const Wish& wish, Before& before);
    void doubtReturn(ViewModel& view, const Before& before);
    void say(Peer& peer, std::string text, std::function<void()> takesEffect = {},
             std::function<void()> isLost = {});
    void subscribe(Peer& peer);
    void unsubscribe(Peer& peer);
    void doubt(Peer& peer, const std::string& name);
    void publishFrom(Peer& peer);
    void sendBlock(Peer& peer);
    void returnTo(Page& page, std::uint64_t last);
    void pageReads(Page& page, std::size_t size);
    void pageAnswers(Page& page, std::size_t most, std::size_t willing);
    void answer(Peer& peer, std::uint32_t transfer, bool ok);
    void ack(Peer& peer, std::uint64_t last);
    void hear(Page& page, const Arrived& arrived);
    void pump(Page& page);
    void drain();
    void runOut();
    void serveAll();
    void advance(std::chrono::microseconds time, std::chrono::milliseconds period);
    void tick();
    /// Compares, and lets go of what is over.
    void look(bool isTick = false);
    void bindView(Peer& peer);
    Page& anyPage() { return pages[random.below(pages.size())]; }
    [[nodiscard]] Conn* connOf(const Peer& peer) { return conns[peer.index].get(); }
    std::string anyChannel();
    std::string anyPattern();
    void tell(const std::string& what);

    const std::uint64_t seed;
    Random random;
    std::size_t stepCount = 0;
    std::size_t stepNumber = 0;
    bool isTold = false;
    TimePoint now{std::chrono::hours(1000)};
    kirogateway::Options options;
    bool isTight = false;         ///< memory is scarce
    std::size_t failPercent = 0;  ///< of the gateway's steps in which an allocation fails
    bool isEager = false;         ///< what was asked for is served after each step
    bool isWriting = false;       ///< the gateway's thread, with no lock held
    std::optional<Model> model;

    std::shared_ptr<kirogateway::Context> context;
    std::shared_ptr<kirogateway::Wakeup> wakeup;
    std::optional<kirogateway::HostBus> bus;
    std::optional<kirogateway::Inbound> inbound;
    std::shared_ptr<kirogateway::ViewRegistry> views;
    std::shared_ptr<kirogateway::Fanout> fanout;
    std::optional<kirogateway::SessionServices> services;
    std::unique_ptr<relay::binary::experimental::ClientEnd> end;
    std::vector<std::shared_ptr<relay::binary::experimental::BinaryStream>> streams;

    std::deque<Peer> peers;
    std::vector<std::shared_ptr<Conn>> conns;  ///< as `peers`; empty when over
    std::vector<std::unique_ptr<kirogateway::Socket>> sockets;
    std::unordered_map<const kirogateway::Socket*, Peer*> peerOf;
    std::vector<Page> pages;

    struct Heard {
        std::string channel;
        relay::Publication::Text text;
        std::shared_ptr<const void> ticket;
    };
    std::deque<Heard> heard;  ///< from pages, not yet taken by the engine
    std::deque<std::pair<std::string, std::string>> expectedInbound;
    std::size_t announced = 0;
    std::size_t blocksHeard = 0;
    std::size_t blocksSaid = 0;
    std::size_t timesGone = 0;
    Peer* arriving = nullptr;  ///< whose hello may be being read
    int depth = 0;             ///< of engine code called by the gateway
};

/// What runs now, for what is linked in place of the gateway's socket and clock.
World*& currentWorld();

/// Runs `call` as the gateway's, now and then with an allocation that fails, or all from one on.
template <typename Call>
void asGateway(World& world, const Call& call) {
    const bool fails = world.depth == 0 && world.random.chance(world.failPercent);
    if (fails) memory::failAt(world.random.between(1, 30), world.random.chance(30));
    call();
    if (fails && memory::stopFailing() > 0) world.tell("memory ran out in it");
}

}  // namespace simulate
