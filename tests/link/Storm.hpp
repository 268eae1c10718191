#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace link_test {

/// Sees each message that is published.
using OnMessage = std::function<void(const std::string& subject, const std::string& bytes)>;

/// Both ends with bad luck from a seed, and expects that whatever is lost, doubled, reordered, cut
/// or killed, what a gateway has since it joined is without a gap, and so is what the engine has of
/// it; and that every wait ends.
void playStorm(std::uint64_t seed, OnMessage onMessage = {});

}  // namespace link_test
