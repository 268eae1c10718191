#include "kirorecording/Run.hpp"

#include <array>

namespace kirorecording {

namespace {

struct Description {
    const char* topic;
    const char* encoding;
    const char* schema;
};

/// Binary messages have a schema, too, which says in words what they are.
constexpr std::array<Description, 8> kDescriptions{{
    {"commands", "json", R"({
  "title": "command", "type": "object",
  "description": "A command as it went to the page.",
  "properties": {"cmd": {"type": "string"}, "seq": {"type": "integer", "minimum": 1}},
  "required": ["cmd", "seq"]
})"},
    {"blocks", "kiroweb/block", R"({
  "title": "block",
  "description": "Binary: an identifier of 8 bytes, little-endian, and the data."
})"},
    {"snapshots", "kiroweb/snapshot", R"({
  "title": "snapshot",
  "description": "Binary: 4 bytes, the length of a JSON text; the text; then each block behind its length of 8 bytes. All little-endian. The text holds:",
  "type": "object",
  "properties": {
    "frame": {"type": "integer"}, "seq": {"type": "integer"},
    "commands": {"type": "array", "items": {"type": "object"}}
  },
  "required": ["frame", "seq", "commands"]
})"},
    {"frames", "json", R"({
  "title": "frame", "type": "object",
  "description": "A frame has been sent: all its commands and blocks are before this.",
  "properties": {
    "frame": {"type": "integer", "minimum": 0}, "attempt": {"type": "integer", "minimum": 1},
    "kind": {"enum": ["whole", "changes"]}, "bytes": {"type": "integer"},
    "seq": {"type": "integer", "description": "of its last command"}
  },
  "required": ["frame", "attempt", "kind", "bytes", "seq"]
})"},
    {"tokens", "json", R"({
  "title": "token", "type": "object",
  "description": "A frame is over. The stamps are microseconds since 1970, 0 where there is none.",
  "properties": {
    "frame": {"type": "integer"}, "attempt": {"type": "integer"},
    "outcome": {"enum": ["painted", "hidden", "paused", "late", "no page", "failed", "interrupted"]},
    "reason": {"type": "string"},
    "serverSend": {"type": "integer"}, "clientReceive": {"type": "integer"},
    "clientPaint": {"type": "integer"}, "clientSend": {"type": "integer"}, "serverReceive": {"type": "integer"}
  },
  "required": ["frame", "attempt", "outcome", "reason",
               "serverSend", "clientReceive", "clientPaint", "clientSend", "serverReceive"]
})"},
    {"controls", "json", R"({
  "title": "event", "type": "object",
  "description": "What somebody did on a page, as the page said it.",
  "properties": {"event": {"enum": ["control", "pick", "limits", "key"]}},
  "required": ["event"]
})"},
    {"errors", "json", R"({
  "title": "error", "type": "object",
  "description": "A script error, as a page reported it.",
  "properties": {"error": {"type": "string"}},
  "required": ["error"]
})"},
    {"connections", "json", R"({
  "title": "connection", "type": "object",
  "description": "The recording begins, or a page has come, is back, or the last one is gone.",
  "properties": {
    "event": {"enum": ["begin", "new view", "return", "gone"]},
    "vocabulary": {"type": "string"}, "title": {"type": "string"}
  },
  "required": ["event"]
})"},
}};

}  // namespace

const char* nameOf(Topic topic) noexcept {
    return kDescriptions.at(static_cast<std::size_t>(topic) - 1).topic;
}

std::vector<Channel> runChannels() {
    std::vector<Channel> channels;
    channels.reserve(kDescriptions.size());
    for (const auto& [topic, encoding, schema] : kDescriptions) {
        channels.push_back(
            {topic, encoding, std::make_shared<const Schema>(Schema{topic, "jsonschema", schema})});
    }
    return channels;
}

}  // namespace kirorecording
