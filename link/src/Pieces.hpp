#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "Frame.hpp"

namespace kirolink {

/// Cuts what is too large for a batch into pieces; what is empty, into one. REQUIRES: channel and
/// `whole` outlive it, and pieces have one byte to `kPieceSize`.
class Pieces {
  public:
    Pieces(bool isBlock, std::string_view channel, std::string_view whole,
           std::size_t pieceSize) noexcept
        : fIsBlock(isBlock), fChannel(channel), fWhole(whole), fPieceSize(pieceSize) {}

    /// The next one; none: that was all.
    [[nodiscard]] std::optional<frame::Piece> next() noexcept {
        if (fIsDone) return std::nullopt;
        const auto part = fWhole.substr(fAt, fPieceSize);
        const frame::Piece piece{fIsBlock, fChannel, fWhole.size(), fAt, part};
        fAt += part.size();
        fIsDone = piece.isLast();
        return piece;
    }

  private:
    const bool fIsBlock;
    const std::string_view fChannel;
    const std::string_view fWhole;
    const std::size_t fPieceSize;
    std::size_t fAt = 0;
    bool fIsDone = false;
};

}  // namespace kirolink
