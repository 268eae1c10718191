#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "kirogateway/Options.hpp"
#include "kirolink/Export.hpp"

namespace kirolink {

/// What a link does. What pages may do is as in `kirogateway::Options`: it holds at every gateway.
struct Options {
    /// The cluster's nodes, as "host:port"; the first one that answers is taken.
    std::vector<std::string> servers;
    /// The session's name, which stands in the pages' address: 1 to 64 of letters, digits, "_" and
    /// "-". One engine at a time has it.
    std::string session;
    /// A file with the name of a user and a password, a line each, or one of NATS that ends in
    /// ".creds". Only its owner may read it. Empty: for nodes that ask for nothing.
    std::string credentials;
    /// A PEM file of the authority that the nodes' certificates are signed by. Empty: no TLS, which
    /// `isPlainAllowed` has to allow, for nodes on this machine only.
    std::string caFile;
    bool isPlainAllowed = false;

    /// A page of the session's own in place of the one that gateways have, one of them "/": at most
    /// 4096 files and 4 MiB together. They are as for `kirogateway::Options`; what is in
    /// `clientAssets` has to be among them if the page uses it. Gateways serve it at an origin of
    /// its own, "https://SESSION.HOST/", so the session's name has no "_" then, has at most 63
    /// characters and begins and ends with a letter or digit.
    std::vector<kirogateway::Asset> assets;
    std::string configuration = "{}";  ///< a JSON object, handed to every page
    std::vector<std::string> mayPublish;
    std::vector<std::string> maySubscribe;
    std::vector<std::string> blockChannels{"/*"};
    std::vector<std::vector<std::string>> lanes;  ///< at most 32
    std::string newViewChannel;
    std::string reconnectChannel;
    /// What lets a page in, so that links stay over restarts: at least 32 letters and digits that
    /// nobody can guess. Empty: each link has one of its own. Gateways are told its hash only.
    std::string token;
    std::size_t pieceSize = 0;  ///< of blocks to pages, as `kirogateway::Limits`; 0: as usual

    /// Bytes that are kept for gateways that do not have them yet; at least 1 MiB. The gateway that
    /// holds up more is dropped. A block larger than half of it, or than 256 MiB, is given back.
    std::size_t memory = std::size_t{256} << 20U;

    /// Called each time the last page has gone, on the link's thread. It must not destroy the link.
    /// Empty: an empty interpreter task is queued, so that a wait looks at its condition.
    std::function<void()> onLastPageGone;
    /// Called with a link for each address at which a gateway serves the session, or will when
    /// somebody opens it, on the link's thread: "ADDRESS/#token=TOKEN". Not to be logged. It must
    /// not destroy the link.
    std::function<void(const std::string& link)> onGateway;
};

/// Reads the options "servers" (apart by commas or spaces), "session", "credentials" and "ca" from
/// a file of lines "NAME = VALUE"; "#" begins a comment. Names of files are relative to its folder.
/// Throws std::runtime_error, with a text of one line that names the file, when that cannot be
/// done.
[[nodiscard]] KIROLINK_EXPORT Options loadOptions(const std::string& file);

}  // namespace kirolink
