#include <array>
#include <boost/json/array.hpp>
#include <boost/json/serialize.hpp>
#include <limits>
#include <span>

#include "Column.hpp"
#include "FailingNew.hpp"
#include "Fixture.hpp"
#include "Store.hpp"
#include "Text.hpp"

namespace figures_test {
namespace {

using namespace kirofigures;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr double kGap = std::numeric_limits<double>::quiet_NaN();

class SeriesTest : public WindowTest {
  protected:
    SeriesTest() { fPage.announce(); }

    /// The frame that brings the page up to date.
    Frame frame() {
        EXPECT_EQ(drawn(), Outcome::kPainted);
        return fPage.last();
    }
    std::vector<double> column(const Series& series, const char* name) {
        return frame().picture.at(series.id()).columns.at(name);
    }
    /// "cmd key key ..." of each command, without those of the object's number.
    std::vector<std::string> sent() {
        std::vector<std::string> lines;
        for (const auto& command : frame().commands) {
            auto line = std::string(command.at("cmd").as_string());
            for (const auto& [key, value] : command) {
                if (key != "cmd" && key != "id" && key != "data") {
                    line += ' ' + std::string(key) + '=' + boost::json::serialize(value);
                }
            }
            lines.push_back(line);
        }
        return lines;
    }
    boost::json::object properties(const Object& object) {
        return frame().picture.at(object.id()).properties;
    }
    /// After a reload the page must know what it knew; looked at behind each test.
    ~SeriesTest() override {
        const auto before = linesOf(frame().picture);
        fPage.announce();
        kirohost::waitForDelivery();
        EXPECT_EQ(linesOf(frame().picture), before);
    }
};

TEST_F(SeriesTest, OnlyChangesTravel) {
    auto& first = axes().line("first").append(1, 2);
    auto& second = axes().line("second").set(std::vector{1.0, 2.0}, std::vector{3.0, 4.0});
    frame();
    EXPECT_THAT(sent(), ElementsAre());
    first.width(3).width(3).color("#102030");
    second.append(3, 5);
    EXPECT_THAT(sent(), ElementsAre(R"(set width=3E0 color="#102030")",
                                    R"(data first=2 count=1 columns=[["x","f32"],["y","f32"]])"));
    // What is as it was does not.
    first.width(3);
    axes().title("A");
    EXPECT_THAT(sent(), ElementsAre());
    axes().y().label("L", "V").limits(0, 1);
    axes().vertical(2.5).name("mark");
    EXPECT_THAT(sent(), ElementsAre(R"(set y={"label":"L","unit":"V","limits":[0E0,1E0]})",
                                    testing::StartsWith("create ")));
    first.remove();
    EXPECT_THAT(sent(), ElementsAre("remove"));
    axes().line().remove();
    EXPECT_THAT(sent(), ElementsAre()) << "no page has heard of it";
}

TEST_F(SeriesTest, APropertyCanBeGivenBack) {
    auto& line = axes().line().steps(Steps::kAfter);
    EXPECT_EQ(properties(line).at("steps"), "after");
    EXPECT_EQ(frame().picture.at(line.id()).parent, axes().id());
    line.steps(Steps::kNone);
    EXPECT_THAT(sent(), ElementsAre("set steps=null"));
    auto& mark = axes().horizontal(1);
    mark.span(1, 2);
    EXPECT_FALSE(properties(mark).contains("at"));
    EXPECT_EQ(properties(mark).at("span"), (boost::json::array{1.0, 2.0}));
}

TEST_F(SeriesTest, EverySettingTravelsByItsName) {
    auto& figure = fWindow->figure("G");
    auto& line = axes().line("l");
    auto& area = axes().area();
    auto& scatter = axes().scatter();
    auto& bars = axes().bars();
    auto& errors = axes().errorBars();
    auto& image = axes().image();
    auto& mark = axes().vertical(1);
    auto& text = axes().text(1, 2, "t");
    auto& slider = figure.slider("s", 0, 10, 5);
    auto& choice = figure.choice("c", {"a", "b"});
    auto& x = axes().x();
    frame();
    const std::pair<const char*, std::function<void()>> cases[]{
        {R"(set y2={"label":"L","unit":"V"})", [&] { axes().y2().label("L", "V"); }},
        {R"(set title="T")", [&] { figure.title("T"); }},
        {"set columns=1", [&] { figure.columns(1); }},
        {"set equalAspect=true", [&] { axes().equalAspect(); }},
        {"set linkX=3", [&] { axes().linkX(3); }},
        {"set legend=true", [&] { axes().legend(true); }},
        {"set row=0 column=0", [&] { axes().position(0, 0); }},
        {R"(set x={"scale":"time"})", [&] { x.scale(Scale::kTime); }},
        {R"(set x={"scale":"log"})", [&] { x.scale(Scale::kLog); }},
        {R"(set x={"scale":"log","limits":[1E0,2E0]})", [&] { x.limits(1, 2); }},
        {R"(set x={"scale":"log"})", [&] { x.automatic(); }},
        {R"(set x={"scale":"log","limits":{"follow":3E0}})", [&] { x.follow(3); }},
        {R"(set x={"scale":"log","limits":{"follow":3E0},"ticks":[[1E0,"one"]]})",
         [&] {
             x.ticks({{1, "one"}});
         }},
        {R"(set x={"scale":"log","limits":{"follow":3E0}})", [&] { x.ticks({}); }},
        {"set visible=false", [&] { line.visible(false); }},
        {R"(set axis="y2")", [&] { line.onSecondAxis(); }},
        {R"(set axis="y")", [&] { line.onSecondAxis(false); }},
        {R"(set dash="dashed")", [&] { line.dash(Dash::kDashed); }},
        {R"(set dash="dotted")", [&] { mark.dash(Dash::kDotted); }},
        {"set width=5E0", [&] { line.steps(Steps::kNone).width(5); }},
        {R"(set steps="before")", [&] { line.steps(Steps::kBefore); }},
        {R"(set steps="middle")", [&] { line.steps(Steps::kMiddle); }},
        {R"(set color="#1020a0ff")", [&] { line.color(Color::rgb(0x10, 0x20, 0xa0)); }},
        {R"(set color="#102030")", [&] { line.color("#102030"); }},
        {"set opacity=1E0", [&] { area.opacity(1); }},
        {"set base=-2E0", [&] { area.base(-2); }},
        {"set width=0E0", [&] { area.width(0); }},
        {"set size=4E0", [&] { scatter.size(4); }},
        {R"(set colorMap="turbo")", [&] { scatter.colorMap(ColorMap::kTurbo); }},
        {"set colorBar=true", [&] { scatter.colorBar(); }},
        {"set barWidth=2.5E0", [&] { bars.width(2.5); }},
        {"set cap=0E0", [&] { errors.cap(0); }},
        {"set x=[-1E0,1E0]", [&] { image.x(-1, 1); }},
        {"set limits=[0E0,2E0]", [&] { image.limits(0, 2); }},
        {R"(set anchor="right")", [&] { text.anchor(Anchor::kRight); }},
        {"set at=[3E0,4E0] inAxes=true", [&] { text.atFraction(3, 4); }},
        {"set value=1E1", [&] { slider.value(10); }},
        {"set value=0E0", [&] { slider.value(0); }},
        {"set step=1E0", [&] { slider.step(1); }},
        {"set value=1", [&] { choice.value(1); }},
    };
    for (const auto& [wanted, operation] : cases) {
        operation();
        EXPECT_THAT(sent(), ElementsAre(wanted));
    }
    for (const auto& [name, span] : {std::pair("horizontal", &axes().horizontalSpan(1, 2, "m")),
                                     std::pair("vertical", &axes().verticalSpan(1, 2, "m"))}) {
        const auto shown = properties(*span);
        EXPECT_EQ(shown.at("orientation"), name);
        EXPECT_EQ(shown.at("name"), "m");
        EXPECT_EQ(shown.at("span"), (boost::json::array{1.0, 2.0}));
    }
    for (const auto* control : std::initializer_list<const Object*>{
             &slider, &choice, &figure.button("s"), &figure.number("s", 0)}) {
        const auto label = properties(*control).at("label").as_string();
        EXPECT_EQ(label, control == &choice ? "c" : "s");
    }
    // Nor does what was not given.
    for (const auto* nameless :
         std::initializer_list<const Object*>{&fWindow->figure(), &figure.axes(), &area, &mark}) {
        const auto shown = properties(*nameless);
        EXPECT_FALSE(shown.contains("title") || shown.contains("name") || shown.contains("keep"));
    }
}

TEST_F(SeriesTest, TakesNumbersOfBothPrecisionsFromAnyRange) {
    auto& line = axes().line();
    line.append(1.5F, 2);
    line.append(std::array{2.5F, 3.5F}, std::vector{4.0, kGap});
    const double more[] = {0.1, 0.2};
    line.append({4.5, 5.5}, std::span(more));
    EXPECT_THAT(column(line, "x"), ElementsAre(1.5, 2.5, 3.5, 4.5, 5.5));
    EXPECT_THAT(column(line, "y"), ElementsAre(2, 4, testing::IsNan(), 0.1F, 0.2F));
    line.set({7, 8}, {9, 10});
    EXPECT_THAT(column(line, "x"), ElementsAre(7, 8));
    line.clear();
    EXPECT_TRUE(frame().picture.at(line.id()).columns.empty());
    line.append(1, 2);
    EXPECT_THAT(column(line, "x"), ElementsAre(1));
    auto& scatter = axes().scatter().set({1, 2}, {3, 4}, {.value = {5, 6}});
    EXPECT_THAT(column(scatter, "value"), ElementsAre(5, 6));
    EXPECT_FALSE(frame().picture.at(scatter.id()).columns.contains("size"));
}

TEST(Precision, IsHalvedWhereNobodySeesIt) {
    using detail::travelAsFloats;
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    const struct {
        std::vector<double> values;
        bool asX;
        bool asY;
    } kCases[] = {
        {{}, true, true},
        {{1, 2.5, kGap, kInfinity}, true, true},
        {{0.1, 0.2}, false, true},
        {{0.1}, false, false},                   // no stretch to be small beside
        {{8.1, 7.1}, false, false},              // 8.1 times the stretch
        {{7.9, 6.9}, false, true},               // 7.9 times
        {{-7.9, -6.9, kInfinity}, false, true},  // infinities do not count
        {{1e300, -1e300}, false, false},         // beyond what 32 bits can say
        {{1e-300, -1e-300}, false, false},
        {{16777217, 0}, false, true},
    };
    for (const auto& [values, asX, asY] : kCases) {
        EXPECT_EQ(travelAsFloats(values, true), asX) << testing::PrintToString(values);
        EXPECT_EQ(travelAsFloats(values, false), asY) << testing::PrintToString(values);
    }
}

TEST_F(SeriesTest, TimeStampsKeepTheirDigitsAndARegularXCostsNone) {
    auto& line = axes().line();
    line.set(std::vector{1.7e9 + 0.001, 1.7e9 + 0.002}, std::vector{0.1, 0.2});
    EXPECT_THAT(sent().back(), HasSubstr(R"(columns=[["x","f64"],["y","f32"]])"));
    EXPECT_THAT(column(line, "x"), ElementsAre(1.7e9 + 0.001, 1.7e9 + 0.002));
    // The wide column goes first, whatever it is.
    line.set(std::vector{1.0, 2.0}, std::vector{1e9 + 0.1, 1e9 + 0.2});
    EXPECT_THAT(sent().back(), HasSubstr(R"(columns=[["y","f64"],["x","f32"]])"));
    line.set(Regular{10, 0.5}, std::vector{1.0F, 2.0F, 3.0F}).keep(4);
    EXPECT_THAT(sent().back(), HasSubstr(R"(count=3 columns=[["y","f32"]])"));
    line.append({4, 5, 6});
    EXPECT_THAT(column(line, "y"), ElementsAre(3, 4, 5, 6));
    EXPECT_EQ(properties(line).at("regular"), (boost::json::array{10.0, 0.5}));
    // A late page counts from the first one that it gets.
    fPage.announce();
    kirohost::waitForDelivery();
    EXPECT_EQ(properties(line).at("regular"), (boost::json::array{11.0, 0.5}));
    line.set(1, 2);
    EXPECT_FALSE(properties(line).contains("regular"));
    auto& counted = axes().line().append(5).append(6);
    EXPECT_EQ(properties(counted).at("regular"), (boost::json::array{0.0, 1.0}));
}

TEST_F(SeriesTest, OnlyTheNewestAreKept) {
    auto& line = axes().line().keep(3);
    for (int i = 0; i < 10; ++i) line.append(i, i);
    EXPECT_THAT(column(line, "x"), ElementsAre(7, 8, 9));
    // More at once than are kept, and more than the page has had.
    line.append({10, 11, 12, 13, 14}, {0, 1, 2, 3, 4});
    EXPECT_THAT(sent(), ElementsAre(R"(data first=0 count=3 columns=[["x","f32"],["y","f32"]])"));
    EXPECT_THAT(column(line, "y"), ElementsAre(2, 3, 4));
    line.append(15, 5);
    EXPECT_THAT(column(line, "y"), ElementsAre(3, 4, 5));
    line.keep(2);
    line.append(16, 6);
    EXPECT_THAT(column(line, "y"), ElementsAre(5, 6));
    EXPECT_EQ(line.size(), 2U);
    EXPECT_EQ(properties(line.keep(1'000'000)).at("keep"), 1'000'000) << "as many as usual again";
    auto& none = axes().line().keep(2);
    fPage.announce();
    kirohost::waitForDelivery();
    const auto whole = frame();
    for (const auto& command : whole.commands) {
        EXPECT_FALSE(command.at("id") == none.id() && command.at("cmd") == "data");
    }
}

TEST_F(SeriesTest, WhatIsOlderThanAStretchGoes) {
    auto& line = axes().line().keep(std::chrono::milliseconds(1500));
    auto& regular = axes().line().set(Regular{0, 0.5}, {0}).keepNewest(1);
    for (int i = 0; i < 6; ++i) {
        line.append({0.5 * i, kGap}, std::vector(2, 1.0 * i));
        regular.append(i);
        frame();
    }
    line.append(2.75, 6);
    EXPECT_THAT(column(line, "y"), ElementsAre(3, 3, 4, 4, 5, 5, 6));
    EXPECT_THAT(column(regular, "y"), ElementsAre(3, 4, 5));
}

// A bound that costs a move of everything for each element would make long runs slow.
TEST(Column, MovesEachElementAtMostOnce) {
    detail::Store store;
    store.keep(1000);
    const std::vector<double> one{1};
    const double* place = nullptr;
    int moves = 0;
    for (int i = 0; i < 60'000; ++i) {
        store.append({{"x", std::span(one)}, {"y", std::span(one)}});
        const auto delta = store.delta(true);
        const auto* first = std::get<std::span<const double>>(delta->parts.front().numbers).data();
        moves += place != nullptr && first != place + 1 && first != place ? 1 : 0;
        place = first;
    }
    EXPECT_LT(moves, 100);
    EXPECT_GT(moves, 40) << "the old ones are let go";
}

TEST_F(SeriesTest, AnImageIsKeptWholeHoweverLarge) {
    auto& image = axes().image();
    const std::vector<std::uint8_t> bytes(1'000'001, 7);
    image.set(1, bytes.size(), bytes);
    EXPECT_EQ(column(image, "z").size(), bytes.size());
    EXPECT_EQ(properties(image).at("keep"), 1'000'001);
    EXPECT_EQ(properties(image).at("rows"), 1);
    EXPECT_EQ(properties(image).at("columns"), 1'000'001);
    EXPECT_THAT(refusalOf([&] { image.set(2, 3, bytes); }), HasSubstr("2 rows of 3"));
}

// Each names figure, axes and series, and changes nothing.
TEST_F(SeriesTest, WhatCannotBeMeantIsRefused) {
    auto& line = axes().line("l").append(1, 2);
    auto& regular = axes().line("r").set(Regular{0, 1}, 1);
    auto& scatter = axes().scatter().append(1, 2, {.size = 3});
    auto& area = axes().area();
    auto& log = axes().y2().scale(Scale::kLog);
    auto& figure = fWindow->figure("G");
    auto& slider = figure.slider("s", 0, 1, 0.5);
    auto& choice = figure.choice("c", {"a"});
    auto& image = axes().image();
    auto& note = axes().text(1, 2, "t");
    auto& third = axes().line();
    const auto before = linesOf(frame().picture);
    const std::vector two{1.0, 2.0};
    const Regular standing{0, 0};
    const std::vector<std::pair<double, std::string>> ticks{{kGap, "a"}};
    const std::pair<const char*, std::function<void()>> cases[]{
        {R"(line "l": x has 2 elements, y has 1)", [&] { line.append(two, 3); }},
        {R"(line "l": has the columns x, y, and was given y)", [&] { line.append(5); }},
        {"x is regular", [&] { regular.append(1, 2); }},
        {R"(line "l": a regular x)", [&] { line.set(standing, 1); }},
        {R"(figure "F", axes "A", line "l": color "red" is none)", [&] { line.color("red"); }},
        {"color", [&] { line.color("#12345g"); }},
        {"color", [&] { line.color("#12345"); }},
        {"color", [&] { line.color("1020304"); }},
        {R"(line "l": name is not UTF-8)", [&] { line.name("\xc0\x80"); }},
        {"width has to be above 0", [&] { line.width(0); }},
        {"keep", [&] { line.keep(0); }},
        {"keep", [&] { line.keepNewest(kGap); }},
        {"scatter 1: has the columns x, y, size, and was given x", [&] { scatter.append(1, 2); }},
        {"limits", [&] { scatter.limits(1, 1); }},
        {"opacity is above 1", [&] { area.opacity(1.5); }},
        {"x: limits", [&] { axes().x().limits(kGap, 1); }},
        {"x: follow", [&] { axes().x().follow(-1); }},
        {"x: a tick", [&] { axes().x().ticks(ticks); }},
        {"y2: limits of a logarithmic axis", [&] { log.limits(0, 1); }},
        {"at has to be a number", [&] { axes().horizontal(kGap); }},
        {R"(figure "G", slider "s": value)", [&] { slider.value(2); }},
        {R"(figure "G", slider "s": limits)", [&] { slider.limits(1, 1); }},
        {R"(choice "c": there is no option 1 of 1)", [&] { choice.value(1); }},
        {"nothing to choose from", [&] { figure.choice("d", {}); }},
        {"an option is not UTF-8",
         [&] {
             figure.choice("d", {"a", "\xff"});
         }},
        {R"(figure "G": columns is 0)", [&] { figure.columns(0); }},
        {"position is below 0", [&] { axes().position(-1, 0); }},
        {"position is below 0", [&] { axes().position(0, -1); }},
        {"x: label is not UTF-8", [&] { axes().x().label("\xff"); }},
        {"x: unit is not UTF-8", [&] { axes().x().label("a", "\xff"); }},
        {"x: a tick is not UTF-8",
         [&] {
             axes().x().ticks({{1, "\xff"}});
         }},
        {"x: limits", [&] { axes().x().limits(1, 1); }},
        {"y2: limits of a logarithmic axis", [&] { log.limits(-1, 1); }},
        {"0 rows of 1", [&] { image.set(0, 1, two); }},
        {"1 rows of 0", [&] { image.set(1, 0, two); }},
        {"2 rows of 2", [&] { image.set(2, 2, two); }},
        {"3 rows of 0", [&] { image.set(3, 0, two); }},
        {"limits has to be numbers", [&] { image.limits(0, kGap); }},
        {"at has to be numbers", [&] { note.at(kGap, 0); }},
        {"at has to be numbers", [&] { note.at(0, kGap); }},
        {"opacity is below 0", [&] { area.opacity(-0.5); }},
        {"width is below 0", [&] { area.width(-1); }},
        {R"(axes "A", line 3: width)", [&] { third.width(0); }},
    };
    for (const auto& [text, operation] : cases) {
        const auto refusal = refusalOf(operation);
        EXPECT_THAT(refusal, HasSubstr(text));
        EXPECT_THAT(refusal, testing::StartsWith("figure ")) << text;
    }
    EXPECT_EQ(linesOf(frame().picture), before);
}

// What cannot be kept is as if nobody had asked for it.
TEST_F(SeriesTest, WhatThereIsNoMemoryForChangesNothing) {
    auto& line = axes().line("l").append(1, 2);
    auto& image = axes().image().set(1, 1, std::vector{1.0});
    auto& figure = fWindow->figure("G");
    auto& slider = figure.slider("s", 0, 10, 5);
    auto& choice = figure.choice("c", {"a", "b"});
    const std::vector<double> many(100, 3.0);
    const std::pair<const char*, std::function<void()>> cases[]{
        {"a figure", [&] { fWindow->figure("H"); }},
        {"a line", [&] { axes().line("m"); }},
        {"a property", [&] { line.color("#102030"); }},
        {"elements", [&] { line.append(many, many); }},
        {"other elements", [&] { line.set(many, many); }},
        {"an image", [&] { image.set(4, 25, many); }},
        {"a slider", [&] { slider.value(7); }},
        {"a choice", [&] { choice.value(1); }},
        {"an axis", [&] { axes().x().limits(1, 2); }},
    };
    for (const auto& [what, operation] : cases) {
        const auto before = linesOf(frame().picture);
        support::failEachNew([&, &what = what, &operation = operation](std::size_t n) {
            const bool failed = support::failingNew(n, operation).failed;
            if (!failed) return false;
            EXPECT_EQ(linesOf(frame().picture), before) << what;
            return true;
        });
        EXPECT_NE(linesOf(frame().picture), before) << what;
    }
    // Nor where the list of what has changed has to grow.
    std::vector<Axes*> all;
    for (int i = 0; i < 40; ++i) {
        all.push_back(&figure.axes().equalAspect(false));
        frame();
    }
    std::vector<const Axes*> unchanged;
    for (auto* one : all) {
        const auto change = [&] { one->equalAspect(); };
        if (support::failingNew(1, change).failed) unchanged.push_back(one);
    }
    EXPECT_FALSE(unchanged.empty());
    fPage.announce();
    kirohost::waitForDelivery();
    for (const auto* one : unchanged) EXPECT_EQ(properties(*one).at("equalAspect"), false);
}

TEST(Text, IsUTF8OrIsNot) {
    for (const char* text :
         {"", "a", "\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xe1\x80\x80", "\xec\xbf\xbf",
          "\xed\x80\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xef\xbf\xbf", "\xf0\x90\x80\x80",
          "\xf0\xbf\xbf\xbf", "\xf1\x80\x80\x80", "\xf3\xbf\xbf\xbf", "\xf4\x80\x80\x80",
          "\xf4\x8f\xbf\xbf"}) {
        EXPECT_TRUE(detail::isUTF8(text)) << text;
    }
    for (const char* text :
         {"\x80", "\xc1\xbf", "\xc2", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xe1\x80",
          "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xe1\x80z", "\xe0\xc0\x80",
          "\xc2z", "\xdf\xc0", "\xee\x7f\x80", "\xf1\x80\x80z", "\xf1\xc0\x80\x80", "\xff"}) {
        EXPECT_FALSE(detail::isUTF8(text)) << text;
    }
}

}  // namespace
}  // namespace figures_test
