#include "Program.hpp"

#include <boost/program_options.hpp>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <system_error>

namespace recording_tool {

namespace po = boost::program_options;

namespace {

constexpr const char* kWords = "words";

const char* programName = "";

int say(Status status, const std::exception& error) {
    complain(error.what());
    return status;
}

}  // namespace

void print(const std::string& text) {
    if (std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0) return;
    throw NoOutput("standard output cannot be written: " + std::generic_category().message(errno));
}

void complain(const std::string& text) noexcept {
    std::fprintf(stderr, "%s: %s\n", programName, text.c_str());
}

po::variables_map parse(po::options_description options, int argc, const char* const* argv) {
    namespace style = po::command_line_style;
    options.add_options()(kWords, po::value<std::vector<std::string>>(), "");
    po::variables_map map;
    try {
        po::store(po::command_line_parser(argc, argv)
                      .options(options)
                      .positional(po::positional_options_description().add(kWords, -1))
                      .style(style::unix_style & ~style::allow_guessing)
                      .run(),
                  map);
    } catch (const po::error& error) {
        throw WrongOption(std::string(error.what()) + "; see --help");
    }
    return map;
}

std::vector<std::string> wordsOf(const po::variables_map& given) {
    return given.count(kWords) == 0 ? std::vector<std::string>()
                                    : given[kWords].as<std::vector<std::string>>();
}

int runProgram(const char* name, const std::function<Status()>& run) noexcept {
    programName = name;
    try {
        return run();
    } catch (const WrongOption& error) {
        return say(kWrongOption, error);
    } catch (const NoOutput& error) {
        return say(kNoOutput, error);
    } catch (const std::exception& error) {
        return say(kNotGood, error);
    }
}

}  // namespace recording_tool
