// Arbitrary bytes as a recording, and a good recording with some of its bytes replaced. Nothing is
// handed out that was not written.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Fuzz.hpp"
#include "Memory.hpp"
#include "kirorecording/Repair.hpp"

namespace {

using fuzz::require;
using namespace kirorecording;
using namespace recording_test;

/// Memory beyond these would be a fault that the fuzzer's own limit finds.
constexpr Limits kLimits{std::uint64_t{1} << 20U, std::uint64_t{1} << 16U, 1000};

using Messages = std::vector<Said>;

/// All that can be read.
Messages read(std::string_view file) {
    Messages messages;
    try {
        const MemorySource source(file);
        const Reader reader(source, kLimits);
        if (reader.damage())
            require(reader.damage()->offset() <= file.size(), "damage lies within");
        readInto(messages, reader);
    } catch (const FormatError& error) {
        require(error.offset() <= file.size(), "an error lies within");
    }
    return messages;
}

void repairIt(std::string_view file) {
    MemorySink sink;
    try {
        const MemorySource source(file);
        static_cast<void>(repair(source, sink));
    } catch (const FormatError&) {
        return;
    }
    const MemorySource repaired(sink.bytes);
    require(!Reader(repaired).damage(), "what is repaired is whole");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const int kind = input.ConsumeIntegralInRange(0, 4);
    if (kind == 4) {
        const auto file = input.ConsumeRemainingBytesAsString();
        static_cast<void>(read(file));
        repairIt(file);
        return 0;
    }
    auto file = sample(kind % 2 == 0, kind < 2);
    const auto written = read(file);
    require(written == kSaid, "what was written is read");
    while (input.remaining_bytes() > 0) {
        const auto place = input.ConsumeIntegralInRange<std::size_t>(0, file.size() - 1);
        if (input.ConsumeIntegral<std::uint8_t>() == 0) {
            file.resize(place + 1);
        } else {
            file[place] = input.ConsumeIntegral<char>();
        }
    }
    // Whole chunks may be missing, where the file does not say who wrote it.
    auto next = written.begin();
    for (const auto& message : read(file)) {
        next = std::find(next, written.end(), message);
        require(next != written.end(), "what is read was written, in this order");
        ++next;
    }
    repairIt(file);
    return 0;
}
