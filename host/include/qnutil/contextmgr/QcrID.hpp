#pragma once

#include <cstdint>

namespace qnutil::contextmgr {

/// Names one interpreter context for as long as the process lives.
struct QcrID {
    std::uint64_t value = 0;
    bool operator==(const QcrID&) const = default;
};

}  // namespace qnutil::contextmgr
