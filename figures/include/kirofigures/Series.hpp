#pragma once

#include <chrono>
#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string_view>

#include "kirofigures/Color.hpp"
#include "kirofigures/Numbers.hpp"
#include "kirofigures/Object.hpp"

namespace kirofigures {

/// The data of a series, which are kept so that every page gets them, and sent once.
///
/// How numbers travel: 32-bit numbers as they are. 64-bit numbers are halved where that costs
/// nothing that could be seen: an x when every x of the block is exactly a 32-bit number, since an
/// axis may be looked at closely (time stamps); any other column also when its largest magnitude is
/// at most 8 times the distance of its least and its largest value, for then rounding (one part in
/// 16 million) stays below a thousandth of a pixel of a full axis. Infinities and NaN do not count
/// for that. Both are gaps: nothing is drawn there and nothing connected across it.
class Series : public Object {
  public:
    /// How many elements are kept.
    [[nodiscard]] std::size_t size() const noexcept;

  protected:
    struct Column {
        const char* name;
        Numbers numbers;
        bool isOptional = false;  ///< left out when it is not given
    };
    using Columns = std::initializer_list<Column>;

    using Object::Object;

    // All or nothing: they throw std::invalid_argument before anything changes.
    void appendColumns(Columns columns);
    void setColumns(Columns columns, const std::optional<Regular>& x = {});
    void keepElements(std::size_t count);
    void keepWidth(double width);
};

/// What all series have in common. `Self` is the series itself, which each operation returns.
template <typename Self>
class SeriesOf : public Series {
  public:
    /// What the legend says; "": this is not in it.
    Self& name(std::string_view text) {
        putText("name", text);
        return self();
    }
    /// Instead of the next one of the page's cycle.
    Self& color(const Color& color) {
        putColor(color);
        return self();
    }
    Self& visible(bool visible) {
        putFlag("visible", visible);
        return self();
    }
    /// Belongs to the second y axis.
    Self& onSecondAxis(bool second = true) {
        putWord("axis", second ? "y2" : "y");
        return self();
    }

  protected:
    using Series::Series;
    Self& self() noexcept { return static_cast<Self&>(*this); }
};

/// A series whose data grow: it keeps its newest elements, a million unless it is told otherwise.
template <typename Self>
class GrowingOf : public SeriesOf<Self> {
  public:
    /// Keeps the newest `elements`. REQUIRES: at least 1.
    Self& keep(std::size_t elements) {
        this->keepElements(elements);
        return this->self();
    }
    /// Keeps what is at most `width` units of x older than the newest element, at most a million
    /// elements. REQUIRES: x ascends.
    Self& keepNewest(double width) {
        this->keepWidth(width);
        return this->self();
    }
    /// As `keepNewest`, of an x in seconds.
    Self& keep(std::chrono::duration<double> time) { return keepNewest(time.count()); }
    /// Forgets all data.
    Self& clear() {
        this->setColumns({});
        return this->self();
    }

  protected:
    using SeriesOf<Self>::SeriesOf;
};

/// A series of x and y.
template <typename Self>
class PairsOf : public GrowingOf<Self> {
  public:
    /// One element or several at the end. REQUIRES: as many x as y.
    Self& append(Numbers x, Numbers y) {
        this->appendColumns({{"x", x}, {"y", y}});
        return this->self();
    }
    /// At the next places of a regular x; without one x counts 0, 1, 2, ...
    Self& append(Numbers y) {
        this->appendColumns({{"y", y}});
        return this->self();
    }
    /// Instead of all data. REQUIRES: as many x as y.
    Self& set(Numbers x, Numbers y) {
        this->setColumns({{"x", x}, {"y", y}});
        return this->self();
    }
    // Else "{1, 2}" could be a regular x as well.
    Self& set(std::initializer_list<double> x, Numbers y) { return set(Numbers(x), y); }
    /// Instead of all data; x costs no bytes.
    Self& set(Regular x, Numbers y) {
        this->setColumns({{"y", y}}, x);
        return this->self();
    }
    Self& set(Numbers y) { return set(Regular{}, y); }

  protected:
    using GrowingOf<Self>::GrowingOf;
};

}  // namespace kirofigures
