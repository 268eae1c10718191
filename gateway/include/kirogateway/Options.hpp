#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kirogateway/Export.hpp"

namespace kirogateway {

/// One file that the gateway serves, whole and from memory.
struct Asset {
    /// The path in the address, with its slash and as it stands there: "/", "/client.js". Not
    /// "/kiroweb" and "/kiroweb/token", where the gateway itself answers.
    std::string name;
    std::string contentType;
    std::string body;
};

/// Reads `file` and takes the type from its ending. Throws std::runtime_error, whose text names the
/// file, when it cannot be read or its ending is not one that a page uses.
[[nodiscard]] KIROGATEWAY_EXPORT Asset loadAsset(const std::string& name, const std::string& file);

/// Returns the modules with which a page speaks to the gateway: "/kiroweb/protocol.mjs", whose
/// `Connection` a page uses, and those that it imports, beside it. They are part of the library,
/// so no file is read. A page's own assets are added to them. Throws std::bad_alloc only.
[[nodiscard]] KIROGATEWAY_EXPORT std::vector<Asset> clientAssets();

inline constexpr std::size_t kKiB = 1024;  ///< in bytes, as kMiB
inline constexpr std::size_t kMiB = 1024 * kKiB;

/// Bounds. Sizes are bytes. All of them are greater than 0, and times are at most a year.
struct Limits {
    std::size_t headerSize = 8 * kKiB;            ///< of an HTTP request; below 4 GiB
    std::size_t messageSize = 4 * kMiB;           ///< of a frame or message from a page; at least
                                                  ///< 64 KiB, for its hello
    std::size_t namesPerFrame = 1024;             ///< channels named in one frame from a page; at
                                                  ///< least 1024, for its hello
    std::size_t undelivered = 4 * kMiB;           ///< of what a page published and nobody in the
                                                  ///< process has had yet; above it, or above
                                                  ///< 64 messages, the page is not read from
    std::size_t readRate = 8 * kMiB;              ///< bytes a second that are read from one page,
                                                  ///< beyond a burst of 256 KiB
    std::size_t connections = 64;                 ///< all together
    std::size_t unauthenticatedConnections = 16;  ///< those that have not upgraded
    std::size_t subscriptions = 1024;             ///< of one page
    /// The share of one view in what waits. A page is too slow when it is beyond its share for
    /// longer than `queue` while it takes less than it is sent.
    std::size_t queueSize = 64 * kMiB;
    /// All that waits in this process, over all views of all gateways, blocks included, each shared
    /// byte once. When there is more than this, and this gateway needs room, the view ends for
    /// which most is held, be it this gateway's or another's: give all of them the same limit.
    std::size_t memory = 1024 * kMiB;
    std::size_t lostViews = 64;             ///< without a connection; the oldest ends first;
                                            ///< at most 10,000
    std::size_t lostMemory = 256 * kMiB;    ///< kept for all of them together
    std::size_t blocksUnderWay = 8;         ///< sent to one page and not answered
    std::size_t bytesUnderWay = 32 * kMiB;  ///< in such blocks, unless it is a single one
    std::size_t pieceSize = 4 * kMiB;       ///< larger blocks go in pieces of this size
    std::size_t batchSize = 64 * kKiB;      ///< where a frame of texts is considered full

    std::chrono::milliseconds request{5000};    ///< from a connection's start to its full header
    std::chrono::milliseconds hello{5000};      ///< from the upgrade to the page's hello
    std::chrono::milliseconds queue{10000};     ///< how long a page may take nothing while
                                                ///< something waits, or stay beyond its share
    std::chrono::milliseconds block{10000};     ///< how long a block may be unanswered
    std::chrono::milliseconds ping{10000};      ///< silence after which a page is pinged
    std::chrono::milliseconds gone{1000};       ///< from a lost connection to "the page is gone"
    std::chrono::milliseconds comeback{10000};  ///< from a lost connection to the end of its view
    std::chrono::milliseconds close{2000};      ///< how long a page has to read why it is closed
    std::chrono::milliseconds code{60000};      ///< how long a single-use code is good
};

/// What a gateway does. Lists of channels may have names that end in "/*", with the meaning that
/// this has everywhere.
struct Options {
    std::string address = "127.0.0.1";  ///< a numeric address; another than loopback is a choice
    std::uint16_t port = 0;             ///< 0: one that is free
    /// Further hosts, as they stand in a request ("plot.example:8080"), and further origins
    /// ("http://localhost:5173"), compared exactly. The port is left out where a browser does. With
    /// an address that stands for all of the machine's ("0.0.0.0", "::") links name the first host.
    std::vector<std::string> extraHosts;
    std::vector<std::string> extraOrigins;
    /// Origins whose pages may show this one in a frame; nobody's unless given.
    std::vector<std::string> frameAncestors;
    /// PEM files, the key without a passphrase; both empty: no TLS.
    std::string certificateFile;
    std::string keyFile;
    /// The link's token, so that it stays over restarts: at least 32 letters and digits that nobody
    /// can guess. Empty: each gateway has one of its own.
    std::string token;

    std::vector<Asset> assets;         ///< no name twice
    std::string configuration = "{}";  ///< a JSON object, handed to every page

    std::vector<std::string> mayPublish;    ///< channels on which a page may publish, blocks too
    std::vector<std::string> maySubscribe;  ///< channels that a page may hear, blocks too
    std::vector<std::string> blockChannels{"/*"};  ///< whose blocks go to the pages
    /// Order holds within one of these groups of channels; what is in none of them is a group of
    /// its own. Groups take turns, so that bulk in one does not hold up another. No
    /// channel stands in two.
    std::vector<std::vector<std::string>> lanes;

    /// Where each new view is announced, once what its page's hello subscribes to is in force;
    /// empty: nowhere. Not for pages that take their channels from the configuration: they
    /// subscribe after the hello, so what the engine sends upon the announcement would be missed.
    /// Such a page announces its view itself, on a channel that is in `mayPublish`.
    std::string newViewChannel;
    std::string reconnectChannel;  ///< where each return of a view is announced; empty: nowhere

    Limits limits;

    /// Called each time the last page has gone, on the gateway's thread. It must not destroy the
    /// gateway. Empty: an empty interpreter task is queued, so that a wait looks at its condition.
    std::function<void()> onLastPageGone;
};

}  // namespace kirogateway
