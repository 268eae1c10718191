#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kirogateway/Options.hpp"

namespace kirogateway {

/// The files that are served, each compressed if it gains by that. Constant: any thread, and any
/// number of sites.
class AssetTable {
  public:
    struct Served {
        std::string_view body;
        std::string_view contentType;
        bool isGzip = false;            ///< the body is
        bool variesByEncoding = false;  ///< another client may be answered in another encoding
    };

    /// Takes some 35 ms for each MiB that is compressed.
    explicit AssetTable(std::vector<Asset> assets);

    /// The asset of `path`, in gzip if `takesGzip` and it gains by that. The views are valid as
    /// long as the table.
    [[nodiscard]] std::optional<Served> find(std::string_view path, bool takesGzip) const;

  private:
    struct Entry {
        const Asset* asset;
        std::string gzip;  ///< the body; empty when it gains nothing
    };

    const std::vector<Asset> fAssets;
    std::unordered_map<std::string_view, Entry> fEntries;
};

}  // namespace kirogateway
