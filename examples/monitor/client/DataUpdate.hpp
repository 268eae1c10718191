#pragma once

#include <cstdint>
#include <vector>

namespace monitor::client {

/// What a data command brings: elements from `first` on, which replace all or are appended.
struct DataUpdate {
    bool append = false;
    std::uint64_t first = 0;
    std::uint64_t count = 0;
    std::uint64_t columns = 1;  ///< numbers in one element
    std::vector<float> numbers;
};

}  // namespace monitor::client
