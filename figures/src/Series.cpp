#include "kirofigures/Series.hpp"

#include <array>
#include <cmath>
#include <cstdint>

#include "Node.hpp"
#include "kirofigures/Image.hpp"
#include "kirofigures/Lines.hpp"
#include "kirofigures/Points.hpp"
#include "kirofigures/Shapes.hpp"

namespace kirofigures {

namespace {

using detail::Store;

constexpr std::array<const char*, 3> kDashes{"solid", "dashed", "dotted"};

void requireFit(const detail::Node& node, const Store::Inputs& inputs, bool isSet,
                const std::optional<Regular>& x) {
    static const Store kNone;
    const Store& store = node.store() == nullptr ? kNone : *node.store();
    const std::string complaint = store.complaint(inputs, isSet, x);
    if (!complaint.empty()) node.refuse(complaint);
}

template <typename Columns>
Store::Inputs inputsOf(const Columns& columns) {
    Store::Inputs inputs;
    for (const auto& [name, numbers, isOptional] : columns) {
        if (!isOptional || numbers.isGiven()) inputs.push_back({name, detail::sliceOf(numbers)});
    }
    return inputs;
}

void setImage(detail::Node& node, std::size_t rows, std::size_t columns,
              const detail::Slice& values) {
    const std::size_t given = detail::sizeOf(values);
    if (rows == 0 || columns == 0 || given % rows != 0 || given / rows != columns) {
        node.refuse(std::to_string(rows) + " rows of " + std::to_string(columns) +
                    " values each were given " + std::to_string(given));
    }
    auto& store = node.changeStore();
    detail::Store next;
    next.keep(given);  // all of it, however large
    next.set({{"z", values}}, {});
    // What it throws leaves the image as it was, and its shape.
    node.putAll({{"rows", static_cast<std::int64_t>(rows)},
                 {"columns", static_cast<std::int64_t>(columns)}});
    store = std::move(next);
}

}  // namespace

std::size_t Series::size() const noexcept {
    return node().store() == nullptr ? 0 : node().store()->size();
}

void Series::appendColumns(Columns columns) {
    const auto inputs = inputsOf(columns);
    requireFit(node(), inputs, false, {});
    node().changeStore().append(inputs);
}

void Series::setColumns(Columns columns, const std::optional<Regular>& x) {
    const auto inputs = inputsOf(columns);
    requireFit(node(), inputs, true, x);
    node().changeStore().set(inputs, x);
}

void Series::keepElements(std::size_t count) {
    if (count == 0) refuse("keep is 0: it has to be at least 1");
    node().changeStore().keep(count);
}

void Series::keepWidth(double width) {
    if (!std::isfinite(width) || width <= 0) refuse("keep has to be a number above 0");
    node().changeStore().keepWidth(width);
}

Line& Line::dash(Dash dash) {
    putWord("dash", kDashes.at(static_cast<std::size_t>(dash)));
    return *this;
}

Line& Line::steps(Steps steps) {
    static constexpr std::array<const char*, 4> kSteps{"", "before", "after", "middle"};
    if (steps == Steps::kNone) {
        putNothing("steps");
    } else {
        putWord("steps", kSteps.at(static_cast<std::size_t>(steps)));
    }
    return *this;
}

Reference& Reference::dash(Dash dash) {
    putWord("dash", kDashes.at(static_cast<std::size_t>(dash)));
    return *this;
}

Text& Text::anchor(Anchor anchor) {
    static constexpr std::array<const char*, 3> kAnchors{"left", "center", "right"};
    putWord("anchor", kAnchors.at(static_cast<std::size_t>(anchor)));
    return *this;
}

Scatter& Scatter::append(Numbers x, Numbers y, const Each& each) {
    appendColumns({{"x", x}, {"y", y}, {"size", each.size, true}, {"value", each.value, true}});
    return *this;
}

Scatter& Scatter::set(Numbers x, Numbers y, const Each& each) {
    setColumns({{"x", x}, {"y", y}, {"size", each.size, true}, {"value", each.value, true}});
    return *this;
}

Image& Image::set(std::size_t rows, std::size_t columns, Numbers values) {
    setImage(node(), rows, columns, detail::sliceOf(values));
    return *this;
}

Image& Image::set(std::size_t rows, std::size_t columns, std::span<const std::uint8_t> values) {
    setImage(node(), rows, columns, values);
    return *this;
}

}  // namespace kirofigures
