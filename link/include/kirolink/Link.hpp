#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kirolink/Export.hpp"
#include "kirolink/Options.hpp"
#include "kirolink/Statistics.hpp"

namespace kirolink {

/// Carries the process's messages and blocks over a NATS cluster to gateways on other machines,
/// which serve the pages. It attaches itself to the host's message service and binary streams. What
/// travels is described in docs/link.md.
///
/// All operations on any thread, unless they say otherwise. A thread of its own does what the
/// publishing threads do not. Callbacks of binary receivers run on it when a page sends a block,
/// and completions of blocks.
class KIROLINK_EXPORT Link {
  public:
    /// Begins to connect; that the cluster is not there yet is no failure. Throws
    /// std::invalid_argument for options that cannot be meant, or files that cannot be read, and
    /// std::system_error when the system gives no thread or no random numbers. The text is one
    /// line.
    explicit Link(Options options);
    /// As `stop`.
    ~Link();
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    /// Ends the session: its pages are told, and every block is given back. A second call does
    /// nothing. REQUIRES: not on the link's thread.
    void stop() noexcept;

    [[nodiscard]] const std::string& session() const noexcept;
    /// A link for each gateway that serves the session or would, see `Options::onGateway`.
    [[nodiscard]] std::vector<std::string> links() const;
    /// Whether a page was there and none is any more, at all gateways that are heard. Costs one
    /// atomic load.
    [[nodiscard]] bool lastPageGone() const noexcept;
    /// As of the last 50 ms.
    [[nodiscard]] Statistics statistics() const;
    /// A JSON object for a diagnostic bundle: the statistics, and for each gateway whether it is
    /// heard, how many pages it has, how far it is behind, and how far its clock is off.
    [[nodiscard]] std::string diagnostics() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kirolink
