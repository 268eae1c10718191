#pragma once

#include <string>
#include <utility>

/// The event records that explain a drawnow time-out: JSON objects of five members, written as
/// text into the host's log `kDrawnowTimeoutLog`. The library writes them with the host's JSON
/// library, which puts the keys in ascending order, the gateway with Boost.JSON, which keeps the
/// order given here; so the shape is independent of the class of the object.
namespace records {

/// The host's log, whose history is printed when a token times out.
inline constexpr const char* kDrawnowTimeoutLog = "DrawnowTimeout";

inline constexpr const char* kServer = "Server";  ///< "LogType" of what this side did
inline constexpr const char* kClient = "Client";  ///< "LogType" of what a page said

inline constexpr const char* kEvent = "Event";
inline constexpr const char* kEventData = "EventData";

/// The members that all events of one source share. The object's class takes texts.
template <typename Object>
[[nodiscard]] Object eventHead(const std::string& logType, const std::string& source,
                               const std::string& channel) {
    return Object{{"LogType", logType}, {"Source", source}, {"Channel", channel}};
}

/// A whole record. `eventData` is a text or an object of the same JSON library.
template <typename Object, typename EventData>
[[nodiscard]] Object eventRecord(const std::string& logType, const std::string& source,
                                 const std::string& channel, const std::string& event,
                                 EventData&& eventData) {
    auto record = eventHead<Object>(logType, source, channel);
    record.emplace(kEvent, event);
    record.emplace(kEventData, std::forward<EventData>(eventData));
    return record;
}

}  // namespace records
