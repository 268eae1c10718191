#include "client/Checker.hpp"

#include <algorithm>
#include <array>
#include <boost/json/object.hpp>
#include <cstring>

#include "client/DataUpdate.hpp"
#include "client/Fields.hpp"
#include "client/Findings.hpp"

namespace monitor::client {

using boost::json::object;

struct Checker::Expected {
    const char* name;
    const char* type;
    const char* parent;
};

const Checker::Expected* Checker::findExpected(const std::string& name) {
    static constexpr std::array<Expected, 10> kObjects{{
        {"ecg.figure", "figure", ""},
        {"ecg.axes", "axes", "ecg.figure"},
        {"ecg.line", "line", "ecg.axes"},
        {"ecg.time", "text", "ecg.axes"},
        {"quakes.figure", "figure", ""},
        {"quakes.axes", "axes", "quakes.figure"},
        {"quakes.coast", "path", "quakes.axes"},
        {"quakes.points", "points", "quakes.axes"},
        {"quakes.caption", "text", "quakes.axes"},
        {"quakes.picked", "text", "quakes.axes"},
    }};
    const auto* found = std::ranges::find(kObjects, name, &Expected::name);
    return found == kObjects.end() ? nullptr : found;
}

namespace {

constexpr std::size_t kObjectCount = 10;

/// Commands that set looks, which no data file speaks of: only their objects and fields count.
bool isLook(const std::string& name) {
    static constexpr std::array<const char*, 7> kLooks{
        "setTitle", "setLabels", "setTicks", "setStyle", "setFont", "setPosition", "setChildren"};
    return std::ranges::find(kLooks, name) != kLooks.end();
}

std::vector<float> floatsOf(const std::string& bytes) {
    if (bytes.size() % sizeof(float) != 0) throw FieldError("its block does not hold floats");
    std::vector<float> numbers(bytes.size() / sizeof(float));
    std::memcpy(numbers.data(), bytes.data(), bytes.size());
    return numbers;
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
    } catch (const FieldError& error) {
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
    const std::string& target = nameOf(command, "handle");
    if (name == "setData") return setData(target, command, false, block);
    if (name == "appendData") return setData(target, command, true, block);
    setProperty(name, target, command);
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
    const std::string name = text(command, "name");
    const Expected* expected = findExpected(name);
    if (expected == nullptr) throw FieldError("the object \"" + name + "\" is not known");
    if (text(command, "type") != expected->type) throw FieldError(name + " has another type");
    if (*expected->parent != '\0' && nameOf(command, "parent") != expected->parent) {
        throw FieldError(name + " has another parent");
    }
    fObjects[text(command, "handle")] = name;
}

void Checker::setData(const std::string& target, const object& command, bool append,
                      const std::string* block) {
    if (block == nullptr) throw FieldError("no data is named");
    const DataUpdate update{append, count(command, "first"), count(command, "count"),
                            count(command, "columns"), floatsOf(*block)};
    if (update.numbers.size() != update.count * update.columns) {
        throw FieldError("its block has another size");
    }
    if (target == "ecg.line") {
        fEcg.samples(update);
    } else if (target == "quakes.coast") {
        fQuakes.coast(update);
    } else if (target == "quakes.points") {
        fQuakes.points(update);
    } else {
        throw FieldError(target + " takes no data");
    }
}

void Checker::setProperty(const std::string& name, const std::string& target,
                          const object& command) {
    if (name == "setLimits") {
        if (target == "ecg.axes") fEcg.limits(numbers(command, "x"));
    } else if (name == "setText" && target == "ecg.time") {
        fEcg.time(text(command, "text"));
    } else if (name == "setText" && target == "quakes.caption") {
        fQuakes.caption(text(command, "text"));
    } else if (name == "setText" && target == "quakes.picked") {
        fQuakes.picked(text(command, "text"));
    } else if (name == "setVisible" && target == "quakes.picked") {
        fQuakes.pickedVisible(boolean(command, "visible"));
    } else if (!isLook(name)) {
        throw FieldError("it is not known for " + target);
    }
}

const std::string& Checker::nameOf(const object& command, const char* key) const {
    const auto found = fObjects.find(text(command, key));
    if (found == fObjects.end()) throw FieldError("the handle is of no object");
    return found->second;
}

Checker::Frame Checker::endFrame() {
    if (!fInFrame) fFindings.outOfOrder("a token outside a frame");
    if (fObjects.size() != kObjectCount) {
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
