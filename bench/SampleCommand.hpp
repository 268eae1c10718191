#pragma once

#include <boost/json/object.hpp>
#include <cstdint>
#include <string>

#include "kiro/web/JSONPayload.hpp"

/// The command that the figures build, once with the library and once by hand on the Boost.JSON
/// object that the library keeps: eight fields of the kinds that an engine sends.
namespace bench {

struct SampleCommand {
    std::int64_t handle = 4711;
    std::string property = "XData";
    std::string label = "Lead II, filtered at 40 Hz";
    bool visible = true;
    double lineWidth = 0.75;
    double position = 123.456;
    int points = 4096;
    std::uint64_t data = 17;
};

void fill(kiro::web::JSONPayload& payload, const SampleCommand& command);

/// A careful engineer's own: numbers formatted without allocating, one `reserve` for the next
/// field and one `emplace`, no other look at the key. How many fields will come is not known.
void fill(boost::json::object& object, const SampleCommand& command);

/// One field by hand.
template <typename Value>
void append(boost::json::object& object, boost::json::string_view key, const Value& value) {
    object.reserve(object.size() + 1);
    object.emplace(key, value);
}

}  // namespace bench
