#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "Budget.hpp"

namespace kirogateway {

/// A text that is too large to be copied for each page: one copy, which counts once.
struct SharedText {
    std::shared_ptr<const std::string> text;
    Charge charge;
};

/// A text on its way to the pages.
struct Text {
    std::string_view channel;
    std::string_view text;  ///< as it stands in a record
    bool isBase64 = false;
    std::size_t lane = 0;
    std::shared_ptr<const SharedText> shared;  ///< the same text, or empty: it is to be copied
};

}  // namespace kirogateway
