#include "Recording.hpp"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "JsonText.hpp"

namespace recording_tool {

using namespace kirorecording;

Mark markOf(std::string_view data) {
    const auto members = membersOf(data);
    return {countOf(demand(members, "frame")), textOf(demand(members, "kind")) == "whole"};
}

Recording::Recording(const Source& source) : fName(source.name()), fReader(source) {
    if (const auto& damage = fReader.damage()) {
        throw std::runtime_error(damage->what() +
                                 std::string("; kiroweb-record repair keeps what is before"));
    }
    if (!fReader.isOurs()) throw FormatError(fName, 0, "not a recording of kiroweb");
    for (auto topic = Topic::kCommands; topic <= Topic::kConnections;
         topic = static_cast<Topic>(static_cast<std::uint16_t>(topic) + 1)) {
        for (const auto& [number, channel] : fReader.channels()) {
            if (channel.topic == nameOf(topic)) fTopics.emplace(number, topic);
        }
    }
    for (const auto& chunk : fReader.chunks()) {
        if (chunk.last == 0) continue;
        if (fBegin == 0) fBegin = chunk.first;
        fEnd = std::max(fEnd, chunk.last);
    }
}

void Recording::fail(std::size_t chunk, const std::string& what) const {
    throw FormatError(fName, fReader.chunks().at(chunk).offset, what);
}

void Recording::forEach(const Place& from, const std::function<bool(const Entry&)>& take) const {
    for (std::size_t number = from.chunk; number < fReader.chunks().size(); ++number) {
        auto chunk = fReader.read(number);
        try {
            for (std::size_t index = 0; const auto message = chunk.next(); ++index) {
                if (number == from.chunk && index < from.index) continue;
                const auto topic = fTopics.find(message->channel);
                if (topic == fTopics.end()) continue;
                if (!take({{number, index}, topic->second, message->time, message->data})) return;
            }
        } catch (const WrongText& wrong) {
            fail(number, std::string("in this chunk: ") + wrong.what);
        }
    }
}

Place Recording::keyBefore(std::uint64_t time) const {
    Place key;
    Place next;  // behind the last mark
    forEach({}, [&](const Entry& entry) {
        if (entry.time > time) return false;
        if (entry.topic == Topic::kSnapshots) key = entry.place;
        if (entry.topic != Topic::kFrames) return true;
        if (markOf(entry.data).isWhole) key = next;
        next = {entry.place.chunk, entry.place.index + 1};
        return true;
    });
    return key;
}

std::uint64_t Recording::timeOf(std::optional<std::uint64_t> frame) const {
    std::optional<std::uint64_t> found;
    std::uint64_t lowest = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t highest = 0;
    forEach({}, [&](const Entry& entry) {
        // A page's own recording may have nothing but what was there when it began.
        if (!frame && entry.topic == Topic::kSnapshots) found = entry.time;
        if (entry.topic != Topic::kFrames) return true;
        const auto number = markOf(entry.data).frame;
        lowest = std::min(lowest, number);
        highest = std::max(highest, number);
        if (!frame || number == *frame) found = entry.time;
        return !frame || !found;
    });
    if (found) return *found;
    if (lowest > highest) throw std::runtime_error(fName + ": there is no frame in it");
    throw std::runtime_error(fName + ": no frame " + std::to_string(*frame) + ": they are " +
                             std::to_string(lowest) + " to " + std::to_string(highest));
}

}  // namespace recording_tool
