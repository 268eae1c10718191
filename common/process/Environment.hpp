#pragma once

#include <unistd.h>

#include <string_view>

namespace process {

/// The text of an environment variable; empty: there is none. Valid as long as nobody changes the
/// environment, which the programs here do not.
[[nodiscard]] inline std::string_view environmentText(std::string_view name) noexcept {
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        if (text.size() > name.size() && text.starts_with(name) && text[name.size()] == '=') {
            return text.substr(name.size() + 1);
        }
    }
    return {};
}

}  // namespace process
