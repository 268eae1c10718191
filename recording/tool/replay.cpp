// kiroweb-replay: shows recordings in a browser.
#include <boost/program_options.hpp>
#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "Access.hpp"
#include "Program.hpp"
#include "Recordings.hpp"
#include "Server.hpp"
#include "process/Browser.hpp"

namespace {

namespace po = boost::program_options;
using namespace recording_tool;

constexpr const char* kHelp =
    R"(kiroweb-replay: shows recordings in a browser.

Usage: kiroweb-replay [OPTION...] FILE [FILE]

Prints a link to a page with the recording and a time line; two recordings are shown side by side.
Serves it until SIGINT or SIGTERM, on the loopback interface only: from another machine,
"ssh -L 8080:127.0.0.1:8080 HOST" leads to what is run there with "--port 8080 --no-browser".

Options:
  --port N      the port to listen on (one that is free)
  --no-browser  open no browser; one is opened when there is a graphical session
  --help        show this

Exit status:
  0  ended by a signal
  1  a file cannot be used, or the port
  2  a wrong option
  3  standard output cannot be written
)";

struct Command {
    std::vector<std::string> files;
    std::uint16_t port = 0;
    bool opensBrowser = true;
    bool isHelp = false;
};

std::uint16_t portOf(const std::string& text) {
    constexpr std::size_t kDigits = 5;
    constexpr unsigned long kMost = std::numeric_limits<std::uint16_t>::max();
    const bool isNumber = !text.empty() && text.size() <= kDigits &&
                          text.find_first_not_of("0123456789") == std::string::npos;
    if (isNumber && std::stoul(text) <= kMost) return static_cast<std::uint16_t>(std::stoul(text));
    throw WrongOption("--port " + text + ": a port is a number up to 65535; see --help");
}

Command commandOf(int argc, const char* const* argv) {
    po::options_description options;
    options.add_options()("help", "")("no-browser", "")("port", po::value<std::string>(), "");
    const auto map = parse(options, argc, argv);
    Command command;
    command.isHelp = map.count("help") != 0;
    if (command.isHelp) return command;
    command.files = wordsOf(map);
    constexpr std::size_t kMostFiles = 2;
    if (command.files.empty()) throw WrongOption("what is wanted is a recording; see --help");
    if (command.files.size() > kMostFiles) {
        throw WrongOption("two recordings can be shown side by side, not more; see --help");
    }
    if (map.count("port") != 0) command.port = portOf(map["port"].as<std::string>());
    command.opensBrowser = map.count("no-browser") == 0;
    return command;
}

Status run(int argc, const char* const* argv) {
    const Command command = commandOf(argc, argv);
    if (command.isHelp) {
        print(kHelp);
        return kGood;
    }
    const auto recordings = openRecordings(command.files);
    Server server(command.port);
    Access access(recordings, server.port());
    print(access.link() + '\n');
    process::Browser browser;
    if (command.opensBrowser) {
        browser.open(access.singleUseLink(std::chrono::steady_clock::now()));
    }
    server.run(access);
    return kGood;
}

}  // namespace

int main(int argc, char** argv) {
    return runProgram("kiroweb-replay", [&] { return run(argc, argv); });
}
