#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "../ValveService.hpp"
#include "Row.hpp"
#include "kiro/web/CommandSenderInterface.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kirofigures/Window.hpp"
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

/// A window whose frames go out and are not waited for.
class Recorded {
  public:
    Recorded() : fWindow(options()) {
        auto& valve = ValveService::install();
        valve.announce(fWindow.channels().commands);
        const auto& newView = fWindow.channels().newView;
        valve.client().publish(newView, {newView, "{}", 2});
        kirohost::waitForDelivery();
        fWindow.sender()->sendCommand("first", {});  // from the next one on it sends directly
        fAnswer = [this](const relay::message_service::JsonMessage& message) {
            constexpr std::string_view kBegin = R"({"ACT":")";
            const std::string_view text(message.json, message.length);
            if (!text.starts_with(kBegin)) return;
            const auto token =
                text.substr(kBegin.size(), text.find('"', kBegin.size()) - kBegin.size());
            fWindow.requestor().returnToken(kiroutils::CompletionToken(std::string(token)));
        };
        valve.setDrain(&fAnswer);
    }
    ~Recorded() { ValveService::install().setDrain(nullptr); }
    Recorded(const Recorded&) = delete;
    Recorded& operator=(const Recorded&) = delete;

    kirofigures::Window& window() { return fWindow; }
    /// What one draw costs more when it is recorded, in microseconds: the median of pairs.
    double difference(int rounds, const std::function<void()>& change) {
        std::vector<double> differences;
        for (int i = 0; i < rounds; ++i) {
            const double without = draws(change);
            fWindow.record(fFile.path());
            fWindow.draw();
            const double with = draws(change);
            if (fWindow.recording().phase != kirofigures::RecordingState::Phase::kOn) {
                throw std::runtime_error(fWindow.recording().cause);
            }
            fWindow.stopRecording();
            differences.push_back((with - without) / kDraws);
        }
        return median(differences);
    }

  private:
    static kirofigures::WindowOptions options() {
        kirofigures::WindowOptions options;
        options.serves = options.handlesSignals = options.waitsForPage = false;
        return options;
    }
    double draws(const std::function<void()>& change) {
        return microsecondsOf([&] {
            for (int i = 0; i < kDraws; ++i) {
                change();
                fWindow.draw();
            }
        });
    }

    const TemporaryFile fFile;
    kirofigures::Window fWindow;
    ValveService::Drain fAnswer;
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
    std::vector<double> copies;
    for (int i = 0; i < 100; ++i) {
        copies.push_back(microsecondsOf([&] {
            const std::unique_ptr<char, decltype(&std::free)> copy(
                static_cast<char*>(std::malloc(kBlock)), &std::free);
            std::memcpy(copy.get(), pixels.data(), kBlock);
            static_cast<volatile char*>(copy.get())[kBlock / 2] = 0;
        }));
    }
    Recorded recorded;
    auto& image = recorded.window().figure("F").axes().image();
    const auto change = [&] { image.set(1024, 1024, pixels); };
    change();
    recorded.window().draw();
    return {"recording, a 1 MiB block",
            "us",
            recorded.difference(quick ? 3 : 51, change),
            {},
            false,
            median(copies)};
}

/// Megabytes a second that `write` takes, given a MiB at a time, until it is done.
template <typename Write>
double rateOf(int blocks, const Write& write) {
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
