#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "kirogateway/Export.hpp"
#include "kirogateway/Options.hpp"

namespace kirogateway {

/// What went over a gateway since it was started.
struct Statistics {
    std::size_t pages = 0;              ///< connected now
    std::uint64_t views = 0;            ///< that said hello
    std::uint64_t returns = 0;          ///< of views after a lost connection
    std::uint64_t textsSent = 0;        ///< one for each page that a text was queued for
    std::uint64_t blocksDelivered = 0;  ///< to every page
    std::uint64_t blocksGivenBack = 0;
    std::uint64_t textsReceived = 0;
    std::uint64_t blocksReceived = 0;
    std::uint64_t refusals = 0;      ///< requests of pages that were refused
    std::uint64_t disconnected = 0;  ///< pages closed by the gateway, for whatever reason
};

/// Serves pages: assets over HTTP, and the process's messages and blocks over WebSocket. It
/// attaches itself to the host's message service and binary streams. The wire is described in
/// docs/protocol.md.
///
/// All operations on any thread, unless they say otherwise. One thread of its own does what the
/// publishing threads do not: reading, accepting, and writing to pages that do not keep up.
/// Callbacks of binary receivers run on that thread when a page sends a block.
class KIROGATEWAY_EXPORT Gateway {
  public:
    /// Starts to serve. Throws std::invalid_argument for options that cannot be meant,
    /// std::system_error when the address cannot be had, a TLS file is not usable or the system
    /// gives no thread. The text is one line, which names the option, address or file and says
    /// what to do.
    explicit Gateway(Options options);
    /// As `stop`.
    ~Gateway();
    Gateway(const Gateway&) = delete;
    Gateway& operator=(const Gateway&) = delete;

    /// Closes every page, gives back every block and ends the thread. A second call does nothing.
    /// REQUIRES: not on the gateway's thread.
    void stop() noexcept;

    [[nodiscard]] std::uint16_t port() const noexcept;

    /// The address that lets its holder in as long as the gateway lives:
    /// "http://HOST:PORT/#token=TOKEN". What stands behind "#" never leaves a browser; it is the
    /// page that offers it to the gateway. Not to be logged.
    [[nodiscard]] std::string link() const;
    /// A further address each time, "http://HOST:PORT/#code=CODE", for command lines, which others
    /// can see: the page exchanges the code for the token, once and within `Limits::code`. At most
    /// 16 codes are good at a time; a further one ends the oldest. Throws std::system_error when
    /// the system has no random numbers.
    [[nodiscard]] std::string singleUseLink();

    /// Whether a page was there and none is any more. A page that closed its connection is gone
    /// at once, one that lost it after a second. Costs one atomic load.
    [[nodiscard]] bool lastPageGone() const noexcept;

    [[nodiscard]] Statistics statistics() const;
    /// A JSON object for a diagnostic bundle: the statistics, what waits in all gateways of the
    /// process, and for each view its state, what waits for it, what is under way, and the age of
    /// its last sign of life.
    [[nodiscard]] std::string diagnostics() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kirogateway
