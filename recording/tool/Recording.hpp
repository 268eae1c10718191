#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "kirorecording/Reader.hpp"
#include "kirorecording/Run.hpp"

namespace recording_tool {

/// Where a message is.
struct Place {
    std::size_t chunk = 0;
    std::size_t index = 0;  ///< of the message in its chunk
};

/// A message of a run.
struct Entry {
    Place place;
    kirorecording::Topic topic{};
    std::uint64_t time = 0;  ///< nanoseconds since 1970
    std::string_view data;   ///< good until the next one
};

/// A mark in "frames".
struct Mark {
    std::uint64_t frame = 0;
    bool isWhole = false;
};
/// Throws WrongText.
[[nodiscard]] Mark markOf(std::string_view data);

/// A recording of figures as a row of messages. Throws std::runtime_error for a file that was not
/// closed, and FormatError for one that is damaged or none, and in `forEach` for what a message
/// should not be.
class Recording {
  public:
    /// REQUIRES: `source` outlives this.
    explicit Recording(const kirorecording::Source& source);

    /// The file's.
    [[nodiscard]] const std::string& name() const noexcept { return fName; }
    /// Of the first message; 0 when there is none.
    [[nodiscard]] std::uint64_t begin() const noexcept { return fBegin; }
    /// Of the last one.
    [[nodiscard]] std::uint64_t end() const noexcept { return fEnd; }
    /// Calls for each message from a place on until `take` returns false. Channels that a run does
    /// not have are left out. When `take` throws WrongText the chunk's offset is added.
    void forEach(const Place& from, const std::function<bool(const Entry&)>& take) const;
    /// From where all that is shown at `time` is there: the latest snapshot or beginning of a whole
    /// frame until then; the beginning when there is none.
    [[nodiscard]] Place keyBefore(std::uint64_t time) const;
    /// When the first frame with that number was there; without one the last of all. Throws
    /// std::runtime_error when there is none.
    [[nodiscard]] std::uint64_t timeOf(std::optional<std::uint64_t> frame) const;
    [[noreturn]] void fail(std::size_t chunk, const std::string& what) const;

  private:
    const std::string fName;
    const kirorecording::Reader fReader;
    std::map<std::uint16_t, kirorecording::Topic> fTopics;  ///< by channel
    std::uint64_t fBegin = 0;
    std::uint64_t fEnd = 0;
};

}  // namespace recording_tool
