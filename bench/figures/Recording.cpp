#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Answered.hpp"
#include "Row.hpp"
#include "kirorecording/Writer.hpp"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBlock = std::size_t{1} << 20U;
constexpr double kMegabyte = 1e6;
/// Draws of a round: what they send fits into the queue, so that the disk does not count.
constexpr int kDraws = 20;
constexpr int kChanges = 50;

class TemporaryFile {
  public:
    ~TemporaryFile() { std::filesystem::remove(fPath); }
    TemporaryFile() = default;
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    [[nodiscard]] const std::string& path() const { return fPath; }

  private:
    const std::string fPath = (std::filesystem::temp_directory_path() /
                               ("kiroweb-bench-" + std::to_string(::getpid()) + ".mcap"))
                                  .string();
};

template <typename Call>
double microsecondsOf(const Call& call) {
    const auto start = Clock::now();
    call();
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

/// A window that is recorded now and then.
class Recorded {
  public:
    kirofigures::Window& window() { return fAnswered.window(); }
    /// What one draw costs more when it is recorded, in microseconds: the median of pairs.
    double difference(int rounds, const std::function<void()>& change) {
        std::vector<double> differences;
        for (int i = 0; i < rounds; ++i) {
            const double without = draws(change);
            window().record(fFile.path());
            window().draw();
            const double with = draws(change);
            if (window().recording().phase != kirofigures::RecordingState::Phase::kOn) {
                throw std::runtime_error(window().recording().cause);
            }
            window().stopRecording();
            differences.push_back((with - without) / kDraws);
        }
        return median(differences);
    }

  private:
    double draws(const std::function<void()>& change) {
        return microsecondsOf([&] {
            for (int i = 0; i < kDraws; ++i) {
                change();
                window().draw();
            }
        });
    }

    const TemporaryFile fFile;
    Answered fAnswered;
};

Row commandRow(bool quick) {
    Recorded recorded;
    auto& axes = recorded.window().figure("F").axes();
    std::vector<kirofigures::Line*> lines;
    for (int i = 0; i < kChanges; ++i) lines.push_back(&axes.line().append(i, i));
    recorded.window().draw();
    double width = 1;
    const double time = recorded.difference(quick ? 3 : 301, [&] {
        width = 3 - width;
        for (auto* const line : lines) line->width(width);
    });
    return {"recording, a command", "us", time / kChanges, 1};
}

Row blockRow(bool quick) {
    const std::vector<unsigned char> pixels(kBlock, 7);
    // As many copies are held as in a round.
    std::vector<double> copies;
    for (int round = 0; round < (quick ? 3 : 51); ++round) {
        std::vector<std::string> held;
        copies.push_back(microsecondsOf([&] {
                             for (int i = 0; i < kDraws; ++i) {
                                 held.emplace_back(pixels.begin(), pixels.end());
                                 benchmark::ClobberMemory();
                             }
                         }) /
                         kDraws);
    }
    Recorded recorded;
    auto& image = recorded.window().figure("F").axes().image();
    const auto change = [&] { image.set(1024, 1024, pixels); };
    change();
    recorded.window().draw();
    // One copy more than without a recording.
    const double copy = median(copies);
    return {"recording, a 1 MiB block",
            "us",
            recorded.difference(quick ? 3 : 51, change),
            copy,
            false,
            copy};
}

/// Megabytes a second that `write` takes, given a MiB at a time, until it is done.
template <typename Write>
double rateOf(int blocks, const Write& write) {
    // What is still to be written of what came before must not count.
    ::sync();
    return static_cast<double>(blocks) * kBlock / kMegabyte /
           (microsecondsOf([&] { write(blocks); }) / 1e6);
}

Row writerRow(bool quick) {
    const TemporaryFile file;
    const std::string block(kBlock, 'x');
    const int blocks = quick ? 20 : 500;
    std::vector<double> floors;
    std::vector<double> rates;
    for (int round = 0; round < (quick ? 1 : 5); ++round) {
        floors.push_back(rateOf(blocks, [&](int count) {
            kirorecording::FileSink sink(file.path());
            for (int i = 0; i < count; ++i) sink.write(block);
            sink.close();
        }));
        rates.push_back(rateOf(blocks, [&](int count) {
            kirorecording::FileSink sink(file.path());
            kirorecording::Writer writer(sink, {false});
            const auto channel = writer.add({"blocks", "raw"});
            for (int i = 0; i < count; ++i) writer.write(channel, 1, block);
            writer.close();
        }));
    }
    return {"recording, writer", "MB/s", median(rates), 500, true, median(floors)};
}

}  // namespace

std::vector<Measurement> recordingMeasurements() {
    const auto measurement = [](const char* name, Row (*row)(bool)) {
        return Measurement{name, [row](bool quick) -> std::vector<Row> { return {row(quick)}; }};
    };
    return {measurement("recording, a command", commandRow),
            measurement("recording, a 1 MiB block", blockRow),
            measurement("recording, writer", writerRow)};
}

}  // namespace bench
