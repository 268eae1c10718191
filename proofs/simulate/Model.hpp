#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "View.hpp"
#include "kirogateway/Options.hpp"

/// What docs/protocol.md promises, reckoned by itself: it is told what happens, looks at what pages
/// are sent, and never into the gateway but to learn that a view has ended or lost its connection,
/// for which it wants a reason.
namespace simulate {

using TimePoint = std::chrono::steady_clock::time_point;

struct Peer;
struct ViewModel;

/// A text or block that the engine published.
struct Item {
    enum class Part {
        kPending,
        kMayLeave,  ///< late, but perhaps in the middle of a frame
        kMaybe,     ///< it has answered, and may have been late or not have been heard
        kHas,
        kLeft
    };
    std::uint64_t id = 0;
    std::string channel;
    std::size_t lane = 0;
    std::string content;
    bool isBlock = false;
    bool isPlain = true;  ///< a text that can stand as it is
    TimePoint at;
    std::map<ViewModel*, Part> parts;  ///< of a block
    bool isRefused = false;            ///< somebody who hears it cannot take it
    bool isVague = false;              ///< there may not have been memory for it
    int completions = 0;
    bool isDelivered = false;
};

enum class Where { kConnected, kLost, kGone, kOver };

struct ViewModel {
    struct Expected {
        Item* item;
        bool isOptional;
    };
    enum class Hears { kNo, kMaybe, kYes };
    [[nodiscard]] Hears hears(std::string_view channel) const;
    [[nodiscard]] bool isThere() const {
        return where == Where::kConnected || where == Where::kLost;
    }

    std::size_t index = 0;
    std::string name;
    std::weak_ptr<kirogateway::View> view;
    Peer* peer = nullptr;
    bool mayReturn = true;
    std::uint64_t maxBlock = UINT64_MAX;
    Where where = Where::kConnected;
    TimePoint lostAt;
    TimePoint heardAt;
    std::uint64_t takenWithin = 0;  ///< bytes, at the last tick, if a frame had begun; else 0
    /// In the last tick a frame may have begun before the view was looked at: an engine publishes
    /// what it likes when another view's block comes back.
    bool isPerhapsWithin = false;
    TimePoint perhapsHeardAt;
    TimePoint goneAt = TimePoint::min();
    std::map<std::string, bool> subscriptions;  ///< and whether that is certain
    std::vector<std::deque<Expected>> lanes;    ///< what has no number yet
    std::map<std::uint64_t, Item*> numbered;    ///< null: withdrawn
    std::uint64_t written = 0;
    std::uint64_t acknowledged = 0;
    bool isVague = false;  ///< what it said last may not have been heard
    std::vector<std::string> blockChannels;
    std::map<std::uint32_t, Item*> transfers;
    bool isBadReturn = false;  ///< somebody asked for it as nobody can
    bool hasFailed = false;    ///< there was no room for it
};

class Model {
  public:
    Model(const kirogateway::Options& theOptions, const TimePoint& theNow, bool isTightOne)
        : options(theOptions), now(theNow), isTight(isTightOne) {}

    /// Notes what is wrong; the first counts.
    void fail(const std::string& what);
    void expect(bool holds, const char* what) {
        if (!holds) fail(what);
    }

    [[nodiscard]] std::size_t laneOf(std::string_view channel) const;
    Item& publish(std::string channel, std::string content, bool isBlock, bool isPlain);
    /// The number of `item` to `view` is given: it has to be the next one of its lane.
    void take(ViewModel& view, const Item& item);
    /// The next text of `view` with this channel and content.
    Item* takeText(ViewModel& view, std::string_view channel, std::string_view content,
                   bool isPlain);
    static void settle(ViewModel& view, Item& item, Item::Part part);
    /// Null when there is none.
    [[nodiscard]] ViewModel* viewNamed(std::string_view name);
    [[nodiscard]] bool canReturn(const ViewModel& view, std::uint64_t last) const;
    void resume(ViewModel& view, std::uint64_t last, const std::vector<std::uint64_t>& refused);

    /// Whether a page may subscribe to `name`.
    [[nodiscard]] bool mayHear(std::string_view name) const;
    /// What the view answered last may not have been heard.
    void blur(ViewModel& view);
    /// Its page has read and answered everything.
    void lookAtDrained(ViewModel& view);

    // What happened to a view.
    void lose(ViewModel& view);
    void end(ViewModel& view);
    /// Time is about to be looked at.
    void beforeTick();
    void afterTick();
    /// Of blocks that a failed view holds until its end: others may come in their place already.
    [[nodiscard]] std::size_t endingBytes() const;
    /// Compares: after each step.
    void look(bool isTick);

    const kirogateway::Options& options;
    const TimePoint& now;
    const bool isTight;  ///< memory is scarce, by bound or by failing
    bool isShut = false;
    std::deque<Item> items;
    std::vector<Item*> open;  ///< blocks that are not settled
    std::deque<ViewModel> views;
    bool wasAnyThere = false;
    bool isLastGone = false;
    std::size_t timesGone = 0;
    std::size_t badReturns = 0;
    std::string failure;

  private:
    void lookAt(ViewModel& view, kirogateway::View::State state, bool isTick);
    void excuseEnd(ViewModel& view, bool isTick);
    void excuseSlow(ViewModel& view);
    [[nodiscard]] bool maySkip(ViewModel& view, const ViewModel::Expected& expected);
    void lookAtBlock(Item& item);
};

[[nodiscard]] bool matches(std::string_view pattern, std::string_view channel);

}  // namespace simulate
