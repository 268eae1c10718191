#include "kirofigures/Controls.hpp"

#include <algorithm>
#include <boost/json/array.hpp>
#include <cmath>

#include "Node.hpp"
#include "Text.hpp"

namespace kirofigures {

void Button::take(const std::optional<double>& value) {
    if (!value) use();
}

template <typename Self>
Self& ValueOf<Self>::value(double value) {
    if (!(value >= fLow && value <= fHigh)) {
        this->refuse("value " + std::to_string(value) + " is not within its limits");
    }
    this->node().put("value", value);
    fValue = value;
    return static_cast<Self&>(*this);
}

template <typename Self>
Self& ValueOf<Self>::limits(double low, double high) {
    if (!std::isfinite(low) || !std::isfinite(high) || low >= high) {
        this->refuse("limits have to be numbers, the lower one first");
    }
    this->node().put("low", low);
    this->node().put("high", high);
    fLow = low;
    fHigh = high;
    return value(std::clamp(fValue, low, high));
}

template <typename Self>
void ValueOf<Self>::take(const std::optional<double>& value) {
    if (!value || *value < fLow || *value > fHigh) return;
    // All pages are told: the others do not know it, and the last word has to be the engine's.
    this->node().put("value", *value);
    fValue = *value;
    this->use();
}

template class ValueOf<Slider>;
template class ValueOf<Number>;

void Choice::setOptions(const std::vector<std::string>& options) {
    if (options.empty()) refuse("there is nothing to choose from");
    boost::json::array texts;
    for (const auto& option : options) {
        if (!detail::isUTF8(option)) refuse("an option is not UTF-8");
        texts.emplace_back(option);
    }
    node().put("options", std::move(texts));
    fCount = options.size();
}

Choice& Choice::value(std::size_t index) {
    if (index >= fCount) {
        refuse("there is no option " + std::to_string(index) + " of " + std::to_string(fCount));
    }
    node().put("value", static_cast<std::int64_t>(index));
    fValue = index;
    return *this;
}

void Choice::take(const std::optional<double>& value) {
    if (!value || *value < 0 || *value >= static_cast<double>(fCount)) return;
    if (*value != std::floor(*value)) return;
    fValue = static_cast<std::size_t>(*value);
    node().put("value", static_cast<std::int64_t>(fValue));
    use();
}

}  // namespace kirofigures
