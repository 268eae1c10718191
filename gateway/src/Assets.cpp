#include <array>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "kirogateway/Options.hpp"

namespace kirogateway {
namespace {

constexpr std::array<std::pair<std::string_view, std::string_view>, 10> kTypes{{
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

std::string typeOf(const std::string& file) {
    std::string known;
    for (const auto& [ending, type] : kTypes) {
        if (file.ends_with(ending)) return std::string(type);
        known += " " + std::string(ending);
    }
    throw std::runtime_error("asset " + file + ": no known ending; there are" + known);
}

}  // namespace

Asset loadAsset(const std::string& name, const std::string& file) {
    auto type = typeOf(file);
    // Where the stream's buffer throws, for a folder, the stream says so with the others.
    std::ostringstream body;
    std::ifstream input(file, std::ios::binary);
    if (input.peek() != std::ifstream::traits_type::eof()) body << input.rdbuf();
    if (input.bad() || !(input.good() || input.eof())) {
        throw std::system_error(errno, std::generic_category(),
                                "asset " + file + " cannot be read");
    }
    return {name, std::move(type), std::move(body).str()};
}

}  // namespace kirogateway
