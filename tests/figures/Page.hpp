#pragma once

#include <boost/json/object.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kirofigures/Window.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"
#include "relay/message_service/MessageService.hpp"

namespace figures_test {

/// An object as a page that has followed all commands knows it.
struct Shown {
    std::string type;
    std::uint64_t parent = 0;
    boost::json::object properties;
    /// A regular x is one of them.
    std::map<std::string, std::vector<double>> columns;
    std::uint64_t given = 0;  ///< elements since the last set
};
using Picture = std::map<std::uint64_t, Shown>;
/// A line for each object. Numbers have six digits, for how many travel depends on what they travel
/// with.
[[nodiscard]] std::vector<std::string> linesOf(const Picture& picture);

struct Frame {
    std::uint64_t number = 0;
    std::uint64_t attempt = 0;
    bool isWhole = false;
    /// Those between beginning and token, without their numbers.
    std::vector<boost::json::object> commands;
    /// The picture behind them.
    Picture picture;
    std::string token;
    std::string returnChannel;
};

/// Follows commands and blocks by the vocabulary's rules, a recording's snapshots included.
class Follower {
  public:
    void command(const boost::json::object& command);
    void block(std::string_view bytes);

    Picture picture;
    Frame current;
    std::uint64_t sequence = 0;  ///< of the latest command; 0: it may begin anywhere
    std::vector<std::string> faults;

  private:
    void data(const boost::json::object& command, Shown& shown);
    void expect(bool holds, const std::string& rule) {
        if (!holds) faults.push_back(rule);
    }
    std::map<std::uint64_t, std::string> fBlocks;
};

/// A page in this process: it follows the commands by the vocabulary's rules and answers each token
/// as it is told. It works on the message service's thread.
class Page {
  public:
    /// What is done when a token has come, on the message service's thread.
    using Answer = std::function<void(Page&, const Frame&)>;

    /// Runs what the page does with a block, on the engine's thread.
    using Aside = std::function<void(const std::function<void()>&)>;

    /// Hears from now on.
    explicit Page(
        const kirofigures::Channels& channels, Aside aside = [](const auto& take) { take(); });
    ~Page();
    Page(const Page&) = delete;
    Page& operator=(const Page&) = delete;

    /// A new view, which knows nothing.
    void announce();
    /// The view is back, and knows what it knew.
    void comeBack() { publish(fChannels.reconnect, "{}"); }
    void say(const std::string& event) { publish(fChannels.events, event); }
    /// Says what became of the frame.
    void report(const Frame& frame, const std::string& outcome, const std::string& error = {});
    void returnToken(const Frame& frame);
    /// Does both.
    void end(const Frame& frame, const std::string& outcome, const std::string& error = {});

    /// What is done at the next token for which nothing else is said; then at the one after. When
    /// there is nothing, the frame is painted.
    void next(Answer answer);

    [[nodiscard]] std::vector<Frame> frames() const;
    [[nodiscard]] Frame last() const { return frames().back(); }
    /// What was against the rules.
    [[nodiscard]] std::vector<std::string> faults() const;

  private:
    void take(const boost::json::object& command);
    void publish(const std::string& channel, const std::string& text);

    const kirofigures::Channels fChannels;
    const Aside fAside;
    const std::shared_ptr<relay::message_service::MessageService> fService;
    mutable std::mutex fMutex;  // guards what follows
    Follower fFollower;
    std::vector<Frame> fFrames;
    std::deque<Answer> fAnswers;

    std::unique_ptr<relay::binary::experimental::ClientEnd> fEnd;
    std::shared_ptr<relay::message_service::Subscription> fSubscription;
};

/// An answer that only says this.
[[nodiscard]] Page::Answer outcome(const std::string& outcome, const std::string& error = {});

}  // namespace figures_test
