// kiroweb_recording_sample FILE [plain]: writes a small run, compressed or not, for whoever reads
// it with other tools.
#include <string>

#include "kirorecording/Run.hpp"
#include "kirorecording/Writer.hpp"

int main(int argc, char** argv) {
    using kirorecording::Topic;
    if (argc < 2) return 2;
    kirorecording::FileSink sink(argv[1]);
    kirorecording::Writer writer(sink, {argc < 3, 2000});
    for (const auto& channel : kirorecording::runChannels()) writer.add(channel);
    std::uint64_t time = 1'700'000'000'000'000'000;
    const auto write = [&](Topic topic, const std::string& data) {
        writer.write(static_cast<std::uint16_t>(topic), ++time, data);
    };
    for (int frame = 0; frame < 100; ++frame) {
        const auto number = std::to_string(frame);
        std::string block("\4\0\0\0\0\0\0\0xyz", 11);
        block[8] = static_cast<char>(frame);
        write(Topic::kBlocks, block);
        write(Topic::kCommands,
              R"({"frame":)" + number + R"(,"seq":)" + number + R"(,"cmd":"beginFrame"})");
        write(Topic::kFrames, R"({"frame":)" + number + "}");
    }
    writer.close();
    return 0;
}
