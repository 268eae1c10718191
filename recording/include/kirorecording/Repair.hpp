#pragma once

#include <cstdint>
#include <optional>

#include "kirorecording/Reader.hpp"
#include "kirorecording/Sink.hpp"

namespace kirorecording {

struct Repaired {
    std::uint64_t messages = 0;
    std::uint64_t last = 0;               ///< time of the last one; 0: there is none
    std::optional<FormatError> damage{};  ///< what it ended at; nothing: the source was whole
};

/// Writes everything from `source` up to its last whole chunk, or to the first one that is
/// damaged, as a whole file: with index and end. What lies behind a damaged chunk is left out, for
/// it means nothing without what is missing. Throws FormatError for what is no recording of a
/// `Writer`, since it would lose what a `Writer` does not write, and what source and sink throw.
Repaired repair(const Source& source, Sink& sink);

}  // namespace kirorecording
