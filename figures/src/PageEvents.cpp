#include "PageEvents.hpp"

#include <array>
#include <boost/json/parse.hpp>
#include <cmath>
#include <utility>

namespace kirofigures::detail {

namespace json = boost::json;

namespace {

/// An event is a few numbers and a text.
constexpr std::size_t kLongestEvent = 64UL * 1024;
constexpr std::size_t kLongestError = 2000;
constexpr std::size_t kLongestKey = 32;

/// Nobody is told why an event is dropped.
struct WrongEvent {};

const json::value& field(const json::object& event, std::string_view name) {
    const auto* const value = event.if_contains(name);
    if (value == nullptr) throw WrongEvent();
    return *value;
}

double number(const json::value& value) {
    if (!value.is_number()) throw WrongEvent();
    const auto read = value.to_number<double>();
    if (!std::isfinite(read)) throw WrongEvent();
    return read;
}

std::uint64_t whole(const json::value& value) {
    if (value.is_uint64()) return value.get_uint64();
    if (value.is_int64() && value.get_int64() >= 0) {
        return static_cast<std::uint64_t>(value.get_int64());
    }
    throw WrongEvent();
}

std::string_view text(const json::value& value) {
    if (!value.is_string()) throw WrongEvent();
    return {value.get_string().data(), value.get_string().size()};
}

View::Range range(const json::value& value) {
    if (!value.is_array() || value.get_array().size() != 2) throw WrongEvent();
    const View::Range range{number(value.get_array()[0]), number(value.get_array()[1])};
    if (!(range.low < range.high)) throw WrongEvent();
    return range;
}

/// Without the end of a character that was cut in two.
std::string shortened(std::string_view text) {
    if (text.size() <= kLongestError) return std::string(text);
    std::size_t end = kLongestError;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0U) == 0x80U) --end;
    return std::string(text.substr(0, end)) + "...";
}

PageEvent frameReport(const json::object& event) {
    static constexpr std::array<std::pair<std::string_view, Outcome>, 4> kOutcomes{
        {{"painted", Outcome::kPainted},
         {"hidden", Outcome::kHidden},
         {"paused", Outcome::kPaused},
         {"failed", Outcome::kFailed}}};
    FrameReport report{whole(field(event, "frame")), whole(field(event, "attempt")), {}, {}};
    if (event.contains("clientPaint")) {
        report.clientPaint = whole(field(event, "clientPaint"));
        report.clientSend = whole(field(event, "clientSend"));
    }
    const auto said = text(field(event, "outcome"));
    for (const auto& [name, outcome] : kOutcomes) {
        if (name != said) continue;
        report.outcome = outcome;
        if (outcome != Outcome::kFailed) return report;
        const auto* const error = event.if_contains("error");
        report.error = error != nullptr && error->is_string() ? shortened(text(*error))
                                                              : "the page does not say why";
        return report;
    }
    throw WrongEvent();
}

PageEvent pick(const json::object& event) {
    PickEvent pick{whole(field(event, "axes")), number(field(event, "x")),
                   number(field(event, "y")), 0, 0};
    if (event.contains("series")) {
        pick.series = whole(field(event, "series"));
        pick.index = whole(field(event, "index"));
    }
    return pick;
}

PageEvent limits(const json::object& event) {
    LimitsEvent limits{whole(field(event, "axes")), {}};
    auto& view = limits.view;
    const auto* const home = event.if_contains("home");
    view.home = home != nullptr && home->is_bool() && home->get_bool();
    view.x = range(field(event, "x"));
    view.y = range(field(event, "y"));
    if (event.contains("y2")) view.y2 = range(field(event, "y2"));
    view.width = number(field(event, "width"));
    view.height = number(field(event, "height"));
    if (view.width < 0 || view.height < 0) throw WrongEvent();
    return limits;
}

PageEvent key(const json::object& event) {
    const auto* const axes = event.if_contains("axes");
    const auto name = text(field(event, "key"));
    if (name.empty() || name.size() > kLongestKey) throw WrongEvent();
    return KeyEvent{axes == nullptr || axes->is_null() ? 0 : whole(*axes), std::string(name)};
}

PageEvent control(const json::object& event) {
    ControlEvent control{whole(field(event, "id")), {}};
    const auto* const value = event.if_contains("value");
    if (value != nullptr && !value->is_null()) control.value = number(*value);
    return control;
}

PageEvent read(const json::object& event) {
    static constexpr std::array<std::pair<std::string_view, PageEvent (*)(const json::object&)>, 5>
        kReaders{{{"frame", frameReport},
                  {"pick", pick},
                  {"limits", limits},
                  {"key", key},
                  {"control", control}}};
    const auto name = text(field(event, "event"));
    for (const auto& [known, reader] : kReaders) {
        if (known == name) return reader(event);
    }
    throw WrongEvent();
}

}  // namespace

PageEvent readEvent(std::string_view text) {
    if (text.size() > kLongestEvent) return {};
    boost::system::error_code error;
    const auto value = json::parse(text, error);
    if (error || !value.is_object()) return {};
    try {
        return read(value.get_object());
    } catch (const WrongEvent&) {
        return {};
    }
}

}  // namespace kirofigures::detail
