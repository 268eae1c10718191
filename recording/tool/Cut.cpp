#include "Cut.hpp"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "JsonText.hpp"
#include "KeyFrames.hpp"
#include "kirorecording/Writer.hpp"

namespace recording_tool {

using namespace kirorecording;

namespace {

/// What a chunk takes in the index, about.
constexpr std::uint64_t kIndexed = 200;

class MemorySink : public Sink {
  public:
    explicit MemorySink(std::uint64_t most) : fMost(most) {}
    std::string bytes;

  private:
    void doWrite(std::string_view more) override {
        if (more.size() > fMost - bytes.size()) throw TooLarge("too large");
        bytes += more;
    }
    void doTruncate(std::uint64_t size) override { bytes.resize(size); }
    void doClose() override {}

    const std::uint64_t fMost;
};

class CountingSink : public Sink {
    void doWrite(std::string_view) override {}
    void doTruncate(std::uint64_t) override {}
    void doClose() override {}
};

/// A run that is being written.
class Output {
  public:
    explicit Output(Sink& sink) : fWriter(sink) {
        for (const auto& channel : runChannels()) fWriter.add(channel);
    }
    /// Throws WrongText for what a reader takes and a writer does not.
    void write(Topic topic, std::uint64_t time, std::string_view data) {
        if (data.size() > Writer::kMostBytes) {
            throw WrongText{"a message that is larger than 120 MiB"};
        }
        if (fBegin == 0) fBegin = time;
        fWriter.write(static_cast<std::uint16_t>(topic), time, data);
        fLast = time;
    }
    /// What the recording says of itself, right before what comes at `time`.
    void introduce(const std::optional<std::string>& introduction, std::uint64_t time) {
        if (!introduction) return;
        write(Topic::kConnections, std::max<std::uint64_t>(time, 2) - 1, *introduction);
    }
    void write(const KeyFrame& key) {
        // No two messages have the same time, and none is later than the frame was.
        const auto count = key.parts.size();
        auto time = std::max(fLast + 1, key.time - std::min<std::uint64_t>(key.time, count - 1));
        for (const auto& [topic, data] : key.parts) write(topic, time++, data);
        // A chunk of its own: what somebody seeks is one chunk.
        fWriter.flush();
    }
    void close() { fWriter.close(); }
    [[nodiscard]] std::uint64_t begin() const noexcept { return fBegin; }
    [[nodiscard]] std::uint64_t size() const noexcept { return fWriter.size(); }

  private:
    Writer fWriter;
    std::uint64_t fBegin = 0;
    std::uint64_t fLast = 0;
};

/// The first message of "connections".
std::optional<std::string> introductionOf(const Recording& run) {
    std::optional<std::string> found;
    run.forEach({}, [&](const Entry& entry) {
        if (entry.topic == Topic::kConnections) found = std::string(entry.data);
        // It stands before all frames.
        return !found && entry.topic != Topic::kFrames;
    });
    return found;
}

[[noreturn]] void failEmpty(const Recording& run) {
    throw std::runtime_error(run.name() + ": no frame was shown in that time");
}

/// Of `count` key frames `chosen`, evenly spread, the first and the last among them.
bool isChosen(std::size_t index, std::size_t chosen, std::size_t count) {
    if (chosen >= count) return true;
    if (chosen == 1) return index == 0;
    // The place of the one that is nearest.
    const auto nearest = [&](std::size_t i) {
        return (i * (count - 1) + (chosen - 1) / 2) / (chosen - 1);
    };
    const auto guess = index * (chosen - 1) / (count - 1);
    return nearest(guess) == index || nearest(guess + 1) == index;
}

std::uint64_t sizeOf(const std::vector<std::uint64_t>& sizes, std::size_t chosen) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        if (isChosen(i, chosen, sizes.size())) sum += sizes[i];
    }
    return sum;
}

/// How many key frames fit, by their sizes. 0: not even one.
std::size_t countThatFits(const std::vector<std::uint64_t>& sizes, std::uint64_t most) {
    std::size_t fits = 0;
    std::size_t beyond = sizes.size() + 1;
    // More of them are seldom smaller; what is found fits in any case.
    while (beyond - fits > 1) {
        const auto middle = (fits + beyond) / 2;
        (sizeOf(sizes, middle) <= most ? fits : beyond) = middle;
    }
    return fits;
}

Cut written(const Recording& run, const Range& range, std::uint64_t most, std::size_t chosen,
            std::size_t count) {
    MemorySink sink(most);
    Output output(sink);
    std::size_t index = 0;
    std::size_t frames = 0;
    const auto introduction = introductionOf(run);
    forEachKeyFrame(run, range.from, range.to, [&](const KeyFrame& key) {
        if (!isChosen(index++, chosen, count)) return;
        if (frames++ == 0) output.introduce(introduction, key.time - key.parts.size());
        output.write(key);
    });
    output.close();
    return {std::move(sink.bytes), output.begin(), frames, true};
}

}  // namespace

Cut cut(const Recording& run, const Range& range, std::uint64_t most) {
    MemorySink sink(most);
    Output output(sink);
    const auto introduction = introductionOf(run);
    const Place key = run.keyBefore(range.from);
    std::size_t frames = 0;
    bool isSnapshot = false;
    run.forEach(key, [&](const Entry& entry) {
        if (entry.time > range.to) return false;
        const bool isIntroduction =
            entry.topic == Topic::kConnections && entry.data == introduction;
        if (output.begin() == 0 && !isIntroduction) output.introduce(introduction, entry.time);
        if (entry.topic == Topic::kFrames) ++frames;
        if (entry.topic == Topic::kSnapshots) isSnapshot = true;
        output.write(entry.topic, entry.time, entry.data);
        return true;
    });
    if (frames == 0 && !isSnapshot) failEmpty(run);
    output.close();
    return {std::move(sink.bytes), output.begin(), frames, false};
}

Cut thinned(const Recording& run, const Range& range, std::uint64_t most) {
    CountingSink nowhere;
    Output trial(nowhere);
    std::vector<std::uint64_t> sizes;
    forEachKeyFrame(run, range.from, range.to, [&](const KeyFrame& key) {
        const auto before = trial.size();
        trial.write(key);
        sizes.push_back(trial.size() - before + kIndexed);
    });
    if (sizes.empty()) failEmpty(run);
    // Beginning and index take something as well.
    for (auto chosen = countThatFits(sizes, most); chosen > 0; --chosen) {
        try {
            return written(run, range, most, chosen, sizes.size());
        } catch (const TooLarge&) {
        }
    }
    throw TooLarge("one whole frame takes more: " + std::to_string(sizes.front()) + " bytes");
}

}  // namespace recording_tool
