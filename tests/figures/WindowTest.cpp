#include "kirofigures/Window.hpp"

#include <gtest/gtest.h>

#include "Page.hpp"

namespace figures_test {
namespace {

using namespace kirofigures;

WindowOptions quiet() {
    WindowOptions options;
    options.serves = false;
    options.handlesSignals = false;
    return options;
}

TEST(Window, DrawsAndSaysWhatBecameOfIt) {
    Window window(quiet());
    Page page(window.channels());
    page.announce();
    auto& line = window.figure("F").axes().line("l");
    line.append(1.5, -0.25);
    const Drawn drawn = window.draw();
    EXPECT_EQ(drawn.outcome, Outcome::kPainted) << nameOf(drawn.outcome) << drawn.reason;
    line.append(2.5, -0.5);
    page.next(outcome("failed", "no colour"));
    EXPECT_EQ(window.draw().reason, "no colour");
    EXPECT_TRUE(page.faults().empty()) << page.faults().front();
    const auto picture = page.last().picture;
    ASSERT_EQ(picture.size(), 3U);
    EXPECT_EQ(picture.at(3).columns.at("x"), (std::vector<double>{1.5, 2.5}));
}

}  // namespace
}  // namespace figures_test
