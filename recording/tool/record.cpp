// kiroweb-record: says what is in a recording, and closes one that was not.
#include <algorithm>
#include <boost/program_options.hpp>
#include <ctime>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "Draft.hpp"
#include "Interruption.hpp"
#include "Program.hpp"
#include "kirorecording/Reader.hpp"
#include "kirorecording/Repair.hpp"
#include "text/Escape.hpp"

namespace {

namespace po = boost::program_options;
using namespace kirorecording;
using namespace recording_tool;

constexpr const char* kHelp =
    R"(kiroweb-record: says what is in a recording, and closes one that was not.

Usage: kiroweb-record info FILE
       kiroweb-record repair FILE [-o OUT]

info    prints the channels, how much is in each, and where the file is damaged, if it is
repair  keeps everything up to the last chunk that is whole, with an index and an end; in the
        place of FILE, or, with -o, as OUT

Options:
  -o [ --output ] OUT  where the repaired recording goes
  --help               show this

Exit status:
  0  the recording is whole, or was repaired
  1  info has found damage; or a file cannot be used
  2  a wrong option
  3  standard output cannot be written
)";

struct Command {
    std::string name;
    std::string file;
    std::string output;
    bool isHelp = false;
};

Command commandOf(int argc, const char* const* argv) {
    po::options_description options;
    options.add_options()("help", "")("output,o", po::value<std::string>(), "");
    const auto map = parse(options, argc, argv);
    if (map.count("help") != 0) return {{}, {}, {}, true};
    const auto words = wordsOf(map);
    if (words.size() != 2 || (words[0] != "info" && words[0] != "repair")) {
        throw WrongOption("what is wanted is info or repair, and a file; see --help");
    }
    Command command{words[0], words[1], {}};
    if (map.count("output") == 0) return command;
    if (command.name == "info") throw WrongOption("info writes nothing: -o is for repair");
    command.output = map["output"].as<std::string>();
    return command;
}

std::string textOf(std::uint64_t time) {
    constexpr std::uint64_t kSecond = 1'000'000'000;
    const auto seconds = static_cast<std::time_t>(time / kSecond);
    std::tm parts{};
    char date[64] = "a year beyond all calendars";
    if (::gmtime_r(&seconds, &parts) != nullptr) {
        std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S UTC", &parts);
    }
    return date;
}

std::string lineOf(const std::string& topic, std::uint64_t messages, std::uint64_t bytes) {
    constexpr std::size_t kTopic = 20;
    constexpr std::size_t kNumber = 16;
    const auto right = [](std::string text) {
        return std::string(kNumber - std::min(kNumber - 1, text.size()), ' ') + text;
    };
    return topic + std::string(kTopic - std::min(kTopic - 1, topic.size()), ' ') +
           right(std::to_string(messages)) + right(std::to_string(bytes)) + '\n';
}

struct Count {
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;
};

Status info(const std::string& file) {
    const FileSource source(file);
    const Reader reader(source);
    std::map<std::uint16_t, Count> counts;
    std::optional<FormatError> damage = reader.damage();
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    try {
        for (std::size_t i = 0; i < reader.chunks().size(); ++i) {
            auto chunk = reader.read(i);
            while (const auto message = chunk.next()) {
                if (counts.empty()) first = message->time;
                last = message->time;
                auto& count = counts[message->channel];
                ++count.messages;
                count.bytes += message->data.size();
            }
        }
    } catch (const FormatError& error) {
        damage = error;
    }
    std::string table = "channel                     messages           bytes\n";
    for (const auto& [number, channel] : reader.channels()) {
        table +=
            lineOf(text::escaped(channel.topic), counts[number].messages, counts[number].bytes);
    }
    if (last != 0) table += "from " + textOf(first) + "\nto   " + textOf(last) + '\n';
    print(table);
    if (!damage) return kGood;
    complain(damage->what());
    return kNotGood;
}

Status repairFile(const std::string& file, const std::string& output) {
    const std::string target = output.empty() ? file : output;
    // Beside it, so that nothing is lost when this ends early, and nothing is read from what is
    // just being written.
    const FileSource source(file);
    std::error_code none;
    const bool isInPlace = output.empty() || std::filesystem::equivalent(file, output, none);
    if (isInPlace && source.isBeingWritten()) {
        throw std::runtime_error(file + ": somebody is writing it; -o makes another file of it");
    }
    Draft draft(target);
    FileSink sink(draft.path(), target);
    const Repaired repaired = repair(source, sink);
    if (!repaired.damage && isInPlace) {
        print(file + ": is whole\n");
        return kGood;
    }
    draft.keep(file);
    std::string text = target + ": " + std::to_string(repaired.messages) + " messages";
    if (repaired.last != 0) text += ", up to " + textOf(repaired.last);
    if (repaired.damage) text += std::string("; left out from here on: ") + repaired.damage->what();
    print(text + '\n');
    return kGood;
}

Status run(int argc, const char* const* argv) {
    const Command command = commandOf(argc, argv);
    if (command.isHelp) {
        print(kHelp);
        return kGood;
    }
    return command.name == "info" ? info(command.file) : repairFile(command.file, command.output);
}

}  // namespace

int main(int argc, char** argv) {
    return runProgram("kiroweb-record", [&] {
        const Interruption interruption;
        return run(argc, argv);
    });
}
