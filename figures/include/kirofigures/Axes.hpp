#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kirofigures/Events.hpp"
#include "kirofigures/Image.hpp"
#include "kirofigures/Lines.hpp"
#include "kirofigures/Points.hpp"
#include "kirofigures/Shapes.hpp"

namespace kirofigures {

enum class Scale { kLinear, kLog, kTime };

/// One axis of axes. Rules as of `Object`.
class Axis {
  public:
    Axis(const Axis&) = delete;
    Axis& operator=(const Axis&) = delete;

    Axis& label(std::string_view text, std::string_view unit = {});
    /// Linear unless set; a time is in seconds since 1970, UTC.
    Axis& scale(Scale scale);
    /// From `low` to `high`. REQUIRES: both above 0 on a logarithmic axis.
    Axis& limits(double low, double high);
    /// Over all that is shown, as it is unless set.
    Axis& automatic();
    /// The newest stretch of this width.
    Axis& follow(double width);
    /// Marks of one's own in place of the page's; none: the page's.
    Axis& ticks(const std::vector<std::pair<double, std::string>>& marks);

  private:
    friend class Axes;
    struct State;
    Axis(detail::Node& node, const char* key);
    ~Axis();
    void send();

    std::unique_ptr<State> fState;
};

/// A pair of axes, and the series in them, which are drawn in the order of their creation.
class Axes : public Object {
  public:
    explicit Axes(detail::Node& node);
    ~Axes() override;

    Axis& x() noexcept { return fX; }
    Axis& y() noexcept { return fY; }
    /// The second y axis, which is there as soon as something belongs to it.
    Axis& y2() noexcept { return fY2; }

    Axes& title(std::string_view text);
    /// Whether a unit of x is as long as one of y.
    Axes& equalAspect(bool equal = true);
    /// Axes with the same number have the same limits of x, and share the cursor.
    Axes& linkX(int group);
    /// Unless set there is a legend when more than one series has a name.
    Axes& legend(bool shown);
    /// In the figure's grid, from 0; unless set, in the order of creation.
    Axes& position(int row, int column);

    Line& line(std::string_view name = {});
    Area& area(std::string_view name = {});
    Band& band(std::string_view name = {});
    Scatter& scatter(std::string_view name = {});
    Bars& bars(std::string_view name = {});
    ErrorBars& errorBars(std::string_view name = {});
    Outline& outline(std::string_view name = {});
    Polygon& polygon(std::string_view name = {});
    Image& image(std::string_view name = {});
    Reference& horizontal(double y, std::string_view name = {});
    Reference& vertical(double x, std::string_view name = {});
    Reference& horizontalSpan(double low, double high, std::string_view name = {});
    Reference& verticalSpan(double low, double high, std::string_view name = {});
    Text& text(double x, double y, std::string_view text);

    // Callbacks run on the engine's thread, in `Window::draw` and `Window::wait`, and may change
    // and remove anything, but draw and wait nothing. What they throw leaves that operation. An
    // empty one ends the calls.
    void onPick(std::function<void(const Pick&)> callback);
    /// When somebody has zoomed or moved, so that finer data can be given for what is looked at.
    void onLimits(std::function<void(const View&)> callback);

  private:
    friend class Window;
    template <typename Kind>
    Kind& series(const char* type, std::string_view name);
    template <typename SetUp>
    Reference& reference(const char* orientation, std::string_view name, const SetUp& place);

    Axis fX;
    Axis fY;
    Axis fY2;
    std::function<void(const Pick&)> fOnPick;
    std::function<void(const View&)> fOnLimits;
};

}  // namespace kirofigures
