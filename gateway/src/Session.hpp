#pragma once

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "Carrier.hpp"
#include "Hub.hpp"
#include "PageMessages.hpp"

namespace kirogateway {

/// What one connection says, from the upgrade on. It knows no socket. The gateway's thread.
class Session {
  public:
    using TimePoint = Hub::TimePoint;

    /// `socket`: see `Page::attach`. REQUIRES: `carrier` outlives the session.
    Session(std::shared_ptr<Hub> hub, Carrier& carrier, int socket) noexcept
        : fHub(std::move(hub)), fCarrier(carrier), fSocket(socket) {}

    /// A whole text or binary message came. `self` owns the carrier.
    void text(std::string_view frame, const std::shared_ptr<Carrier>& self, TimePoint now);
    void binary(std::string_view frame, TimePoint now);
    /// Anything else came: the page lives.
    void heard(TimePoint now);
    /// The connection is over; `wasClosed`: by the page, with a close frame.
    void ended(bool wasClosed, TimePoint now);
    /// The carrier was told that the page failed.
    void pageFailed();
    /// There was no hello in time.
    void helloOverdue();

    /// Nothing more is listened to.
    [[nodiscard]] bool isOver() const noexcept { return fIsOver; }
    /// Empty before the hello.
    [[nodiscard]] const std::shared_ptr<Page>& page() const noexcept { return fPage; }

  private:
    void handle(const wire::PageMessage& message, const std::shared_ptr<Carrier>& self,
                TimePoint now);
    void hello(const wire::Hello& hello, const std::shared_ptr<Carrier>& self, TimePoint now);
    void publish(const wire::Publish& publish, TimePoint now);
    void subscribe(const wire::Subscribe& subscribe, TimePoint now);
    void answer(const wire::BlockAnswer& answer, TimePoint now);
    void name(const wire::ChannelName& name);
    void refuse(std::string_view what, std::string_view channel, std::string_view reason,
                TimePoint now);
    void bad(const std::string& why, TimePoint now);
    void close(wire::CloseCode code, const std::string& why);

    static constexpr std::size_t kOwnChannels = 16;

    const std::shared_ptr<Hub> fHub;
    Carrier& fCarrier;
    const int fSocket;
    std::shared_ptr<Page> fPage;
    bool fIsOver = false;
    std::array<std::string, kOwnChannels> fOwnChannels;
};

}  // namespace kirogateway
