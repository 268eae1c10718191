#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kirorecording/Channel.hpp"
#include "kirorecording/ChunkInfo.hpp"
#include "kirorecording/Sink.hpp"

namespace kirorecording {

struct WriterOptions {
    bool compresses = true;  ///< chunks, with zstd
    /// A chunk ends with the message that makes it this large; at most 4 MiB.
    std::size_t chunkSize = std::size_t{1} << 20U;
};

/// Writes a recording: an MCAP file whose messages all lie in chunks, with indexes, statistics and
/// checksums. One thread at a time. Without `close` the file ends after its last whole chunk, and a
/// `Reader` reads it up to there.
///
/// What a sink throws passes through; then only `closeEarly` and the destructor may be called.
class Writer {
  public:
    /// The largest message: with what may stand before it in its chunk it is less than a reader
    /// takes.
    static constexpr std::size_t kMostBytes = std::size_t{120} << 20U;

    /// Writes the beginning. REQUIRES: `sink` outlives this; the options are as they say.
    explicit Writer(Sink& sink, WriterOptions options = {});

    /// Returns the channel's number: 1, 2, 3, ...
    std::uint16_t add(const Channel& channel);
    /// REQUIRES: `add` has returned `channel`; not more than `kMostBytes`.
    void write(std::uint16_t channel, std::uint64_t time, std::string_view data);
    /// Ends the chunk, if something is in it.
    void flush();
    /// Writes what waits, index and end, and closes the sink. Once.
    void close();
    /// After a failure: takes the sink back to its last whole chunk and closes it there, as a whole
    /// file if the sink lets it. Throws when it does not: the file then ends after that chunk.
    void closeEarly();

    /// Bytes that the sink has had.
    [[nodiscard]] std::uint64_t size() const noexcept { return fOffset; }
    /// The time of the first message of the chunk that is not written yet; 0: none waits.
    [[nodiscard]] std::uint64_t waitsSince() const noexcept { return fChunk.since; }

  private:
    /// Times and offsets of the messages of one channel in a chunk.
    using Index = std::vector<std::pair<std::uint64_t, std::uint64_t>>;
    struct Pending {
        std::string records;
        std::map<std::uint16_t, Index> indexes;
        std::uint64_t since = 0;
    };

    /// `rest`: the end of its last record, where that is not in its memory.
    void endChunk(std::string_view rest);
    void put(std::string_view bytes);
    void putIndexes(ChunkInfo& info);
    void putEnd();
    /// What is there is whole.
    void markWhole() noexcept { fWhole = fOffset; }
    // The groups of the summary.
    [[nodiscard]] std::string schemas() const;
    [[nodiscard]] std::string channels() const;
    [[nodiscard]] std::string statistics() const;
    [[nodiscard]] std::string infos() const;

    Sink& fSink;
    const WriterOptions fOptions;
    std::vector<Channel> fChannels;
    std::vector<std::uint32_t> fSequences;
    Pending fChunk;
    std::vector<ChunkInfo> fChunks;
    std::map<std::uint16_t, std::uint64_t> fMessages;  ///< of whole chunks
    std::uint64_t fOffset = 0;
    std::uint64_t fWhole = 0;  ///< behind the last whole chunk
};

}  // namespace kirorecording
