#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kiropage {

struct File {
    std::string_view path;  ///< below the page's address: "/", "/page.js"
    std::string_view type;  ///< as HTTP's Content-Type names it
    std::string_view body;
};

/// The page's files, which are part of the program.
[[nodiscard]] std::span<const File> files() noexcept;

/// The same as a server takes them: `Asset` has a name, a type and a body.
template <typename Asset>
[[nodiscard]] std::vector<Asset> filesAs() {
    std::vector<Asset> assets;
    for (const auto& [path, type, body] : files()) {
        assets.push_back({std::string(path), std::string(type), std::string(body)});
    }
    return assets;
}

}  // namespace kiropage
