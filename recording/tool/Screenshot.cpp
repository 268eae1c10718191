#include "Screenshot.hpp"

#include <Poco/Base64Decoder.h>
#include <Poco/URI.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "Browser.hpp"
#include "process/Environment.hpp"

namespace recording_tool {

namespace json = boost::json;

namespace {

/// Ends when the page shows that frame; its value says why it never will.
std::string waitFor(std::uint64_t frame) {
    return R"(new Promise((done) => {
        const look = () => {
            const page = (name) => document.querySelector(name);
            if (page("[data-state=closed]")) return done(page(".error").textContent);
            if (!page(".now")?.title.startsWith("Frame )" +
           std::to_string(frame) + R"(,")) return setTimeout(look, 20);
            // The outline of what has the focus is nothing of the figures.
            document.activeElement?.blur();
            return requestAnimationFrame(() => requestAnimationFrame(() => done("")));
        };
        look();
    }))";
}

std::string decoded(const json::string& base64) {
    std::istringstream text(std::string(base64.begin(), base64.end()));
    Poco::Base64Decoder decoder(text);
    return {std::istreambuf_iterator<char>(decoder), {}};
}

std::string pictureFrom(Browser& browser, const std::string& page, std::uint64_t frame) {
    std::string address;
    Poco::URI::encode(page, "?#", address);
    address = "file://" + address + "#frame=" + std::to_string(frame);
    const auto target = browser.call("Target.createTarget", {{"url", "about:blank"}});
    const auto attached = browser.call("Target.attachToTarget",
                                       {{"targetId", target.at("targetId")}, {"flatten", true}});
    const std::string session(attached.at("sessionId").as_string());
    constexpr int kWidth = 1280;
    constexpr int kHeight = 800;
    browser.call(
        "Emulation.setDeviceMetricsOverride",
        {{"width", kWidth}, {"height", kHeight}, {"deviceScaleFactor", 1}, {"mobile", false}},
        session);
    browser.call("Page.navigate", {{"url", address}}, session);
    const auto shown = browser.call(
        "Runtime.evaluate",
        {{"expression", waitFor(frame)}, {"awaitPromise", true}, {"returnByValue", true}}, session);
    const auto* why = shown.at("result").as_object().if_contains("value");
    if (why == nullptr || *why != "") {
        throw std::runtime_error(
            "the browser does not show the frame" +
            (why && why->is_string() ? ": " + std::string(why->get_string()) : ""));
    }
    return decoded(browser.call("Page.captureScreenshot", {{"format", "png"}}, session)
                       .at("data")
                       .as_string());
}

}  // namespace

std::string findBrowser() {
    std::istringstream folders(std::string(process::environmentText("PATH")));
    for (std::string folder; std::getline(folders, folder, ':');) {
        for (const char* name : {"chromium", "chromium-browser", "google-chrome", "chrome"}) {
            const auto path = std::filesystem::path(folder) / name;
            std::error_code ignored;
            if (std::filesystem::is_regular_file(path, ignored) &&
                ::access(path.c_str(), X_OK) == 0) {
                return path;
            }
        }
    }
    throw std::runtime_error("a picture takes a browser, and there is no chromium on the PATH");
}

std::string screenshotOf(const std::string& browser, const std::string& page, std::uint64_t frame,
                         const std::string& folder) {
    constexpr std::chrono::seconds kPatience{60};
    Browser started(browser, folder, kPatience);
    return pictureFrom(started, page, frame);
}

}  // namespace recording_tool
