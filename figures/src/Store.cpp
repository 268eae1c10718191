#include "Store.hpp"

#include <algorithm>
#include <cmath>
#include <string_view>

#include "checked/Require.hpp"

namespace kirofigures::detail {

namespace {

/// Where an axis may be looked at closely, and a number can be a time stamp.
bool isExact(std::string_view name) { return name == "x"; }

std::string listOf(const auto& columns) {
    std::string text;
    for (const auto& column : columns) {
        if (!text.empty()) text += ", ";
        text += column.name;
    }
    return text;
}

bool hasX(const auto& columns) {
    return std::ranges::any_of(columns, [](const auto& one) { return isExact(one.name); });
}

}  // namespace

std::string Store::complaint(const Inputs& inputs, bool isSet,
                             const std::optional<Regular>& x) const {
    for (const auto& [name, numbers] : inputs) {
        if (sizeOf(numbers) == sizeOf(inputs.front().numbers)) continue;
        return std::string(inputs.front().name) + " has " +
               std::to_string(sizeOf(inputs.front().numbers)) + " elements, " + name + " has " +
               std::to_string(sizeOf(numbers));
    }
    if (x && (!std::isfinite(x->start) || !std::isfinite(x->step) || x->step == 0)) {
        return "a regular x needs a start and a step that are numbers, and a step that is not 0";
    }
    if (isSet || isFresh()) return {};
    const bool areSame = std::ranges::equal(
        inputs, fColumns, {}, [](const auto& one) { return std::string_view(one.name); },
        [](const auto& one) { return std::string_view(one.name); });
    if (areSame) return {};
    if (fRegular && hasX(inputs)) return "x is regular: append without x, or set x anew";
    return "has the columns " + listOf(fColumns) + ", and was given " + listOf(inputs);
}

void Store::append(const Inputs& inputs) {
    if (!isFresh()) return take(inputs);
    set(inputs, hasX(inputs) ? std::nullopt : std::optional(Regular{}));
}

void Store::set(const Inputs& inputs, const std::optional<Regular>& x) {
    // Before anything goes: what it throws leaves everything as it was.
    Store next;
    next.fKeep = fKeep;
    next.fWidth = fWidth;
    next.fRegular = x;
    next.start(inputs);
    next.take(inputs);
    *this = std::move(next);
}

void Store::start(const Inputs& inputs) {
    for (const auto& input : inputs) fColumns.push_back({input.name, {}});
    fIsReset = true;
}

void Store::take(const Inputs& inputs) {
    if (inputs.empty()) return;
    const std::size_t count = sizeOf(inputs.front().numbers);
    // Of more than are kept only the newest are taken at all.
    const std::size_t begin = count > fKeep ? count - fKeep : 0;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        fColumns[i].column.reserve(from(inputs[i].numbers, begin));
    }
    if (begin > 0) drop(size());
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        fColumns[i].column.append(from(inputs[i].numbers, begin));
    }
    fGiven += count;
    fDropped += begin;
    dropOld();
}

void Store::drop(std::size_t count) noexcept {
    for (auto& [name, column] : fColumns) column.drop(count);
    fDropped += count;
}

void Store::dropOld() noexcept {
    if (size() > fKeep) drop(size() - fKeep);
    if (!fWidth || size() == 0) return;
    if (fRegular) {
        const double most = std::floor(*fWidth / std::abs(fRegular->step)) + 1;
        if (static_cast<double>(size()) > most) drop(size() - static_cast<std::size_t>(most));
        return;
    }
    const auto& x = fColumns.front().column;
    const double newest = x.at(x.size() - 1);
    if (!std::isfinite(newest)) return;
    std::size_t old = 0;
    // What is not a number is older than what follows it.
    while (!(x.at(old) >= newest - *fWidth)) ++old;
    drop(old);
}

void Store::keep(std::size_t elements) {
    fKeep = elements;
    fWidth.reset();
    dropOld();
}

void Store::keepWidth(double width) {
    fKeep = kDefaultKeep;
    fWidth = width;
    dropOld();
}

std::size_t Store::kept() const noexcept {
    return fWidth ? std::max<std::size_t>(size(), 1) : fKeep;
}

std::optional<Delta> Store::delta(bool whole) const {
    if (isFresh() && !fIsReset) return {};
    if (!whole && !hasNews()) return {};
    const bool isAll = whole || fIsReset || fSent < fDropped;
    const std::uint64_t begin = isAll ? fDropped : fSent;
    Delta delta;
    delta.first = isAll ? 0 : begin - fBase;
    delta.count = fGiven - begin;
    for (const auto& [name, column] : fColumns) {
        const auto numbers = from(column.all(), begin - fDropped);
        const auto* const doubles = std::get_if<std::span<const double>>(&numbers);
        delta.parts.push_back(
            {name, numbers, doubles != nullptr && travelAsFloats(*doubles, isExact(name))});
    }
    return delta;
}

std::optional<Delta> Store::snapshot() const {
    auto all = delta(true);
    if (all) all->base = fDropped - fBase;
    return all;
}

void Store::sent(const Delta& delta) noexcept {
    if (delta.first == 0) fBase = fDropped;
    fSent = fGiven;
    fIsReset = false;
}

std::optional<Regular> Store::regular() const noexcept {
    if (!fRegular) return {};
    return Regular{fRegular->start + static_cast<double>(fBase) * fRegular->step, fRegular->step};
}

std::optional<std::uint64_t> Store::given(std::uint64_t index) const noexcept {
    const std::uint64_t number = fBase + index;
    if (index >= fSent || number < fDropped || number >= fSent) return {};
    return number;
}

}  // namespace kirofigures::detail
