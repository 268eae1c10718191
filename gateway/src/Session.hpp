#pragma once

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Budget.hpp"
#include "CharacterEnd.hpp"
#include "Connection.hpp"
#include "Context.hpp"
#include "FrameReader.hpp"
#include "Inbound.hpp"
#include "PageMessages.hpp"
#include "ViewRegistry.hpp"

namespace kirogateway {

/// What sessions act upon. It outlives them.
struct SessionServices {
    std::shared_ptr<Context> context;
    std::shared_ptr<ViewRegistry> views;
    Inbound& inbound;
};

/// What one connection says, from the upgrade on. It knows no socket but to hand it on. The
/// gateway's thread.
class Session {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// `arrival`: this connection, which outlives the session.
    Session(const SessionServices& services, ViewRegistry::Arrival arrival);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() = default;

    /// Bytes of a message came, the last ones of it with `isLast`. Throws std::bad_alloc; the
    /// connection has to go then.
    void text(std::string_view bytes, bool isLast, TimePoint now);
    void binary(std::string_view bytes, bool isLast, TimePoint now);
    /// Anything else came: the page lives.
    void heard(TimePoint now) noexcept;
    enum class Reading {
        kNow,
        kWhenTold,  ///< `Connection::readOn` will be called
        kLater,     ///< to be asked again every now and then
    };
    /// When the page may be read from.
    [[nodiscard]] Reading mayRead() noexcept;
    /// The connection is over; `wasClosed`: by the page, with a close frame.
    void ended(bool wasClosed, TimePoint now) noexcept;
    /// The view said that it has failed.
    void viewFailed() noexcept;
    /// There was no hello in time.
    void helloOverdue() noexcept;

    /// Nothing more is listened to.
    [[nodiscard]] bool isOver() const noexcept { return fIsOver; }
    /// Empty before the hello.
    [[nodiscard]] const std::shared_ptr<View>& view() const noexcept { return fView; }
    /// The view, if it has this connection.
    [[nodiscard]] View* viewHere() const noexcept;

  private:
    void handle(wire::PageMessage&& message, TimePoint now);
    void hello(const wire::Hello& hello, TimePoint now);
    void publish(wire::Publish&& publish);
    void subscribe(const wire::Subscribe& subscribe);
    void answer(const wire::BlockAnswer& answer);
    void name(const wire::ChannelName& name);
    void takeBlock(std::string_view frame);
    void refuse(std::string_view what, std::string_view channel, std::string_view reason);
    void bad(std::string_view why) noexcept;
    void close(wire::CloseCode code, std::string_view why) noexcept;

    static constexpr std::size_t kOwnChannels = 16;

    const SessionServices& fServices;
    ViewRegistry::Arrival fArrival;
    std::shared_ptr<View> fView;
    bool fIsOver = false;
    std::array<std::optional<std::string>, kOwnChannels> fOwnChannels;  ///< those named
    FrameReader fReader;
    CharacterEnd fCharacter;  ///< of the text that comes
    std::string fBlock;       ///< a binary message that is not whole yet
    Charge fHeld;             ///< for what has come of a message
};

}  // namespace kirogateway
