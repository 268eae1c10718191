#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "Client.hpp"

/// The floors: bare Beast, as somebody would write it who needs a single client and nothing else.
namespace bench {

/// A WebSocket connection from a client of this process. One thread may write while another
/// reads: no control frames come, which reading would answer.
class BeastPeer {
  public:
    BeastPeer();
    ~BeastPeer();
    BeastPeer(const BeastPeer&) = delete;
    BeastPeer& operator=(const BeastPeer&) = delete;

    /// The client's end.
    [[nodiscard]] Client takeClient();

    /// One text frame.
    void write(std::string_view text);
    /// The next message, valid until the next call; empty once the client has gone.
    std::string_view read();

  private:
    struct Impl;
    std::unique_ptr<Impl> fImpl;
};

/// Connections that were greeted and then wait for something to come.
class IdleBeastPeers {
  public:
    IdleBeastPeers();
    ~IdleBeastPeers();
    IdleBeastPeers(const IdleBeastPeers&) = delete;
    IdleBeastPeers& operator=(const IdleBeastPeers&) = delete;

    [[nodiscard]] std::uint16_t port() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace bench
