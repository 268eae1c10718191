#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Cluster.hpp"

namespace kirolink {

/// How to reach a cluster of NATS nodes, and as whom.
struct NatsOptions {
    /// The nodes, as "host:port", with "tls://" or "nats://" before it or without. They are tried
    /// in this order, again and again; no others are.
    std::vector<std::string> servers;
    /// Who this is: the name of a user in the first line and the password in the second, or a file
    /// of NATS that ends in ".creds". Read each time that a node is tried, so that it may be
    /// replaced. Nobody but its owner may read it. Empty: nodes that ask for nothing.
    std::string credentialsFile;
    /// PEM; whose signature a node's certificate must carry. Empty: no TLS, which
    /// `isPlainAllowed` must allow.
    std::string caFile;
    bool isPlainAllowed = false;  ///< without TLS, when every server is on this machine
    std::string name;             ///< what the nodes call this connection in their logs
    std::string inboxPrefix;      ///< "_INBOX" unless given
    std::size_t queueSize = std::size_t{64} << 20U;  ///< bytes that may wait to be sent
    /// A node that is silent for so long, although it has been asked, is left for the next one.
    std::chrono::milliseconds silence{2000};
    /// Gets one line for each thing that happens to the connection, without a name of this
    /// program: "connected to the cluster's node a:4222". Called on a thread of the cluster's; what
    /// it throws is dropped. May be empty.
    std::function<void(std::string_view line)> log;
};

/// Returns a cluster that connects by itself, on a thread of its own, and again whenever it has
/// lost its node; until then everything that is published is lost. Destroying it may take as long
/// as an attempt to connect: 2 s with a node that hangs. Throws std::invalid_argument, with a text
/// of one line, when the options cannot be right: no server, a CA's or credentials file that
/// cannot be read or that others may read, no TLS where it is needed. Throws std::system_error
/// and std::bad_alloc.
[[nodiscard]] std::unique_ptr<Cluster> connectNats(NatsOptions options);

}  // namespace kirolink
