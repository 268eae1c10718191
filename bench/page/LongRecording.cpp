// kiroweb_bench_recording FILE SECONDS: writes what a window records of a line that gets 2,600
// values 30 times a second and keeps 40,000, without waiting for that time: an hour is about 1 GB.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "kirorecording/Channel.hpp"
#include "kirorecording/Sink.hpp"
#include "kirorecording/Writer.hpp"

namespace {

constexpr std::uint64_t kFramesPerSecond = 30;
constexpr std::uint64_t kFramesPerSnapshot = 2 * kFramesPerSecond;
constexpr std::uint64_t kBegin = 1'700'000'000'000'000'000;
constexpr std::size_t kValues = 2600;
constexpr std::size_t kKept = 40'000;

template <typename Number>
std::string bytesOf(const Number* numbers, std::size_t count) {
    std::string bytes(count * sizeof(Number), '\0');
    std::memcpy(bytes.data(), numbers, bytes.size());
    return bytes;
}

/// With its length before it, as such a number.
template <typename Number>
std::string sized(std::string_view bytes) {
    const auto size = static_cast<Number>(bytes.size());
    return bytesOf(&size, 1).append(bytes);
}

class LongRecording {
  public:
    explicit LongRecording(kirorecording::Sink& sink) : fWriter(sink) {
        for (const char* const topic : {"commands", "frames"}) fWriter.add({topic, "json"});
        for (const char* const topic : {"blocks", "snapshots"}) {
            fWriter.add({topic, std::string("kiroweb/") + topic});
        }
    }

    void write(std::uint64_t frames) {
        for (; fFrame < frames; ++fFrame) writeFrame();
        fWriter.close();
    }

  private:
    /// In the order in which they were added.
    enum Channel : std::uint16_t { kCommands = 1, kFrames, kBlocks, kSnapshots };

    void writeFrame() {
        const bool isWhole = fFrame == 0;
        for (const auto& text : isWhole ? beginning(fFrame) : std::vector{begin(fFrame, false)}) {
            say(text);
        }
        say(R"("cmd":"set","id":1,"title":"Frame )" + std::to_string(fFrame) + '"');
        const auto first = fGiven;
        std::array<float, kValues> values;
        for (auto& value : values) {
            value = static_cast<float>(std::sin(static_cast<double>(fGiven++) * 1e-3) +
                                       fNoise(fRandom));
        }
        fKept.insert(fKept.end(), values.begin(), values.end());
        if (fKept.size() > kKept) {
            fKept.erase(fKept.begin(), fKept.end() - static_cast<std::ptrdiff_t>(kKept));
        }
        put(kBlocks, block(values.data(), values.size()));
        say(data(first, 0, kValues));
        put(kFrames, R"({"frame":)" + std::to_string(fFrame) + R"(,"attempt":1,"kind":")" +
                         (isWhole ? "whole" : "changes") + R"(","bytes":1,"seq":)" +
                         std::to_string(fSequence) + '}');
        if (fFrame % kFramesPerSnapshot == kFramesPerSnapshot - 1) writeSnapshot();
    }

    void writeSnapshot() {
        auto commands = beginning(fFrame);
        commands.push_back(R"("cmd":"set","id":1,"title":"Frame )" + std::to_string(fFrame) + '"');
        const auto kept = block(fKept.data(), fKept.size());
        commands.push_back(data(0, fGiven - fKept.size(), fKept.size()));
        std::string text = R"({"frame":)" + std::to_string(fFrame) + R"(,"seq":)" +
                           std::to_string(fSequence) + R"(,"commands":[)";
        std::uint64_t sequence = 0;
        for (const auto& command : commands) {
            ++sequence;
            text += (sequence == 1 ? "" : ",") + numbered(sequence, command);
        }
        put(kSnapshots, sized<std::uint32_t>(text + "]}") + sized<std::uint64_t>(kept));
    }

    static std::string numbered(std::uint64_t sequence, const std::string& members) {
        return R"({"seq":)" + std::to_string(sequence) + ',' + members + '}';
    }
    static std::string begin(std::uint64_t frame, bool isWhole) {
        return R"("cmd":"beginFrame","frame":)" + std::to_string(frame) +
               R"(,"attempt":1,"whole":)" + (isWhole ? "true" : "false");
    }
    static std::vector<std::string> beginning(std::uint64_t frame) {
        return {begin(frame, true), R"("cmd":"create","id":1,"type":"figure")",
                R"("cmd":"create","id":2,"type":"axes","parent":1,"y":{"limits":[-2,2]})",
                R"("cmd":"create","id":3,"type":"line","parent":2,"regular":[0,0.001],"keep":)" +
                    std::to_string(kKept)};
    }
    /// Of the block that was made last.
    std::string data(std::uint64_t first, std::uint64_t base, std::size_t count) const {
        return R"("cmd":"data","id":3,"data":")" + std::to_string(fBlock) + R"( 1","first":)" +
               std::to_string(first) + R"(,"base":)" + std::to_string(base) + R"(,"count":)" +
               std::to_string(count) + R"(,"columns":[["y","f32"]])";
    }
    std::string block(const float* values, std::size_t count) {
        const std::array<std::uint32_t, 2> identifier{++fBlock, 1};
        return bytesOf(identifier.data(), identifier.size()) + bytesOf(values, count);
    }

    void say(const std::string& members) { put(kCommands, numbered(++fSequence, members)); }
    void put(Channel channel, std::string_view message) {
        constexpr std::uint64_t kSecond = 1'000'000'000;
        const auto time = kBegin + fFrame * kSecond / kFramesPerSecond;
        // No two have the same.
        fTime = std::max(fTime + 1, time);
        fWriter.write(channel, fTime, message);
    }

    kirorecording::Writer fWriter;
    std::minstd_rand fRandom{1};
    std::uniform_real_distribution<double> fNoise{-0.5, 0.5};
    std::vector<float> fKept;
    std::uint64_t fFrame = 0;
    std::uint64_t fGiven = 0;
    std::uint64_t fSequence = 0;
    std::uint64_t fTime = 0;
    std::uint32_t fBlock = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "kiroweb_bench_recording FILE SECONDS\n");
        return 2;
    }
    try {
        kirorecording::FileSink sink(argv[1]);
        LongRecording(sink).write(std::strtoull(argv[2], nullptr, 10) * kFramesPerSecond);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
