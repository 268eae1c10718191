// What a page says of figures: whatever is an event has values that can be.
#include "PageEvents.hpp"

#include <cmath>
#include <string>

#include "Fuzz.hpp"

namespace {

using fuzz::require;
using namespace kirofigures;
using namespace kirofigures::detail;

void checkRange(const View::Range& range) {
    require(std::isfinite(range.low) && std::isfinite(range.high), "an end is a number");
    require(range.low < range.high, "a range has a length");
}

struct Check {
    void operator()(const PickEvent& pick) const {
        require(std::isfinite(pick.x) && std::isfinite(pick.y), "a place is a number");
    }
    void operator()(const LimitsEvent& limits) const {
        checkRange(limits.view.x);
        checkRange(limits.view.y);
        if (limits.view.y2) checkRange(*limits.view.y2);
        require(limits.view.width >= 0 && limits.view.height >= 0, "a size is not negative");
    }
    void operator()(const KeyEvent& key) const {
        require(!key.key.empty() && key.key.size() <= 32, "a key has a short name");
    }
    void operator()(const ControlEvent& control) const {
        require(!control.value || std::isfinite(*control.value), "a value is a number");
    }
    void operator()(const FrameReport& report) const {
        const bool isFailed = report.outcome == Outcome::kFailed;
        require(isFailed || report.error.empty(), "only what failed has a reason");
        require(report.error.size() <= 2003, "a reason is short");
    }
    void operator()(const InputEvent& input) const { std::visit(*this, input); }
    void operator()(std::monostate /*none*/) const {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::visit(Check(), readEvent(std::string(data, data + size)));
    return 0;
}
