#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "Page.hpp"
#include "Surroundings.hpp"
#include "kirofigures/Window.hpp"
#include "kirohost/Controls.hpp"

namespace figures_test {

/// The message of the std::invalid_argument that `operation` throws; "" if it throws none.
template <typename Operation>
std::string refusalOf(const Operation& operation) {
    try {
        operation();
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return {};
}

/// A window with a page in the same process. Its clock stands until a test moves it.
class WindowTest : public testing::Test {
  protected:
    WindowTest() : WindowTest(quiet()) {}
    explicit WindowTest(const kirofigures::WindowOptions& options)
        : fWindow(kirofigures::detail::Surroundings::open(options, surroundings())),
          fPage(fWindow->channels()) {}
    ~WindowTest() override {
        for (const auto& fault : fPage.faults()) ADD_FAILURE() << fault;
    }

    static kirofigures::WindowOptions quiet(
        const std::function<void(kirofigures::WindowOptions&)>& change = [](auto&) {}) {
        kirofigures::WindowOptions options;
        options.serves = options.handlesSignals = false;
        change(options);
        return options;
    }

    kirofigures::Axes& axes() {
        if (fAxes == nullptr) fAxes = &fWindow->figure("F").axes("A");
        return *fAxes;
    }
    kirofigures::Outcome drawn() { return fWindow->draw().outcome; }
    /// "number/attempt" of each frame, and whether it was whole.
    std::string sent() {
        std::string all;
        for (const auto& frame : fPage.frames()) {
            all += (all.empty() ? "" : ", ") + std::to_string(frame.number) + '/' +
                   std::to_string(frame.attempt) + (frame.isWhole ? " whole" : "");
        }
        return all;
    }
    void advance(std::chrono::milliseconds time) { fNow = fNow.load() + time; }

    std::atomic<bool> fIsPageGone = false;
    /// Asked on the engine's thread.
    std::function<std::size_t()> fNumPages = [] { return std::size_t{1}; };
    std::atomic<std::chrono::steady_clock::duration> fNow{};
    std::unique_ptr<kirofigures::Window> fWindow;
    Page fPage;

  private:
    kirofigures::detail::Surroundings surroundings() {
        return {[this] { return fIsPageGone.load(); }, [this] { return fNumPages(); },
                [] { return "the cause"; },
                [this] { return std::chrono::steady_clock::time_point(fNow.load()); }};
    }

    kirofigures::Axes* fAxes = nullptr;
};

}  // namespace figures_test
