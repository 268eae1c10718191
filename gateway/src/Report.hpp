#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Page.hpp"
#include "kirogateway/Gateway.hpp"

namespace kirogateway {

/// One view in a diagnostic bundle. Its identifier is not in it: that would let a reader return.
struct PageReport {
    std::uint64_t count = 0;
    std::string client;
    bool counts = false;
    Page::State state;
};

[[nodiscard]] std::string diagnosticsText(const Statistics& statistics, bool lastPageGone,
                                          const std::vector<PageReport>& pages);

/// A record for the history "DrawnowTimeout", in the form that all its records have.
[[nodiscard]] std::string historyText(std::string_view event, std::string_view what);

}  // namespace kirogateway
