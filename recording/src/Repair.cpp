#include "kirorecording/Repair.hpp"

#include <map>

#include "kirorecording/Writer.hpp"

namespace kirorecording {

Repaired repair(const Source& source, Sink& sink) {
    const Reader reader(source);
    // Of others it does not know all that there may be.
    if (!reader.isOurs()) throw FormatError(source.name(), 0, "not a recording of kiroweb");
    Writer writer(sink);
    std::map<std::uint16_t, std::uint16_t> numbers;
    for (const auto& [number, channel] : reader.channels()) numbers[number] = writer.add(channel);
    Repaired repaired;
    try {
        for (std::size_t i = 0; i < reader.chunks().size(); ++i) {
            auto chunk = reader.read(i);
            while (const auto message = chunk.next()) {
                if (message->data.size() > Writer::kMostBytes) {
                    throw FormatError(source.name(), reader.chunks()[i].offset,
                                      "a message that is larger than 120 MiB");
                }
                writer.write(numbers.at(message->channel), message->time, message->data);
                ++repaired.messages;
                repaired.last = message->time;
            }
        }
        repaired.damage = reader.damage();
    } catch (const FormatError& damage) {
        repaired.damage = damage;
    }
    writer.close();
    return repaired;
}

}  // namespace kirorecording
