#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "View.hpp"
#include "kirogateway/Gateway.hpp"

namespace kirogateway {

/// One view in a diagnostic bundle. Its name is not in it: that would let a reader return.
struct ViewReport {
    std::uint64_t count = 0;
    std::string client;
    View::Report report;
};

/// `memory`: bytes of all that waits.
[[nodiscard]] std::string diagnosticsText(const Statistics& statistics, bool lastPageGone,
                                          std::size_t memory, const std::vector<ViewReport>& views);

/// A record for the history "DrawnowTimeout", in the form that all its records have.
[[nodiscard]] std::string historyText(std::string_view event, std::string_view what);

}  // namespace kirogateway
