#pragma once

#include <vector>

#include "kirogateway/Options.hpp"

namespace link_tool {

/// A browser does not by itself load a page again whose address has a fragment, which has the
/// token. Besides the page that needs it the one that follows has it too: that may come between.
[[nodiscard]] inline kirogateway::Asset waitingScript() {
    return {"/kiroweb/wait.js", "text/javascript; charset=utf-8",
            "setTimeout(() => location.reload(), 500);\n"};
}

/// What is there until an engine's own page has come.
[[nodiscard]] inline std::vector<kirogateway::Asset> waitingPage() {
    return {{"/", "text/html; charset=utf-8",
             "<!doctype html>\n<title>kiroweb</title>\n<p>The engine's page has not come yet.</p>\n"
             "<script src=\"/kiroweb/wait.js\"></script>\n"},
            waitingScript()};
}

}  // namespace link_tool
