#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "kirorecording/Channel.hpp"
#include "kirorecording/ChunkInfo.hpp"
#include "kirorecording/Source.hpp"

namespace kirorecording {

/// A file is not what it should be.
class FormatError : public std::runtime_error {
  public:
    /// The text: "NAME: offset 123: what".
    FormatError(const std::string& name, std::uint64_t offset, const std::string& what);
    [[nodiscard]] std::uint64_t offset() const noexcept { return fOffset; }

  private:
    std::uint64_t fOffset;
};

/// What a reader takes memory for, in bytes; what claims to be larger is refused before.
struct Limits {
    std::uint64_t chunk = std::uint64_t{128} << 20U;  ///< compressed, and again uncompressed
    std::uint64_t index = std::uint64_t{64} << 20U;   ///< the summary; schemas and channels; what
                                                      ///< is kept of message indexes
    std::size_t chunks = std::size_t{1} << 20U;       ///< how many
};

/// The messages of one chunk, which have been checked.
class Chunk {
  public:
    /// The next message, in the order of writing; none behind the last. Its data are good as long
    /// as this.
    [[nodiscard]] std::optional<Message> next();
    void rewind() noexcept { fAt = 0; }

  private:
    friend class Reader;
    explicit Chunk(std::string records) : fRecords(std::move(records)) {}

    std::string fRecords;
    std::size_t fAt = 0;
};

/// Reads a recording, or another MCAP file with chunks and checksums, whatever state it is in: its
/// bytes may be anything. Nothing is handed out whose checksum does not hold. With an index only
/// what is asked for is read; without one everything is read and checked when it is opened.
///
/// Every operation throws FormatError where the file is wrong, and what its source throws. `read`
/// on any thread.
class Reader {
  public:
    using Channels = std::map<std::uint16_t, Channel>;

    /// REQUIRES: `source` outlives this.
    explicit Reader(const Source& source, const Limits& limits = {});

    [[nodiscard]] const Channels& channels() const noexcept { return fChannels; }
    /// The number of the channel with that topic; nothing if there is none.
    [[nodiscard]] std::optional<std::uint16_t> find(std::string_view topic) const noexcept;
    /// In the order of the file.
    [[nodiscard]] const std::vector<ChunkInfo>& chunks() const noexcept { return fChunks; }
    /// REQUIRES: there is such a chunk.
    [[nodiscard]] Chunk read(std::size_t chunk) const;

    /// Why there are no more chunks, when the file was not closed or is damaged; nothing when all
    /// is well.
    [[nodiscard]] const std::optional<FormatError>& damage() const noexcept { return fDamage; }
    /// Whether the file says of itself that it was written by a `Writer`.
    [[nodiscard]] bool isOurs() const noexcept { return fIsOurs; }

  private:
    void readHeader();
    /// False, and no chunk is known, when there is no index that can be trusted.
    bool readIndex();
    void readSummary(std::string_view summary);
    void countIndexes(const ChunkInfo& info);
    void scan();
    /// Returns where the next record begins; nothing behind the last one.
    std::optional<std::uint64_t> scanRecord(std::uint64_t offset);
    void scanChunk(std::uint64_t offset, std::uint64_t length);
    /// The chunk's records, whose checksum holds.
    [[nodiscard]] std::string records(const ChunkInfo& info) const;
    /// Takes in a schema or a channel.
    void define(std::uint8_t opcode, std::string_view content);
    /// Whether a message is as `info` and the known channels say.
    [[nodiscard]] bool fits(const Message& message, const ChunkInfo& info) const;
    [[noreturn]] void fail(std::uint64_t offset, const std::string& what) const;

    const Source& fSource;
    const Limits fLimits;
    bool fIsOurs = false;
    std::uint64_t fBegin = 0;  ///< of what follows the header
    std::map<std::uint16_t, std::shared_ptr<const Schema>> fSchemas;
    std::uint64_t fDefined = 0;  ///< bytes of schemas and channels
    std::uint64_t fIndexed = 0;  ///< bytes that the chunks' message indexes take
    Channels fChannels;
    std::map<std::uint16_t, std::uint32_t> fSequences;  ///< of a scan: what comes next
    std::vector<ChunkInfo> fChunks;
    std::optional<FormatError> fDamage;
};

}  // namespace kirorecording
