#include "Contact.hpp"
#include "Fixture.hpp"
#include "PageEvents.hpp"
#include "Waking.hpp"

namespace figures_test {
namespace {

using namespace kirofigures;
using testing::ElementsAre;

class EventsTest : public WindowTest {
  protected:
    EventsTest() {
        fPage.announce();
        // What is said between two draws arrives with the next one.
        fWindow->figure("F");
    }
    void handleAll() {
        kirohost::waitForDelivery();
        EXPECT_EQ(drawn(), Outcome::kPainted);
    }

    void pick(std::uint64_t axes, std::uint64_t series, int index) {
        fPage.say(R"({"event":"pick","x":3,"y":6,"axes":)" + std::to_string(axes) +
                  R"(,"series":)" + std::to_string(series) + R"(,"index":)" +
                  std::to_string(index) + "}");
    }
    void use(const Object& control, const std::string& value) {
        fPage.say(R"({"event":"control","id":)" + std::to_string(control.id()) + R"(,"value":)" +
                  value + "}");
    }

    std::vector<std::string> fCalls;
};

TEST_F(EventsTest, ReachTheirCallbacksOnTheEnginesThread) {
    auto& line = axes().line().append({1, 2, 3}, {4, 5, 6});
    const auto other = fWindow->figure().axes().id();
    const auto engine = std::this_thread::get_id();
    axes().onPick([&](const Pick& pick) {
        EXPECT_EQ(std::this_thread::get_id(), engine);
        fCalls.push_back("pick " + std::to_string(pick.x) + (pick.series == &line ? " of " : " ") +
                         std::to_string(pick.index));
    });
    axes().onLimits([&](const View& view) {
        const auto high = view.y2 ? view.y2->high : view.y.high;
        fCalls.push_back("limits " + std::to_string(high) + (view.home ? " home" : ""));
    });
    fWindow->onKey([&](const Key& key) {
        fCalls.push_back(key.key + (key.axes == &axes() ? " in axes" : ""));
    });
    handleAll();
    ASSERT_EQ(axes().id(), 3U);
    EXPECT_EQ(fPage.last().picture.at(3).properties.at("picks"), true);
    fPage.say(R"({"event":"pick","axes":3,"x":1.5,"y":2})");
    pick(3, line.id(), 2);
    fPage.say(
        R"({"event":"limits","axes":3,"x":[0,1],"y":[-1,2],"width":3,"height":4,"home":true})");
    fPage.say(R"({"event":"limits","axes":3,"x":[0,1],"y":[0,1],"y2":[0,9],"width":3,"height":4})");
    fPage.say(R"({"event":"key","key":"a","axes":3})");
    fPage.say(R"({"event":"key","key":"b","axes":null})");
    // Of what is not there, or not in there.
    pick(3, other, 0);
    pick(3, 99, 0);
    pick(other, line.id(), 2);
    pick(3, line.id(), 3);
    pick(line.id(), line.id(), 0);
    fPage.say(R"({"event":"key","key":"c","axes":99})");
    fPage.say(R"({"event":"limits","axes":99,"x":[0,1],"y":[0,1],"width":3,"height":4})");
    pick(99, 0, 0);
    handleAll();
    EXPECT_THAT(fCalls, ElementsAre("pick 1.500000 0", "pick 3.000000 of 2", "limits 2.000000 home",
                                    "limits 9.000000", "a in axes", "b"));
}

// A page counts from the last set, the engine from its own; the oldest go meanwhile.
TEST_F(EventsTest, AnElementKeepsItsNumber) {
    auto& line = axes().line().keep(3);
    std::vector<std::uint64_t> picked;
    axes().onPick([&](const Pick& pick) { picked.push_back(pick.index); });
    for (int i = 0; i < 5; ++i) line.append(i, i);
    handleAll();
    const auto pickAt = [&](int index) { pick(axes().id(), line.id(), index); };
    pickAt(0);  // what the page was sent first is the third
    line.append(5, 5);
    handleAll();
    pickAt(0);  // gone
    pickAt(3);
    pickAt(4);  // never was
    fPage.announce();
    handleAll();
    pickAt(2);
    handleAll();
    EXPECT_THAT(picked, ElementsAre(5, 5));
}

TEST_F(EventsTest, AreDroppedWhenTheyAreNone) {
    for (const char* text :
         {"", "{}", R"({"event":"other"})",
          R"({"event":"frame","frame":-1,"attempt":1,"outcome":"painted"})",
          R"({"event":"frame","frame":0,"attempt":1,"outcome":"late"})",
          R"({"event":"pick","axes":2,"x":0})", R"({"event":"pick","axes":2,"x":1e999,"y":0})",
          R"({"event":"pick","axes":2,"x":0,"y":0,"series":3})",
          R"({"event":"limits","axes":2,"x":[1,0],"y":[0,1],"width":1,"height":1})",
          R"({"event":"limits","axes":2,"x":5,"y":[0,1],"width":1,"height":1})",
          R"({"event":"limits","axes":2,"x":[0],"y":[0,1],"width":1,"height":1})",
          R"({"event":"limits","axes":2,"x":[0,1],"y":[0,1],"width":1,"height":-1})",
          R"({"event":"control","id":1.5})", R"({"event":"key","key":""})",
          R"({"event":"pick","axes":2,"x":"0","y":0})",
          R"({"event":"limits","axes":2,"x":[0,1],"y":[0,1],"width":-1,"height":1})",
          R"({"event":"key","key":7})", R"({"event":"control","id":1,"value":"x"})",
          R"({"event":"key","key":"012345678901234567890123456789012"})"}) {
        EXPECT_TRUE(std::holds_alternative<std::monostate>(detail::readEvent(text))) << text;
    }
    const auto longest =
        detail::readEvent(R"({"event":"key","key":"01234567890123456789012345678901"})");
    EXPECT_FALSE(std::holds_alternative<std::monostate>(longest));
    const std::string padded = R"({"event":"key","key":"a"})" + std::string(100'000, ' ');
    EXPECT_TRUE(std::holds_alternative<std::monostate>(detail::readEvent(padded)));
    // A long error is cut, and not inside a character.
    std::string error = "x";
    for (int i = 0; i < 2000; ++i) error += "\xc3\xa4";
    const auto report = detail::readEvent(
        R"({"event":"frame","frame":0,"attempt":1,"outcome":"failed","error":")" + error + "\"}");
    EXPECT_EQ(std::get<detail::FrameReport>(report).error.size(), 1999U + 3U);
    // All of it also on the way in, where nothing may end the process.
    fPage.say("{");
    handleAll();
}

TEST_F(EventsTest, ThatNobodyTakesAreBoundedAndLimitsGoFirst) {
    int views = 0;
    int keys = 0;
    axes().onLimits([&](const View&) { ++views; });
    fWindow->onKey([&](const Key&) { ++keys; });
    handleAll();
    for (std::size_t i = 0; i < detail::Contact::kMostEvents; ++i) {
        fPage.say(R"({"event":"limits","axes":3,"x":[0,1],"y":[0,1],"width":1,"height":1})");
        if (i % 2 == 0) fPage.say(R"({"event":"key","key":"a"})");
    }
    handleAll();
    EXPECT_EQ(keys, 512);
    EXPECT_EQ(views, 512);
}

TEST_F(EventsTest, ControlsHaveTheValuesThatSomebodySet) {
    auto& figure = fWindow->figure();
    auto& button = figure.button("b");
    auto& slider = figure.slider("s", 0, 10, 5).step(0.5);
    auto& number = figure.number("n", 1);
    auto& choice = figure.choice("c", {"one", "two"}, 1);
    slider.onChange([&](Slider& self) { fCalls.push_back(std::to_string(self.value())); });
    handleAll();
    const auto shown = [&](const Object& control) {
        return fPage.last().picture.at(control.id()).properties.at("value").to_number<double>();
    };
    EXPECT_EQ(shown(slider), 5);
    EXPECT_EQ(shown(number), 1);
    EXPECT_EQ(shown(choice), 1);
    EXPECT_EQ(choice.value(), 1U);
    use(button, "1");  // that is nothing that a button can be given
    handleAll();
    EXPECT_FALSE(button.pressed());
    use(button, "null");
    use(slider, "7.5");
    use(slider, "11");  // beyond its limits
    use(number, "-3");
    use(choice, "0");
    use(choice, "2");
    use(choice, "0.5");
    use(choice, "null");
    use(choice, "-1");
    use(slider, "-1");
    use(slider, "null");
    use(axes(), "1");
    handleAll();
    EXPECT_TRUE(button.pressed());
    EXPECT_FALSE(button.pressed());
    EXPECT_EQ(slider.value(), 7.5);
    EXPECT_TRUE(slider.changed());
    EXPECT_FALSE(slider.changed());
    EXPECT_EQ(number.value(), -3);
    EXPECT_EQ(choice.value(), 0U);
    EXPECT_THAT(fCalls, ElementsAre("7.500000"));
    // The page knows what it said; another one is told.
    handleAll();
    EXPECT_TRUE(fPage.last().commands.empty());
    fPage.announce();
    handleAll();
    EXPECT_EQ(fPage.last().picture.at(slider.id()).properties.at("value"), 7.5);
    slider.limits(0, 4);
    EXPECT_EQ(slider.value(), 4);
    for (const char* end : {"0", "4"}) {
        use(slider, end);
        handleAll();
        EXPECT_EQ(slider.value(), std::stod(end));
        EXPECT_EQ(shown(slider), slider.value()) << "other pages are told";
    }
}

TEST_F(EventsTest, AreReadAsSoonAsTheyAreThere) {
    auto& slider = fWindow->figure().slider("s", 0, 10, 5);
    fPage.next([&](Page& page, const Frame& frame) {
        use(slider, "3");
        page.end(frame, "painted");
    });
    EXPECT_EQ(drawn(), Outcome::kPainted);
    EXPECT_EQ(slider.value(), 3);
    fWindow->wait();  // returns: something has come
    EXPECT_EQ(sent(), "0/1 whole") << "and the page has all";
}

TEST_F(EventsTest, OfFramesLongAgoAreForgotten) {
    const detail::Contact contact(fWindow->channels(), detail::Waking());
    Frame frame;
    for (frame.attempt = 1; frame.number < 17; ++frame.number) fPage.report(frame, "painted");
    kirohost::waitForDelivery();
    EXPECT_EQ(contact.reports(0, 1).count, 0U);
    for (const unsigned kept : {1U, 16U}) EXPECT_EQ(contact.reports(kept, 1).count, 1U);
}

TEST_F(EventsTest, CallbacksMayRemoveWhatTheyAreOfAndThrowButNotDraw) {
    auto& button = fWindow->figure().button("b");
    axes().onPick([this](const Pick&) { axes().remove(); });
    button.onChange([&](Button&) { throw std::runtime_error("mine"); });
    fWindow->onKey([&](const Key&) { EXPECT_THROW(fWindow->draw(), std::logic_error); });
    handleAll();
    use(button, "null");
    pick(axes().id(), 0, 0);
    fPage.say(R"({"event":"key","key":"a"})");
    kirohost::waitForDelivery();
    EXPECT_THROW(fWindow->draw(), std::runtime_error);
    // What came behind it is still there.
    fWindow->wait();
    handleAll();
    EXPECT_EQ(fPage.last().picture.size(), 4U);
}

}  // namespace
}  // namespace figures_test
