#pragma once

#include <cstddef>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kirofigures/Object.hpp"

namespace kirofigures {

/// What somebody at the page can set. What the page does arrives in `Window::draw` and
/// `Window::wait`, and stays between them.
class Control : public Object {
  protected:
    using Object::Object;

  private:
    friend class Window;
    /// A page says this. What does not fit is dropped.
    virtual void take(const std::optional<double>& value) = 0;
};

/// `Self` is the control itself.
template <typename Self>
class ControlOf : public Control {
  public:
    Self& label(std::string_view text) {
        putText("label", text);
        return static_cast<Self&>(*this);
    }
    /// Called when somebody has used this. The rules for callbacks stand at `Axes::onPick`.
    Self& onChange(std::function<void(Self&)> callback) {
        fCallback = std::move(callback);
        return static_cast<Self&>(*this);
    }

  protected:
    using Control::Control;

    void use() {
        fIsUsed = true;
        // A copy, for the callback may set another one, or remove this.
        const auto callback = fCallback;
        if (callback) callback(static_cast<Self&>(*this));
    }
    bool takeUse() noexcept { return std::exchange(fIsUsed, false); }

  private:
    std::function<void(Self&)> fCallback;
    bool fIsUsed = false;
};

class Button : public ControlOf<Button> {
  public:
    explicit Button(detail::Node& node) noexcept : ControlOf(node) {}

    /// Whether it was pressed since this was last asked.
    [[nodiscard]] bool pressed() noexcept { return takeUse(); }

  private:
    void take(const std::optional<double>& value) override;
};

/// A control whose value is a number.
template <typename Self>
class ValueOf : public ControlOf<Self> {
  public:
    [[nodiscard]] double value() const noexcept { return fValue; }
    /// Whether somebody has changed it since this was last asked.
    [[nodiscard]] bool changed() noexcept { return this->takeUse(); }

    /// REQUIRES: within the limits.
    Self& value(double value);
    /// Both limits; the value moves between them. REQUIRES: `low` is less than `high`.
    Self& limits(double low, double high);

  protected:
    using ControlOf<Self>::ControlOf;

  private:
    void take(const std::optional<double>& value) override;

    double fLow = -std::numeric_limits<double>::max();
    double fHigh = std::numeric_limits<double>::max();
    double fValue = 0;
};

class Slider : public ValueOf<Slider> {
  public:
    explicit Slider(detail::Node& node) noexcept : ValueOf(node) {}

    /// Continuous unless set.
    Slider& step(double step) {
        putNumber("step", step, Bound::kPositive);
        return *this;
    }
};

/// A field for a number, which has no limits unless they are set.
class Number : public ValueOf<Number> {
  public:
    explicit Number(detail::Node& node) noexcept : ValueOf(node) {}
};

/// One of several texts.
class Choice : public ControlOf<Choice> {
  public:
    explicit Choice(detail::Node& node) noexcept : ControlOf(node) {}

    /// Which one, from 0.
    [[nodiscard]] std::size_t value() const noexcept { return fValue; }
    /// Whether somebody has changed it since this was last asked.
    [[nodiscard]] bool changed() noexcept { return takeUse(); }

    /// REQUIRES: there are more than `index` texts.
    Choice& value(std::size_t index);

  private:
    friend class Figure;
    void setOptions(const std::vector<std::string>& options);
    void take(const std::optional<double>& value) override;

    std::size_t fCount = 0;  ///< of the texts
    std::size_t fValue = 0;
};

}  // namespace kirofigures
