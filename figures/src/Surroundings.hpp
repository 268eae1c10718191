#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "kirofigures/Window.hpp"

namespace kirofigures::detail {

/// What a window asks the world around it.
struct Surroundings {
    /// Whether pages were there and none is any more.
    std::function<bool()> isPageGone = [] { return false; };
    /// How many pages are there.
    std::function<std::size_t()> numPages = [] { return std::size_t{1}; };
    /// Why there is no answer, in a few words.
    std::function<std::string()> lateCause = [] { return "no answer"; };
    std::function<std::chrono::steady_clock::time_point()> now = std::chrono::steady_clock::now;

    /// A window in surroundings of the caller's, which serves nothing.
    static std::unique_ptr<Window> open(WindowOptions options, const Surroundings& surroundings);
};

}  // namespace kirofigures::detail
