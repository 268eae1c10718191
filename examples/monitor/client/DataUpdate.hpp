#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "client/Fields.hpp"

namespace monitor::client {

/// What a data command brings: elements from `first` on, behind those that there are, or, from 0,
/// in their place.
struct DataUpdate {
    std::uint64_t first = 0;
    std::uint64_t count = 0;
    std::map<std::string, std::vector<double>> columns{};

    /// Throws `FieldError` if there is none of that name.
    [[nodiscard]] const std::vector<double>& column(const std::string& name) const {
        const auto found = columns.find(name);
        if (found == columns.end()) throw FieldError("it has no column " + name);
        return found->second;
    }
};

}  // namespace monitor::client
