#include "client/Checker.hpp"

#include <algorithm>
#include <array>
#include <boost/json.hpp>
#include <cstring>
#include <string_view>
#include <vector>

#include "client/DataUpdate.hpp"
#include "client/Fields.hpp"
#include "client/Findings.hpp"

namespace monitor::client {

using boost::json::object;

namespace {

/// What the figures consist of. Of several children of one type the further ones are numbered.
constexpr std::array<const char*, 10> kObjects{"ecg",
                                               "ecg.axes",
                                               "ecg.axes.line",
                                               "ecg.axes.text",
                                               "quakes",
                                               "quakes.axes",
                                               "quakes.axes.outline",
                                               "quakes.axes.scatter",
                                               "quakes.axes.text",
                                               "quakes.axes.text2"};

std::string nameOfFigure(const std::string& title) {
    if (title.starts_with("Electrocardiogram")) return "ecg";
    if (title.starts_with("Earthquakes")) return "quakes";
    throw FieldError("the figure \"" + title + "\" is not known");
}

template <typename Number>
std::vector<double> columnOf(std::string_view& bytes, std::uint64_t count) {
    if (bytes.size() / sizeof(Number) < count) throw FieldError("its block is too small");
    std::vector<Number> numbers(count);
    std::memcpy(numbers.data(), bytes.data(), count * sizeof(Number));
    bytes.remove_prefix(count * sizeof(Number));
    return {numbers.begin(), numbers.end()};
}

DataUpdate updateOf(const object& command, std::string_view block) {
    DataUpdate update{count(command, "first"), count(command, "count")};
    const auto& columns = field(command, "columns");
    if (!columns.is_array()) throw FieldError("\"columns\" is no array");
    for (const auto& column : columns.get_array()) {
        const auto names = boost::json::value_to<std::vector<std::string>>(column);
        if (names.size() != 2) throw FieldError("a column needs a name and a type");
        if (names[1] != "f32" && names[1] != "f64") throw FieldError("a column of another type");
        update.columns[names[0]] = names[1] == "f32" ? columnOf<float>(block, update.count)
                                                     : columnOf<double>(block, update.count);
    }
    if (!block.empty()) throw FieldError("its block is too large");
    return update;
}

}  // namespace

Checker::Checker(const ReferenceData& data, Findings& findings)
    : fFindings(findings), fEcg(data, findings), fQuakes(data, findings) {}

void Checker::apply(const object& command, const std::string* block) {
    std::string name = "without a name";
    try {
        name = text(command, "cmd");
        checkSequence(command);
        dispatch(name, command, block);
    } catch (const std::exception& error) {  // of this, or of the JSON library
        fFindings.wrong("command " + std::to_string(fSequence) + ' ' + name + ": " + error.what());
    }
}

void Checker::checkSequence(const object& command) {
    const std::uint64_t sequence = count(command, "seq");
    const std::uint64_t expected = fSequence + 1;
    if (sequence > expected) {
        for (std::uint64_t lost = expected; lost < sequence; ++lost) {
            fFindings.missing("command " + std::to_string(lost));
        }
    } else if (sequence < expected) {
        fFindings.outOfOrder("command " + std::to_string(sequence) + " after " +
                             std::to_string(fSequence));
    }
    fSequence = std::max(fSequence, sequence);
}

void Checker::dispatch(const std::string& name, const object& command, const std::string* block) {
    if (name == "beginFrame") return beginFrame(command);
    if (!fInFrame) fFindings.outOfOrder("command " + name + " outside a frame");
    if (name == "create") return create(command);
    const std::string& target = nameOf(command, "id");
    if (name == "data") return setData(target, command, block);
    if (name != "set") throw FieldError("it is not known");
    setProperties(target, command);
}

void Checker::beginFrame(const object& command) {
    const Frame expected{fExpectRepeat ? fFrame.number : fNextFrame,
                         fExpectRepeat ? fFrame.attempt + 1 : 1};
    fFrame = {count(command, "frame"), count(command, "attempt")};
    if (fInFrame || fFrame.number != expected.number || fFrame.attempt != expected.attempt) {
        fFindings.outOfOrder("frame " + std::to_string(fFrame.number) + ", attempt " +
                             std::to_string(fFrame.attempt));
    }
    const bool whole = boolean(command, "whole");
    if (whole != fExpectWhole) {
        fFindings.wrong("frame " + std::to_string(fFrame.number) +
                        (whole ? " is sent whole" : " is not sent whole"));
    }
    if (whole) {
        fObjects.clear();
        fEcg.clear();
        fQuakes.clear();
    }
    fInFrame = true;
    fExpectRepeat = false;
    fExpectWhole = false;
}

void Checker::create(const object& command) {
    const std::string type = text(command, "type");
    const bool isFigure = type == "figure";
    const std::string first =
        isFigure ? nameOfFigure(text(command, "title")) : nameOf(command, "parent") + '.' + type;
    std::string name = first;
    for (int number = 2; !isFigure && idOf(name) != 0; ++number) {
        name = first + std::to_string(number);
    }
    if (std::ranges::find(kObjects, name) == kObjects.end()) {
        throw FieldError("the object \"" + name + "\" is not known");
    }
    fObjects[count(command, "id")] = name;
    setProperties(name, command);
}

void Checker::setProperties(const std::string& target, const object& properties) {
    if (target == "ecg.axes" && properties.contains("x")) {
        const auto& limits = field(field(properties, "x").as_object(), "limits");
        fEcg.follow(field(limits.as_object(), "follow").to_number<double>());
    }
    if (target == "ecg.axes.line" && properties.contains("regular")) {
        fEcg.regular(numbers(properties, "regular"));
    }
    if (!properties.contains("text")) return;
    if (target == "ecg.axes.text") fEcg.time(text(properties, "text"));
    if (target == "quakes.axes.text") fQuakes.caption(text(properties, "text"));
    if (target == "quakes.axes.text2") fQuakes.picked(text(properties, "text"));
}

void Checker::setData(const std::string& target, const object& command, const std::string* block) {
    if (block == nullptr) throw FieldError("no data is named");
    const DataUpdate update = updateOf(command, *block);
    if (target == "ecg.axes.line") {
        fEcg.samples(update);
    } else if (target == "quakes.axes.outline") {
        fQuakes.coast(update);
    } else if (target == "quakes.axes.scatter") {
        fQuakes.points(update);
    } else {
        throw FieldError(target + " takes no data");
    }
}

const std::string& Checker::nameOf(const object& command, const char* key) const {
    const auto found = fObjects.find(count(command, key));
    if (found == fObjects.end()) throw FieldError("the number is of no object");
    return found->second;
}

std::uint64_t Checker::idOf(const std::string& name) const {
    const auto found =
        std::ranges::find(fObjects, name, [](const auto& one) { return one.second; });
    return found == fObjects.end() ? 0 : found->first;
}

object Checker::pick() {
    const auto pick = fQuakes.pick(fFrame.number);
    object event{{"event", "pick"},
                 {"axes", idOf("quakes.axes")},
                 {"x", pick.longitude},
                 {"y", pick.latitude}};
    if (pick.index) {
        event["series"] = idOf("quakes.axes.scatter");
        event["index"] = *pick.index;
    }
    return event;
}

Checker::Frame Checker::endFrame() {
    if (!fInFrame) fFindings.outOfOrder("a token outside a frame");
    if (fObjects.size() != kObjects.size()) {
        fFindings.missing("objects of frame " + std::to_string(fFrame.number));
    }
    fEcg.endFrame(fFrame.number);
    fQuakes.endFrame(fFrame.number);
    fInFrame = false;
    fNextFrame = fFrame.number + 1;
    return fFrame;
}

void Checker::expectRepeat() {
    fExpectRepeat = true;
    fExpectWhole = true;
}

}  // namespace monitor::client
