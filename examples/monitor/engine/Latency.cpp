#include "engine/Latency.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "checked/Require.hpp"

namespace monitor::engine {

using std::chrono::microseconds;

namespace {

microseconds between(std::uint64_t from, std::uint64_t to) {
    // The difference of unsigned numbers, taken as a signed one, is right in both directions.
    return microseconds(static_cast<std::int64_t>(to - from));
}

}  // namespace

std::optional<Latency> latencyOf(
    const kiroutils::CompletionToken::CompletionTokenTimeStamps& stamps) {
    if (stamps.serverSend == 0 || stamps.clientReceive == 0 || stamps.clientSend == 0) return {};
    return Latency{between(stamps.serverSend, stamps.clientReceive),
                   between(stamps.clientReceive, stamps.clientSend),
                   between(stamps.clientSend, stamps.serverReceive),
                   between(stamps.serverSend, stamps.serverReceive)};
}

microseconds percentile(std::vector<microseconds> values, double share) {
    KIROWEB_REQUIRE(!values.empty());
    KIROWEB_REQUIRE(share >= 0 && share <= 1);
    const auto index = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + index, values.end());
    return values[static_cast<std::size_t>(index)];
}

}  // namespace monitor::engine
