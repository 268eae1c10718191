#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace kirorecording {

/// What the messages of a channel look like, for tools that know nothing of this system.
struct Schema {
    std::string name;
    std::string encoding;  ///< of `data`: "jsonschema"
    std::string data;
};

struct Channel {
    std::string topic;
    std::string encoding;                    ///< of its messages: "json"
    std::shared_ptr<const Schema> schema{};  ///< null: none
};

struct Message {
    std::uint16_t channel = 0;   ///< the number of its channel in this file, from 1
    std::uint32_t sequence = 0;  ///< 0, 1, 2, ... in its channel
    std::uint64_t time = 0;      ///< nanoseconds since 1970
    std::string_view data;
};

}  // namespace kirorecording
