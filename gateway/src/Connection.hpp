#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace kirogateway {

/// One accepted connection, as the server and its view see it.
class Connection {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// What a view asks of its connection.
    enum Request : unsigned {
        kWrite = 1,   ///< call `View::writeMore` when the peer takes bytes again
        kTail = 2,    ///< call `View::writeTail` a moment later
        kFailed = 4,  ///< the view has to end; `View::failure` says why
    };

    Connection() = default;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    virtual ~Connection() = default;

    /// Any thread, under the view's lock too: nothing of the view's is called from here.
    virtual void request(Request what) noexcept = 0;

    // --- The gateway's thread ---

    /// Sends `rest`, the remainder of a frame, and a close frame, and ends the connection when the
    /// peer has answered or its time is over. Without memory, or room for `rest`, it is cut.
    /// REQUIRES: the view has been detached.
    virtual void close(std::uint16_t code, std::string_view reason, std::string rest) noexcept = 0;
    /// Ends the connection without a word. REQUIRES: the view has been detached.
    virtual void cut() noexcept = 0;
    /// What the page published has been heard; it may be read from again.
    virtual void readOn() noexcept = 0;
    /// Whether nothing is read at present, so that silence says nothing about the page.
    [[nodiscard]] virtual bool isReadingHeld() const noexcept = 0;
};

}  // namespace kirogateway
