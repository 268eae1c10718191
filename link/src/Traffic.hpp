#pragma once

namespace kirolink {

/// Copies what pages may do, and are told, which options of links and gateways and descriptions of
/// sessions have by the same names. Throws std::bad_alloc.
template <typename From, typename To>
void copyTraffic(const From& from, To& to) {
    to.configuration = from.configuration;
    to.mayPublish = from.mayPublish;
    to.maySubscribe = from.maySubscribe;
    to.blockChannels = from.blockChannels;
    to.lanes = from.lanes;
}

}  // namespace kirolink
