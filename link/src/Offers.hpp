#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "Cluster.hpp"

namespace kirolink {

/// Tells engines of a gateway that could serve their pages and has not joined, so that they know
/// where these can be had. Not synchronised.
class Offers {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    static constexpr std::chrono::seconds kAgain{60};

    /// Called for each beat. `hasPage`: its session brings a page of its own. Says where a browser
    /// finds the session's page at this gateway; empty: nowhere.
    using AddressOf = std::function<std::string(const std::string& session, bool hasPage)>;

    /// REQUIRES: `cluster` outlives it.
    Offers(Cluster& cluster, std::string gateway, AddressOf addressOf);

    /// A message has come on a session's subject for beats: an engine that is new is told, and all
    /// of them again every minute. Returns whether it was a beat. Throws std::bad_alloc.
    bool beat(const std::string& session, std::string_view bytes, TimePoint now);

  private:
    struct Told {
        std::uint64_t epoch = 0;
        TimePoint when{};
    };

    Cluster& fCluster;
    const std::string fGateway;
    const AddressOf fAddressOf;
    std::map<std::string, Told, std::less<>> fTold;
};

}  // namespace kirolink
