#include "KeyFrames.hpp"

#include "Decoder.hpp"
#include "JsonText.hpp"

namespace recording_tool {

using namespace kirorecording;

namespace {

/// Bytes of a frame that is under way: a file may have commands without an end.
constexpr std::size_t kMostWaiting = std::size_t{128} << 20U;
/// What each message takes besides its bytes.
constexpr std::size_t kPartCost = 64;

}  // namespace

KeyFrame keyFrameOf(std::string_view snapshot, std::uint64_t time) try {
    Decoder rest(snapshot);
    const auto members = membersOf(rest.text());
    KeyFrame key{time, {}};
    std::size_t bytes = 0;
    const auto add = [&](Topic topic, std::string_view data) {
        bytes += data.size();
        key.parts.emplace_back(topic, data);
    };
    while (!rest.isAtEnd()) add(Topic::kBlocks, rest.raw(rest.number<std::uint64_t>()));
    const auto commands = elementsOf(demand(members, "commands"));
    for (const auto& command : commands) add(Topic::kCommands, command);
    key.parts.emplace_back(Topic::kFrames,
                           R"({"frame":)" + std::to_string(countOf(demand(members, "frame"))) +
                               R"(,"attempt":1,"kind":"whole","bytes":)" + std::to_string(bytes) +
                               R"(,"seq":)" + std::to_string(commands.size()) + '}');
    return key;
} catch (const WrongRecord& wrong) {
    throw WrongText{wrong.what};
}

void forEachKeyFrame(const Recording& run, std::uint64_t from, std::uint64_t to,
                     const std::function<void(const KeyFrame&)>& take) {
    KeyFrame next;
    std::size_t waiting = 0;
    run.forEach(run.keyBefore(from), [&](const Entry& entry) {
        if (entry.time > to) return false;
        if (entry.topic == Topic::kSnapshots) take(keyFrameOf(entry.data, entry.time));
        const bool isMark = entry.topic == Topic::kFrames;
        if (!isMark && entry.topic != Topic::kCommands && entry.topic != Topic::kBlocks)
            return true;
        waiting += entry.data.size() + kPartCost;
        if (waiting > kMostWaiting) throw WrongText{"a frame without an end"};
        next.parts.emplace_back(entry.topic, entry.data);
        if (!isMark) return true;
        next.time = entry.time;
        if (markOf(entry.data).isWhole) take(next);
        next.parts.clear();
        waiting = 0;
        return true;
    });
}

}  // namespace recording_tool
