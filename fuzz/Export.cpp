// Messages of arbitrary content in a recording that is whole: what is made of it is made, or
// refused with an offset in the file.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Csv.hpp"
#include "Cut.hpp"
#include "Fuzz.hpp"
#include "Memory.hpp"
#include "kirorecording/Run.hpp"

namespace {

using fuzz::require;
using namespace kirorecording;
using namespace recording_tool;
using recording_test::MemorySink;

/// Each string is a message: a byte for the channel, and the content.
std::string fileOf(FuzzedDataProvider& input) {
    MemorySink sink;
    Writer writer(sink, {false, 200});
    for (const auto& channel : runChannels()) writer.add(channel);
    for (std::uint64_t time = 1; input.remaining_bytes() > 0; ++time) {
        const auto line = input.ConsumeRandomLengthString();
        if (line.empty()) continue;
        const auto channel =
            static_cast<std::uint16_t>(1 + static_cast<unsigned char>(line[0]) % 8);
        writer.write(channel, time, std::string_view(line).substr(1));
    }
    writer.close();
    return sink.bytes;
}

template <typename Make>
void attempt(std::size_t size, const Make& make) {
    try {
        make();
    } catch (const FormatError& error) {
        require(error.offset() <= size, "an error lies within");
    } catch (const std::runtime_error&) {
        // There is no such frame, or it is too large.
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const auto from = input.ConsumeIntegral<std::uint8_t>();
    const auto file = fileOf(input);
    const MemorySource source(file);
    const Recording recording(source);
    attempt(file.size(), [&] { (void)tablesAt(recording, recording.timeOf({})); });
    constexpr std::uint64_t kMost = 10'000;
    for (const auto& make : {cut, thinned}) {
        attempt(file.size(), [&] {
            const auto part = make(recording, {from, ~std::uint64_t{0}}, kMost);
            require(part.bytes.size() <= kMost, "it is as small as it is to be");
            const MemorySource own(part.bytes);
            require(!Reader(own).damage(), "it is whole");
        });
    }
    return 0;
}
