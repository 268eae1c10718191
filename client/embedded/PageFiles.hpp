#pragma once

#include <span>
#include <string_view>

namespace kiropage {

struct File {
    std::string_view path;  ///< below the page's address: "/", "/page.js"
    std::string_view type;  ///< as HTTP's Content-Type names it
    std::string_view body;
};

/// The page's files, which are part of the program.
[[nodiscard]] std::span<const File> files() noexcept;

}  // namespace kiropage
