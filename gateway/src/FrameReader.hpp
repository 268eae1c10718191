#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>

#include "PageMessages.hpp"

namespace kirogateway {

/// Reads the text frames of a page while their bytes come, so that a long one neither takes the
/// thread for long nor is held as a whole. One thread.
class FrameReader {
  public:
    /// Called with each message as soon as it is whole. Returns whether to go on: with false the
    /// rest of the frame is passed over.
    using Handler = std::function<bool(wire::PageMessage&&)>;

    /// `maxNames`: how many channels one frame may name.
    explicit FrameReader(std::size_t maxNames);
    ~FrameReader();
    FrameReader(const FrameReader&) = delete;
    FrameReader& operator=(const FrameReader&) = delete;

    /// The next bytes of a frame, its last ones with `isLast`. Throws
    /// wire::BadMessage for anything that is not a message or an array of them; std::bad_alloc;
    /// whatever `handle` throws. Only destruction is possible after that.
    void read(std::string_view bytes, bool isLast, const Handler& handle);

    /// Bytes of what has come of a message that is not whole yet.
    [[nodiscard]] std::size_t held() const noexcept;

  private:
    struct Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kirogateway
