#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ChannelList.hpp"
#include "Context.hpp"
#include "Text.hpp"
#include "ViewRegistry.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"

namespace kirogateway {

/// The way from the engine to the pages: hands what is published to every view that hears it. The
/// host hands it over, or what follows an engine on another machine. Publishing threads.
class Fanout final : public relay::Transport {
  public:
    Fanout(std::shared_ptr<Context> context, std::shared_ptr<ViewRegistry> views);

    /// REQUIRES: calls come one at a time.
    void messagePublished(const relay::Publication& message) override;
    /// Lets every view take part that hears `channel`. Who waits for the block may be told from
    /// here.
    void offer(const std::string& channel, const std::shared_ptr<Transfer>& transfer) noexcept;
    /// As above, for a block of this process.
    void offer(relay::binary::experimental::Delivery delivery) noexcept;

  private:
    /// Where messages of one channel go. It is made once, and again when a view or a subscription
    /// has come or gone.
    struct Route {
        bool canBeNamed = false;  ///< texts on channels that a batch cannot name are not carried
        std::size_t lane = 0;
        std::vector<std::shared_ptr<View>> hearers;
    };
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const noexcept {
            return std::hash<std::string_view>{}(text);
        }
    };

    [[nodiscard]] const Route& route(const std::string& channel);
    [[nodiscard]] std::size_t laneOf(std::string_view channel) const;
    /// Makes the text as it goes to the pages. Returns false if there is no room for it.
    [[nodiscard]] bool prepare(const relay::Publication& message, Text& text, std::string& encoded);
    /// The same text as another gateway of the process counted it already, or null.
    [[nodiscard]] std::shared_ptr<const SharedText> countedBefore(
        const relay::Publication& message) const;
    /// Null if there is no room.
    [[nodiscard]] std::shared_ptr<const SharedText> count(const relay::Publication& message,
                                                          const Text& text, std::string& encoded);
    void publish(View& view, const Text& text) noexcept;
    void logTooLarge(const char* what, std::size_t size, std::string_view channel) noexcept;
    [[nodiscard]] Charge chargeFor(std::string_view channel, std::size_t block) noexcept;
    [[nodiscard]] View::Part offerTo(View& view, std::string_view channel, std::size_t lane,
                                     const std::shared_ptr<Transfer>& transfer) noexcept;

    const std::shared_ptr<Context> fContext;
    const std::shared_ptr<ViewRegistry> fViews;
    std::vector<ChannelList> fLanes;  ///< constant after construction

    // Guarded by whoever hands messages over, one at a time: the relay under its publish lock.
    std::unordered_map<std::string, Route, Hash, std::equal_to<>> fRoutes;
    std::uint64_t fRoutesVersion = 0;
    const std::string* fLastChannel = nullptr;  ///< a key of `fRoutes`
    const Route* fLastRoute = nullptr;
};

}  // namespace kirogateway
