#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "kirogateway/Options.hpp"

/// What pages say, read; and what the gateway says to them besides messages, written.
namespace kirogateway::wire {

inline constexpr std::size_t kMaxClient = 256;        ///< bytes of a page's name
inline constexpr std::size_t kMaxChannelName = 1024;  ///< bytes of what a page may name
inline constexpr std::size_t kMaxEchoId = 256;        ///< bytes, as JSON text
inline constexpr std::size_t kMaxRefused = 4096;      ///< numbers in a hello

/// Something that a page must not say; the text is fit for a close frame.
class BadMessage : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct Hello {
    std::uint64_t version = 0;
    std::string client;
    std::vector<std::string> subscribe;
    bool resume = true;
    std::string view;  ///< empty: no return
    std::uint64_t last = 0;
    std::vector<std::uint64_t> refused;  ///< messages up to `last`: blocks that it has not taken
    std::uint64_t maxBlock = std::numeric_limits<std::uint64_t>::max();  ///< the largest it takes
};
struct Publish {
    std::string channel;
    std::string text;
};
struct Subscribe {
    std::vector<std::string> channels;
};
struct Unsubscribe {
    std::vector<std::string> channels;
};
struct BlockAnswer {
    std::uint64_t transfer = 0;
    bool ok = false;
    std::string reason;
};
struct Ack {
    std::uint64_t last = 0;
};
struct ChannelName {
    std::uint64_t number = 0;
    std::string name;
};
struct Echo {
    std::string id;          ///< as JSON text
    bool wantsTime = false;  ///< the answer is to say what the clocks say
};
struct Unknown {
    std::string what;
};

using PageMessage = std::variant<Hello, Publish, Subscribe, Unsubscribe, BlockAnswer, Ack,
                                 ChannelName, Echo, Unknown>;

/// The header of a binary frame.
struct BlockHeader {
    static constexpr std::size_t kSize = 16;
    static constexpr unsigned char kBlock = 1;
    static constexpr unsigned char kLastPiece = 1;

    bool isLast = true;
    std::uint16_t channel = 0;
    std::uint32_t transfer = 0;
    std::uint64_t number = 0;  ///< of the message in the last piece, else the block's size

    void write(char* to) const noexcept;
    /// Empty for a frame that is too short or of another kind.
    [[nodiscard]] static std::optional<BlockHeader> read(std::string_view frame) noexcept;
};

/// Why a connection is closed; the numbers stand in docs/protocol.md.
enum class CloseCode : std::uint16_t {
    kStopped = 1001,
    kRestarted = 1012,
    kInvalidText = 1007,
    kBadMessage = 4000,
    kNoHello = 4001,
    kVersion = 4002,
    kTooSlow = 4003,
    kSilent = 4004,
    kReturnedElsewhere = 4005,
    kBadReturn = 4006,
    kGivenUp = 4900,  ///< by the page, which returns on another connection
};

enum class ViewKind { kFirst, kFurther, kReturn };
[[nodiscard]] std::string_view nameOf(ViewKind kind) noexcept;

struct Welcome {
    std::string view;
    ViewKind kind = ViewKind::kFirst;
    std::uint64_t next = 1;
    std::vector<std::string> blockChannels;
    std::vector<std::string> subscribed;
    std::vector<std::string> refused;
    std::string ended;                  ///< why the view asked for is over, if it is known
    std::vector<std::string> others{};  ///< where else the engine is reached
};

/// The texts of control frames.
[[nodiscard]] std::string helloText(const Welcome& welcome, const Options& options);
[[nodiscard]] std::string channelText(std::uint64_t number, std::string_view name);
/// Made without memory, since it is made while frames are written. `number` 0: the block had none.
class WithdrawnText {
  public:
    WithdrawnText(std::uint32_t transfer, std::uint64_t number) noexcept;
    [[nodiscard]] std::string_view view() const noexcept { return {fText.data(), fSize}; }

  private:
    void put(std::string_view text) noexcept;
    void put(std::uint64_t number) noexcept;

    std::array<char, 72> fText{};
    std::size_t fSize = 0;
};
[[nodiscard]] std::string refusedText(std::string_view what, std::string_view channel,
                                      std::string_view reason);
/// What the gateway knows of clocks.
struct Clocks {
    std::chrono::microseconds wall{0};         ///< the gateway's, since 1970
    std::chrono::microseconds engineAhead{0};  ///< the engine's wall clock minus that
    std::chrono::microseconds uncertainty{0};  ///< the difference is right up to this
    bool isEngineKnown = false;                ///< otherwise nothing is known of the engine's
};
[[nodiscard]] std::string echoText(const std::string& id);
[[nodiscard]] std::string echoText(const std::string& id, const Clocks& clocks);
/// `text` as a JSON string.
[[nodiscard]] std::string quoted(std::string_view text);
/// What is published on the channels for new views and reconnections.
[[nodiscard]] std::string announcementText(ViewKind kind, std::uint64_t count,
                                           std::string_view client);

}  // namespace kirogateway::wire
