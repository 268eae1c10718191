// What a program draws with, and a page in this process that follows it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <span>

#include "Page.hpp"
#include "Scenario.hpp"
#include "Surroundings.hpp"
#include "kirofigures/Window.hpp"
#include "kirohost/Controls.hpp"

namespace torture {
namespace {

using namespace kirofigures;

const std::string kLong(40, 'l');
constexpr unsigned kLacks = kBadAlloc | kOutOfMemory;
const std::vector<double> kMany{1, 2, 3, 4, 5, 6, 7, 8, 9};

WindowOptions quiet(bool serves) {
    WindowOptions options;
    options.serves = serves;
    options.handlesSignals = options.printsLink = options.opensBrowser = false;
    return options;
}

/// A window with axes, looked at by a page.
struct Stage {
    explicit Stage(bool isMade = true) {
        if (!isMade) return;
        open(*this);
        axes = &window->figure("F").axes("A");
    }
    ~Stage() { std::remove(file.c_str()); }
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    static void open(Stage& s) {
        s.window = detail::Surroundings::open(quiet(false), {});
        const Spared spared;
        s.page = std::make_unique<figures_test::Page>(s.window->channels(), [](const auto& take) {
            const Spared aside;
            take();
        });
        s.page->announce();
    }
    static void draw(Stage& s) { s.seen += std::string(nameOf(s.window->draw().outcome)) + " "; }
    static void close(Stage& s) { s.window.reset(); }

    /// What the page shows behind one more frame.
    std::string state() {
        if (window == nullptr) return "closed";
        draw(*this);
        if (page->frames().empty()) return seen + "nothing";
        window->wait(std::chrono::seconds(0));
        for (const auto& line : figures_test::linesOf(renumbered())) seen += line + '|';
        for (const auto& fault : page->faults()) finding("against the rules: " + fault);
        return seen + std::to_string(heard);
    }

    /// The picture without what was numbered and never came to be.
    figures_test::Picture renumbered() const {
        const auto known = page->last().picture;
        figures_test::Picture picture;
        std::map<std::uint64_t, std::uint64_t> places;
        for (const auto& [id, shown] : known) {
            places.emplace(id, places.size() + 1);
            auto& copy = picture[places.size()] = shown;
            copy.parent = shown.parent == 0 ? 0 : places.at(shown.parent);
        }
        return picture;
    }

    const std::string file = testing::TempDir() + "torture." + std::to_string(::getpid()) + ".mcap";
    std::unique_ptr<Window> window;
    std::unique_ptr<figures_test::Page> page;
    Axes* axes = nullptr;
    Figure* figure = nullptr;
    Object* object = nullptr;
    std::string seen;
    int heard = 0;

    template <typename Kind>
    Kind& is() {
        return static_cast<Kind&>(*object);
    }
};

struct Empty : Stage {
    Empty() : Stage(false) {}
};

/// The steps of all series that grow.
template <typename Kind>
std::vector<void (*)(Stage&)> grows(std::vector<void (*)(Stage&)> own, void (*append)(Stage&)) {
    own.insert(own.end(), {append, append, &Stage::draw, append,
                           [](Stage& s) { s.is<Kind>().color("#123456").name(kLong + kLong); },
                           [](Stage& s) { s.is<Kind>().keep(20).visible(true).onSecondAxis(); },
                           append, &Stage::draw, [](Stage& s) { s.is<Kind>().keepNewest(5); },
                           append, &Stage::draw, [](Stage& s) { s.is<Kind>().clear(); }, append});
    return own;
}

void addSeries(Scenarios& all) {
    const auto a = [&all](const char* name, std::vector<void (*)(Stage&)> steps) {
        all.push_back(scenario<Stage>(std::string("series: ") + name, kLacks, std::move(steps)));
    };
    a("line", grows<Line>({[](Stage& s) { s.object = &s.axes->line(kLong); },
                           [](Stage& s) { s.is<Line>().width(2).dash(Dash::kDotted); },
                           [](Stage& s) { s.is<Line>().steps(Steps::kMiddle); },
                           [](Stage& s) {
                               s.is<Line>().set(Regular{1, 2}, kMany);
                           },
                           [](Stage& s) { s.is<Line>().append(kMany); },
                           [](Stage& s) { s.is<Line>().set(kMany, kMany); }},
                          [](Stage& s) { s.is<Line>().append(kMany, kMany); }));
    a("area", grows<Area>({[](Stage& s) { s.object = &s.axes->area(kLong); },
                           [](Stage& s) { s.is<Area>().base(1).opacity(0.5).width(1); }},
                          [](Stage& s) { s.is<Area>().append(kMany, kMany); }));
    a("band", grows<Band>({[](Stage& s) { s.object = &s.axes->band(kLong); },
                           [](Stage& s) { s.is<Band>().opacity(0.5); }},
                          [](Stage& s) { s.is<Band>().append(kMany, kMany, kMany); }));
    a("scatter", grows<Scatter>({[](Stage& s) { s.object = &s.axes->scatter(kLong); },
                                 [](Stage& s) { s.is<Scatter>().size(2).limits(0, 1); },
                                 [](Stage& s) { s.is<Scatter>().colorMap(ColorMap::kGray); }},
                                [](Stage& s) {
                                    s.is<Scatter>().append(kMany, kMany, {kMany, kMany});
                                }));
    a("bars", grows<Bars>({[](Stage& s) { s.object = &s.axes->bars(kLong); },
                           [](Stage& s) { s.is<Bars>().base(1).width(0.5); }},
                          [](Stage& s) { s.is<Bars>().append(kMany, kMany); }));
    a("error bars",
      grows<ErrorBars>({[](Stage& s) { s.object = &s.axes->errorBars(kLong); },
                        [](Stage& s) { s.is<ErrorBars>().cap(1).width(2); }},
                       [](Stage& s) { s.is<ErrorBars>().append(kMany, kMany, kMany, kMany); }));
    a("outline", grows<Outline>({[](Stage& s) { s.object = &s.axes->outline(kLong); }},
                                [](Stage& s) { s.is<Outline>().append(kMany, kMany); }));
    a("polygon", grows<Polygon>({[](Stage& s) { s.object = &s.axes->polygon(kLong); }},
                                [](Stage& s) { s.is<Polygon>().append(kMany, kMany); }));
    a("image", {[](Stage& s) { s.object = &s.axes->image(kLong); },
                [](Stage& s) { s.is<Image>().set(3, 3, kMany); }, &Stage::draw,
                [](Stage& s) {
                    static const std::vector<std::uint8_t> kBytes(12, 7);
                    s.is<Image>().set(3, 4, std::span(kBytes));
                },
                [](Stage& s) { s.is<Image>().x(0, 1).limits(0, 9).colorBar(true); }, &Stage::draw});
    a("references and texts",
      {[](Stage& s) { s.object = &s.axes->horizontal(1, kLong); },
       [](Stage& s) { s.is<Reference>().span(1, 2).dash(Dash::kSolid); },
       [](Stage& s) { s.axes->vertical(1, kLong); },
       [](Stage& s) { s.axes->horizontalSpan(1, 2, kLong); },
       [](Stage& s) { s.axes->verticalSpan(1, 2, kLong); }, &Stage::draw,
       [](Stage& s) { s.object = &s.axes->text(1, 2, kLong); },
       [](Stage& s) { s.is<Text>().text(kLong + kLong).at(2, 3).anchor(Anchor::kCenter); },
       [](Stage& s) { s.is<Text>().atFraction(0, 1).fontSize(20); }, &Stage::draw,
       [](Stage& s) { s.object->remove(); }, &Stage::draw});
}

void addFigureParts(Scenarios& all) {
    const auto a = [&all](const char* name, std::vector<void (*)(Stage&)> steps) {
        all.push_back(scenario<Stage>(std::string("figure: ") + name, kLacks, std::move(steps)));
    };
    a("grid of axes", {[](Stage& s) { s.figure = &s.window->figure(kLong); },
                       [](Stage& s) { s.figure->title(kLong + kLong).columns(2); },
                       [](Stage& s) { s.axes = &s.figure->axes(kLong); },
                       [](Stage& s) { s.axes->title(kLong + kLong).equalAspect().linkX(7); },
                       [](Stage& s) { s.axes->legend(true).position(0, 1); }, &Stage::draw,
                       [](Stage& s) { s.figure->remove(); }, &Stage::draw});
    a("axis", {[](Stage& s) { s.axes->x().label(kLong, "a unit that is long as well"); },
               [](Stage& s) { s.axes->x().scale(Scale::kLog).limits(1, 10); },
               [](Stage& s) {
                   s.axes->y().follow(10).ticks({{1, kLong}, {2, kLong}});
               },
               &Stage::draw, [](Stage& s) { s.axes->y().automatic(); },
               [](Stage& s) { s.axes->y2().label(kLong); }, &Stage::draw});
    a("controls", {[](Stage& s) { s.figure = &s.window->figure(kLong); },
                   [](Stage& s) { s.object = &s.figure->button(kLong); },
                   [](Stage& s) { s.is<Button>().onChange([&s](auto&) { ++s.heard; }); },
                   [](Stage& s) { s.object = &s.figure->slider(kLong, 0, 10, 5); },
                   [](Stage& s) { s.is<Slider>().step(1).label(kLong); },
                   [](Stage& s) { s.object = &s.figure->number(kLong, 5); }, &Stage::draw,
                   [](Stage& s) { s.is<Number>().value(7).limits(6, 8); },
                   [](Stage& s) {
                       s.object = &s.figure->choice(kLong, {kLong, "b"});
                   },
                   [](Stage& s) { s.is<Choice>().value(1); }, &Stage::draw});
    a("what the page does",
      {[](Stage& s) { s.axes->onPick([&s](const Pick&) { ++s.heard; }); },
       [](Stage& s) { s.axes->onLimits([&s](const View&) { s.heard += 10; }); },
       [](Stage& s) { s.window->onKey([&s](const Key&) { s.heard += 100; }); }, &Stage::draw,
       [](Stage& s) {
           const Spared spared;
           s.page->say(R"({"event":"pick","axes":2,"x":1,"y":2})");
           s.page->say(R"({"event":"key","key":"a key with a name that is long"})");
           kirohost::waitForDelivery();
       },
       [](Stage& s) { s.window->wait(std::chrono::seconds(0)); }});
    a("pages come", {[](Stage& s) { s.object = &s.axes->line(kLong); },
                     [](Stage& s) { s.is<Line>().set(kMany); }, &Stage::draw,
                     [](Stage& s) {
                         const Spared spared;
                         s.page->announce();
                         kirohost::waitForDelivery();
                     },
                     [](Stage& s) { s.window->wait(std::chrono::seconds(0)); }, &Stage::draw,
                     [](Stage& s) { s.is<Line>().append(kMany); },
                     [](Stage& s) {
                         const Spared spared;
                         s.page->comeBack();
                         kirohost::waitForDelivery();
                     },
                     &Stage::draw});
}

}  // namespace

void addFigures(Scenarios& all) {
    addSeries(all);
    addFigureParts(all);
    all.push_back(
        scenario<Empty>("window: open and close", kLacks,
                        {[](Empty& s) { Stage::open(s); }, [](Empty& s) { Stage::draw(s); },
                         [](Empty& s) { Stage::close(s); }}));
    all.push_back(scenario<Empty>(
        "window: serve", kLacks | kSystem,
        {[](Empty& s) { s.window = std::make_unique<Window>(quiet(true)); },
         [](Empty& s) { s.seen = s.window->link(); }, [](Empty& s) { Stage::close(s); }}));
    // What cannot be recorded ends the recording, never the drawing.
    all.push_back(scenario<Stage>("window: record", kLacks | kSystem,
                                  {[](Stage& s) { s.window->record(s.file); },
                                   [](Stage& s) { s.object = &s.axes->line(kLong); },
                                   [](Stage& s) { s.is<Line>().set(kMany); }, &Stage::draw,
                                   [](Stage& s) { s.is<Line>().append(kMany); }, &Stage::draw,
                                   [](Stage& s) { s.window->stopRecording(); }, &Stage::draw}));
}

}  // namespace torture
