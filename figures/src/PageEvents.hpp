#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "kirofigures/Events.hpp"
#include "kirofigures/Window.hpp"

namespace kirofigures::detail {

/// What a page says of a frame.
struct FrameReport {
    std::uint64_t frame = 0;
    std::uint64_t attempt = 0;
    Outcome outcome = Outcome::kPainted;
    std::string error;
    /// When the page began to paint it, and its token's stamp; microseconds since 1970, 0: not
    /// said.
    std::uint64_t clientPaint = 0;
    std::uint64_t clientSend = 0;
};

struct PickEvent {
    std::uint64_t axes = 0;
    double x = 0;
    double y = 0;
    std::uint64_t series = 0;  ///< 0: none is near
    std::uint64_t index = 0;
};

struct LimitsEvent {
    std::uint64_t axes = 0;
    View view;
};

struct KeyEvent {
    std::uint64_t axes = 0;  ///< 0: none
    std::string key;
};

struct ControlEvent {
    std::uint64_t id = 0;
    std::optional<double> value;
};

using InputEvent = std::variant<PickEvent, LimitsEvent, KeyEvent, ControlEvent>;
using PageEvent = std::variant<std::monostate, FrameReport, InputEvent>;

/// Reads what a page has published, which may be anything: nothing of what is no event, lacks a
/// field or has one that cannot be. Whether objects and values fit is the reader's affair.
[[nodiscard]] PageEvent readEvent(std::string_view text);

}  // namespace kirofigures::detail
