#pragma once

#include <cstdint>
#include <memory>

#include "Access.hpp"

namespace recording_tool {

/// An HTTP server on 127.0.0.1, in one thread. It keeps some connections, each for as long as
/// something moves on it, and holds little of a file at a time.
class Server {
  public:
    /// Listens from here on, and takes SIGINT and SIGTERM unless the process was started to ignore
    /// them, as a shell starts what runs in the background. `port` 0: one that is free. Throws
    /// std::system_error.
    explicit Server(std::uint16_t port);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    [[nodiscard]] std::uint16_t port() const;
    /// Serves until a signal comes. REQUIRES: called once at most.
    void run(Access& access);

  private:
    class Impl;
    const std::unique_ptr<Impl> fImpl;
};

}  // namespace recording_tool
