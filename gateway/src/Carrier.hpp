#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kirogateway {

/// What carries a page's bytes: one connection, or a test's stand-in.
class Carrier {
  public:
    Carrier() = default;
    Carrier(const Carrier&) = delete;
    Carrier& operator=(const Carrier&) = delete;
    virtual ~Carrier() = default;

    /// The three requests below come from any thread, under the page's lock: they only note or post
    /// something, and call nothing of the page's.

    /// The page wants `Page::writeMore` called when the peer takes bytes again.
    virtual void awaitWritable() = 0;
    /// The page wants `Page::writeTail` called a moment later.
    virtual void awaitTail() = 0;
    /// The page cannot go on with this connection; `Page::failure` says why.
    virtual void pageFailed() = 0;

    /// Sends `rest`, the remainder of a frame, and a close frame, and ends the connection when
    /// the peer has answered or its time is over. REQUIRES: the gateway's thread; the page has
    /// been detached.
    virtual void close(std::uint16_t code, std::string_view reason, std::string rest) = 0;
};

}  // namespace kirogateway
