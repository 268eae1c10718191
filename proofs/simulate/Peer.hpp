#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Model.hpp"

namespace simulate {

/// A frame on its way to the page.
struct Arrived {
    std::uint64_t end = 0;   ///< of its bytes in the stream
    std::uint64_t upTo = 0;  ///< the number up to which the page has everything with it
    Item* block = nullptr;   ///< that is whole with it
    std::uint32_t transfer = 0;
    bool isHello = false;
    bool isPing = false;
    bool isClose = false;
};

/// What a page says in its hello, and expects in the gateway's.
struct Greeting {
    std::string view;  ///< that it asks for
    std::uint64_t last = 0;
    bool isReturn = false;
    bool isVague = false;  ///< its subscriptions are not known for certain
    std::set<std::string> subscribed;
    std::multiset<std::string> refused;
};

/// What the gateway reads: a frame of the page's, and what the model makes of it.
struct Saying {
    std::string bytes;
    enum class Kind { kText, kBinary, kClose, kGivenUp } kind = Kind::kText;
    bool isAtOnce = false;  ///< several messages, which are handled while their frame comes
    std::size_t read = 0;
    std::function<void()> takesEffect;  ///< called before its last bytes are handed over
    std::function<void()> isLost;       ///< called when they may not have been acted upon
};

/// One connection as its page and the socket see it: a pipe of so many bytes each way, and every
/// frame to the page looked at as soon as it is whole.
struct Peer {
    Peer(Model& theModel, std::size_t theIndex, std::size_t theCapacity)
        : model(theModel), index(theIndex), capacity(theCapacity) {}

    [[nodiscard]] std::size_t room() const {
        const auto held = written - read;
        return capacity > held ? capacity - held : 0;
    }
    /// Bytes for the page, from wherever.
    void accept(std::string_view bytes);
    /// Whether part of a frame has come.
    [[nodiscard]] bool isWithinFrame() const { return !partial.empty(); }
    /// The number up to which everything has come, or was there when it returned.
    [[nodiscard]] std::uint64_t upTo() const { return next == 0 ? greeting.last : next - 1; }

    Model& model;
    const std::size_t index;
    std::size_t capacity;

    // The wire.
    bool isBroken = false;   ///< the page's end: a write fails
    bool isShut = false;     ///< the gateway's end
    bool isLetGo = false;    ///< the descriptor was closed
    bool isEnded = false;    ///< the gateway knows that it is over
    bool isHeld = false;     ///< the page is not read from
    bool wasClosed = false;  ///< by the page, with a close frame, for good
    bool isCut = false;      ///< by the gateway, without a word
    bool hasLied = false;    ///< it has said what ends a connection
    unsigned closeCode = 0;  ///< by which the gateway ended it
    std::string closeReason;
    std::deque<Saying> sayings;

    // To the page.
    std::string partial;
    bool wasWithinFrame = false;  ///< at the last tick, or while it lasted
    std::uint64_t written = 0;
    std::uint64_t read = 0;
    std::deque<Arrived> inbox;
    TimePoint tookAt;

    // What the protocol says of it.
    ViewModel* view = nullptr;  ///< once there is one
    Greeting greeting;
    bool mayReturn = true;
    std::uint64_t maxBlock = UINT64_MAX;
    bool isControlVague = false;  ///< which answers are due is not certain
    /// What it said of its subscriptions before the hello came that makes them certain.
    std::vector<std::function<void()>> behindHello;
    bool isGreeted = false;
    /// Its page has returned elsewhere: what the rest of its hello says of subscriptions is old.
    bool isReplaced = false;
    std::uint64_t next = 0;  ///< the number of the next message, 0: any up to `greeting.last` + 1
    std::set<std::uint64_t> withdrawn;
    std::map<std::uint32_t, std::size_t> sent;  ///< bytes of each block
    std::vector<std::string> blockChannels;
    std::deque<std::string> expectedControls;
    /// Finds the view when the first bytes come.
    std::function<void(Peer&)> bind;

  private:
    void onFrame(unsigned opcode, std::string_view payload);
    void onBatch(std::string_view payload);
    void onBlock(std::string_view payload, Arrived& arrived);
    void onControl(std::string_view payload, Arrived& arrived);
    void onHello(std::string_view payload);
    void onWithdrawn(std::uint32_t transfer, std::uint64_t count);
    /// Returns what has this number already, null: it is new.
    Item* number(std::uint64_t number);
    void countUnderWay(Item& begun) const;
};

}  // namespace simulate
