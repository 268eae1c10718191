#include "AssetTable.hpp"

#include <utility>

#include "Gzip.hpp"

namespace kirogateway {
namespace {

/// Bytes of all assets that are compressed, before the program goes on. What is beyond goes out as
/// it is.
constexpr std::size_t kMostCompressed = 4 * kMiB;

/// Empty when it gains nothing; pictures and fonts are compressed as they are. Takes of `room`, the
/// bytes that may still be compressed.
std::string compressed(const Asset& asset, std::size_t& room) {
    const std::string_view type = asset.contentType;
    const bool isText = type.starts_with("text/") || type.starts_with("image/svg") ||
                        type.find("json") != std::string_view::npos ||
                        type.find("script") != std::string_view::npos;
    if (!isText || asset.body.size() > room) return {};
    room -= asset.body.size();
    auto gzip = gzipped(asset.body);
    return gzip.size() < asset.body.size() ? gzip : std::string();
}

}  // namespace

AssetTable::AssetTable(std::vector<Asset> assets) : fAssets(std::move(assets)) {
    std::size_t room = kMostCompressed;
    for (const auto& asset : fAssets) {
        fEntries.try_emplace(asset.name, Entry{&asset, compressed(asset, room)});
    }
}

std::optional<AssetTable::Served> AssetTable::find(std::string_view path, bool takesGzip) const {
    const auto found = fEntries.find(path);
    if (found == fEntries.end()) return std::nullopt;
    const auto& [asset, gzip] = found->second;
    const bool isGzip = takesGzip && !gzip.empty();
    return Served{isGzip ? std::string_view(gzip) : std::string_view(asset->body),
                  asset->contentType, isGzip, !gzip.empty()};
}

}  // namespace kirogateway
