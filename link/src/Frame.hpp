#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Bytes.hpp"
#include "GatewayEnd.hpp"

/// The frames of a link, read and written; docs/link.md has their bytes. What is read is a view of
/// the bytes, and whatever stands in it has been checked.
namespace kirolink {

inline constexpr std::size_t kMaxFrame = std::size_t{1} << 20U;
inline constexpr std::size_t kBatchSize = 64UL * 1024;   ///< where a frame of texts is full
inline constexpr std::size_t kPieceSize = 512UL * 1024;  ///< of what is too large for that, most
inline constexpr std::size_t kMaxChannel = 32UL * 1024;  ///< bytes of a channel's name
inline constexpr std::size_t kMaxAddress = 1024;
inline constexpr std::size_t kMaxClient = 256;
inline constexpr std::size_t kMaxReason = 256;
inline constexpr std::size_t kMaxLanes = 32;  ///< each view at a gateway has all of them
inline constexpr std::size_t kMaxRanges = 64;

namespace frame {

struct Header {
    std::uint64_t epoch = 0;        ///< which engine of the session's; 0 where none is meant
    std::uint64_t incarnation = 0;  ///< which joining of a gateway's; 0: all gateways
    std::uint64_t number = 0;
};

// --- From the engine to all ---------------------------------------------------------------------

/// The engine lives; `number`: that of the next numbered frame.
struct Beat {
    bool hasPage = false;  ///< the session brings one of its own
};
/// The session is over; `number`: as a beat's.
struct End {};

// --- Numbered, either way -----------------------------------------------------------------------

/// Texts in a batch.
struct Texts {
    struct Record {
        std::string_view channel;
        std::string_view text;
        bool isBase64 = false;
    };
    std::vector<Record> records;
};
/// A part of a text or block that is too large for a batch.
struct Piece {
    bool isBlock = false;
    std::string_view channel;
    std::uint64_t total = 0;   ///< bytes of the whole
    std::uint64_t offset = 0;  ///< of this part
    std::string_view bytes;
    [[nodiscard]] bool isLast() const noexcept { return offset + bytes.size() == total; }
};

// --- Numbered, from a gateway -------------------------------------------------------------------

struct Announce {
    GatewayEnd::ViewKind kind = GatewayEnd::ViewKind::kNew;
    std::uint64_t view = 0;  ///< the gateway's own number of the view, 0: none
    std::string_view client;
};
struct Outcome {
    std::uint64_t block = 0;  ///< the number of the frame with its last piece
    BlockOutcome outcome = BlockOutcome::kRefused;
};
struct Pages {
    std::uint64_t count = 0;
};

// --- Unnumbered, from a gateway -----------------------------------------------------------------

/// The gateway wants to join. Its header has no epoch.
struct Hello {
    std::string_view address;
};
/// A gateway that has not joined would serve the session at this address.
struct Offer {
    std::string_view address;
};
/// The gateway lives; `number`: that of its next numbered frame.
struct Presence {
    std::uint64_t has = 0;         ///< it has every frame of the engine's below this one
    std::int64_t sentAt = 0;       ///< wall clock, microseconds since 1970
    std::int64_t clockOffset = 0;  ///< engine's wall clock minus its own, microseconds
    std::uint64_t clockUncertainty = 0;
};
struct Leave {};
/// The gateway wants the part of the session's page that begins at `number`.
struct Fetch {};

// --- Unnumbered, to a gateway -------------------------------------------------------------------

/// `number`: that of the first frame that the gateway gets.
struct Welcome {
    Description session;
};
/// Answers `Presence`; `number`: the engine has every frame of the gateway's below it.
struct Answer {
    std::int64_t echo = 0;  ///< `Presence::sentAt`
    std::int64_t receivedAt = 0;
    std::int64_t sentAt = 0;
};
/// Who says so does not know the gateway; it may join again.
struct Dropped {
    std::string_view reason;
};

/// Answers `Fetch`; `number`: as there.
struct Part {
    std::string_view bytes;
};

// --- Unnumbered, either way ---------------------------------------------------------------------

/// `number`: everything below it is there. What is in the ranges is missing.
struct Ask {
    struct Range {
        std::uint64_t first = 0;
        std::uint64_t last = 0;
        friend bool operator==(const Range&, const Range&) = default;
    };
    std::vector<Range> ranges;  ///< ascending, apart; none: nothing is missing
};
/// What was asked for has been sent again, below `number`.
struct Resent {};

using Body = std::variant<Beat, End, Texts, Piece, Announce, Outcome, Pages, Hello, Presence, Leave,
                          Welcome, Answer, Dropped, Ask, Resent, Offer, Fetch, Part>;

}  // namespace frame

struct Frame {
    frame::Header header;
    frame::Body body;
};

/// Empty for bytes that are no frame. Throws std::bad_alloc.
[[nodiscard]] std::optional<Frame> readFrame(std::string_view bytes);
/// Throws std::bad_alloc. REQUIRES: what it says is within the bounds.
[[nodiscard]] std::string writeFrame(const frame::Header& header, const frame::Body& body);

/// Whether that goes into a welcome.
[[nodiscard]] bool canBeSent(const Description& session) noexcept;

/// The text of a record; `space` holds it when it had to be decoded.
[[nodiscard]] std::string_view textOf(const frame::Texts::Record& record, std::string& space);

/// Whether a batch can name this channel. Texts on others are not carried.
[[nodiscard]] bool canBeNamed(std::string_view channel) noexcept;

/// Makes frames of texts.
class BatchWriter {
  public:
    [[nodiscard]] bool isEmpty() const noexcept { return fBytes.empty(); }
    [[nodiscard]] std::size_t size() const noexcept { return fBytes.size(); }
    /// Whether the text can go into this batch. It always can when the batch is empty.
    [[nodiscard]] bool fits(std::string_view channel, std::string_view text) const noexcept;
    /// Throws std::bad_alloc; nothing was added then.
    /// REQUIRES: canBeNamed(channel), fits(channel, text).
    void add(std::string_view channel, std::string_view text);
    /// The frame, which may be moved away before `clear`. Throws std::bad_alloc. REQUIRES: not
    /// empty.
    [[nodiscard]] std::string& frame(const frame::Header& header);
    void clear() noexcept;

  private:
    std::string fBytes;
    std::string fLastChannel;
};

/// Puts pieces together again.
class Assembly {
  public:
    /// `most`: bytes that the whole may have.
    explicit Assembly(std::size_t most) : fMost(most) {}
    enum class Result { kPart, kWhole, kBad };
    /// Takes the next piece. One that does not follow the one before is bad, and what was there is
    /// forgotten. Throws std::bad_alloc.
    [[nodiscard]] Result add(const frame::Piece& piece);
    /// REQUIRES: the last result was kWhole.
    [[nodiscard]] std::string take() { return std::exchange(fBytes, {}); }
    void clear() noexcept { fBytes = {}; }

  private:
    const std::size_t fMost;
    std::string fBytes;
    std::string fChannel;
    std::uint64_t fTotal = 0;
    bool fIsBlock = false;
};

}  // namespace kirolink
