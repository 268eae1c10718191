#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "kirorecording/Reader.hpp"
#include "kirorecording/Sink.hpp"
#include "kirorecording/Writer.hpp"

namespace recording_test {

/// A disk in memory, which may be small.
class MemorySink : public kirorecording::Sink {
  public:
    std::string bytes;
    std::size_t room = std::string::npos;
    bool isClosed = false;

  private:
    void doWrite(std::string_view more) override {
        bytes += more.substr(0, room - std::min(room, bytes.size()));
        if (bytes.size() == room) {
            throw std::system_error(ENOSPC, std::generic_category(), "disk: cannot be written");
        }
    }
    void doTruncate(std::uint64_t size) override { bytes.resize(size); }
    void doClose() override { isClosed = true; }
};

/// A message and its channel's topic.
struct Said {
    std::string topic;
    std::uint64_t time = 0;
    std::string data;

    bool operator==(const Said&) const = default;
};

/// Adds all messages that can be read, also when that fails in their midst.
inline void readInto(std::vector<Said>& said, const kirorecording::Reader& reader) {
    for (std::size_t i = 0; i < reader.chunks().size(); ++i) {
        auto chunk = reader.read(i);
        while (const auto message = chunk.next()) {
            said.push_back({reader.channels().at(message->channel).topic, message->time,
                            std::string(message->data)});
        }
    }
}

inline std::vector<Said> messagesOf(const kirorecording::Reader& reader) {
    std::vector<Said> said;
    readInto(said, reader);
    return said;
}

/// Three chunks of two messages each, and a time that goes back within one.
inline const std::vector<Said> kSaid{
    {"text", 10, "{}"},         {"bytes", 12, {"\0\xff", 2}}, {"bytes", 30, "x"},
    {"text", 20, R"({"a":1})"}, {"text", 40, std::string()},  {"bytes", 41, std::string(40, 'y')}};

/// A file of those messages.
inline std::string sample(bool compresses, bool isClosed = true) {
    using kirorecording::Schema;
    MemorySink sink;
    kirorecording::Writer writer(sink, {compresses});
    const std::uint16_t text = writer.add(
        {"text", "json", std::make_shared<const Schema>(Schema{"Text", "jsonschema", "{}"})});
    const std::uint16_t bytes = writer.add({"bytes", "raw"});
    for (std::size_t i = 0; i < kSaid.size(); ++i) {
        writer.write(kSaid[i].topic == "text" ? text : bytes, kSaid[i].time, kSaid[i].data);
        if (i % 2 == 1) writer.flush();
    }
    if (isClosed) writer.close();
    return std::move(sink.bytes);
}

}  // namespace recording_test
