#include <array>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "kirogateway/Options.hpp"

namespace kirogateway {
namespace {

std::string_view typeOf(std::string_view file) {
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 10> kTypes{{
        {".html", "text/html; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".mjs", "text/javascript; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".json", "application/json"},
        {".webmanifest", "application/manifest+json"},
        {".svg", "image/svg+xml"},
        {".png", "image/png"},
        {".ico", "image/x-icon"},
        {".woff2", "font/woff2"},
    }};
    for (const auto& [ending, type] : kTypes) {
        if (file.ends_with(ending)) return type;
    }
    return {};
}

}  // namespace

Asset loadAsset(const std::string& name, const std::string& file) {
    const auto type = typeOf(file);
    if (type.empty()) throw std::runtime_error("no known type for " + file);
    std::ifstream input(file, std::ios::binary);
    std::string body{std::istreambuf_iterator<char>(input), {}};
    if (!input.good() && !input.eof()) throw std::runtime_error("cannot read " + file);
    return {name, std::string(type), std::move(body)};
}

}  // namespace kirogateway
