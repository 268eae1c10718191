#include "Options.hpp"

#include <boost/program_options.hpp>
#include <charconv>
#include <cmath>
#include <sstream>
#include <vector>

#include "kiro/Version.hpp"

namespace monitor {

namespace po = boost::program_options;

namespace {

constexpr const char* kUsage =
    R"(monitor: draws an electrocardiogram and a week of earthquakes through kiroweb.

Two figures advance 30 times a second: a strip chart of a real electrocardiogram, and
a map over which a real week of earthquakes is replayed in 300 frames. Each frame goes
out as commands and blocks of 32-bit floats and ends with a flush that waits until the
client has drawn it. The client is a page: open the link that is printed. With --headless
the client lives in this process and checks every command, every block and their order
against the data files; a table of what happened follows. SIGINT and SIGTERM end the run,
and what came of it is printed.

Usage: monitor [options]
       monitor --headless [options]
)";

constexpr const char* kExamples = R"(Examples:
  monitor                                 for a browser, until interrupted
  monitor --headless                      ten seconds in real time
  monitor --headless --speed max --frames 5000
                                          as much as this machine can do
  monitor --headless --drop-token 5       every fifth token is lost
  monitor --headless --fail-block 3 --speed max
                                          every third block comes as text instead
  monitor --record figures.mcap           what was on the screen, and when

Exit status:
  0  every frame was drawn; with --headless everything arrived, in order and right, and
     every injected fault met its stated reaction
  1  a frame was not drawn: its flush timed out, the page reported an error, or no page
     was left; something was not right; a signal came before the end that --frames,
     --duration or --headless set; or a file or the port cannot be used
  2  a wrong option
  3  standard output cannot be written
)";

/// Where arguments go that do not belong to an option.
constexpr const char* kStray = "argument";

constexpr std::uint64_t kDefaultFrames = 300;
constexpr std::uint64_t kSilentFrames = 2;
constexpr std::uint64_t kTokensToDrop = 2;

po::options_description runOptions() {
    po::options_description group("Run");
    group.add_options()                                                  //
        ("headless", "run against the checking client in this process")  //
        ("frames", po::value<std::string>()->value_name("N"),
         "stop after N frames "
         "(for a page without end; with --headless 300, with --drop-token as many as lose two "
         "tokens, with --silent 2)")  //
        ("duration", po::value<std::string>()->value_name("SECONDS"),
         "stop after so much time, or after N frames if that comes first")  //
        ("speed", po::value<std::string>()->value_name("X"),
         "1 is real time (the default), 2 twice as fast, max as fast as possible")  //
        ("timeout", po::value<std::string>()->value_name("SECONDS"),
         "how long a flush waits, in whole seconds, before it gives up in the second "
         "after (60; 1 with --drop-token and --silent; 0 waits forever)");
    return group;
}

po::options_description fileOptions() {
    po::options_description group("Files");
    group.add_options()  //
        ("data", po::value<std::string>()->value_name("DIR"),
         "where the data files are (" MONITOR_DATA_DIR ")")  //
        ("record", po::value<std::string>()->value_name("FILE"),
         "record what the client gets, and what it answers, to FILE; docs/recording.md says how");
    return group;
}

po::options_description pageOptions() {
    po::options_description group("Page");
    group.add_options()  //
        ("port", po::value<std::string>()->value_name("N"),
         "the port to listen on, on the loopback interface (one that is free)")  //
        ("no-browser", "print the link only, do not open a browser")             //
        ("remind", po::value<std::string>()->value_name("SECONDS"),
         "print the link again when nobody has come for so long, then after twice as long, and so "
         "on (30; 0: never)")  //
        ("diagnostics", po::value<std::string>()->value_name("FILE"),
         "write to FILE, at each time-out, what is known of the pages and of the last messages, "
         "as JSON");
    return group;
}

po::options_description faultOptions() {
    po::options_description group(
        "Faults, with --headless (exit status 0 if each met its stated reaction)");
    group.add_options()  //
        ("drop-token", po::value<std::string>()->value_name("N"),
         "the client loses every Nth token: the flush must end by time-out, with a warning "
         "of an unresponsive client")  //
        ("fail-block", po::value<std::string>()->value_name("N"),
         "the client's end fails every Nth block: it must come again as text, with a "
         "warning")  //
        ("silent",
         "the client never announces itself: every flush must end by time-out, with a "
         "warning of a handshaking issue");
    return group;
}

po::options_description otherOptions() {
    po::options_description group("Other");
    group.add_options()        //
        ("help", "show this")  //
        ("version", "show the version");
    return group;
}

po::options_description allOptions() {
    constexpr unsigned kWidth = 90;
    po::options_description all("", kWidth, kWidth / 2);
    all.add(runOptions()).add(fileOptions()).add(pageOptions());
    all.add(faultOptions()).add(otherOptions());
    return all;
}

/// The text of an option that was given.
std::optional<std::string> given(const po::variables_map& map, const char* name) {
    if (map.count(name) == 0) return std::nullopt;
    return map[name].as<std::string>();
}

template <typename Number>
std::optional<Number> read(const std::string& text) {
    Number value{};
    const char* end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stopped != end) return std::nullopt;
    return value;
}

/// Thirty years in seconds, and a year of frames as fast as they go: what is above is a mistake,
/// and would not fit where times are counted in nanoseconds.
constexpr std::int64_t kMostOfAnything = 1'000'000'000;

/// The whole number given for `name`.
std::optional<std::int64_t> wholeNumber(const po::variables_map& map, const char* name,
                                        std::int64_t least, std::int64_t most = kMostOfAnything) {
    const auto text = given(map, name);
    if (!text) return std::nullopt;
    const auto value = read<std::int64_t>(*text);
    if (!value || *value < least || *value > most) {
        throw OptionError(std::string("--") + name + " takes a whole number from " +
                          std::to_string(least) + " to " + std::to_string(most) + ", not \"" +
                          *text + '"');
    }
    return value;
}

/// The number given for `name`. What is smaller is a mistake, too: its inverse would overflow.
std::optional<double> positiveNumber(const po::variables_map& map, const char* name,
                                     const char* orElse) {
    const auto text = given(map, name);
    if (!text) return std::nullopt;
    constexpr double kLeast = 1e-6;
    const auto value = read<double>(*text);
    if (!value || !(*value >= kLeast && *value <= static_cast<double>(kMostOfAnything))) {
        throw OptionError(std::string("--") + name + " takes a number from 0.000001 to " +
                          std::to_string(kMostOfAnything) + orElse + ", not \"" + *text + '"');
    }
    return value;
}

std::uint64_t every(const po::variables_map& map, const char* name) {
    return static_cast<std::uint64_t>(wholeNumber(map, name, 1).value_or(0));
}

void readPace(const po::variables_map& map, Options& options) {
    if (const auto frames = wholeNumber(map, "frames", 1)) {
        options.frames = static_cast<std::uint64_t>(*frames);
    }
    if (const auto seconds = positiveNumber(map, "duration", ""))
        options.duration.emplace(*seconds);
    if (given(map, "speed") == "max") {
        options.speed = 0;
    } else {
        options.speed = positiveNumber(map, "speed", ", or max").value_or(1);
    }
    if (options.frames || options.duration || !options.headless) return;
    options.frames = kDefaultFrames;
    if (options.dropEvery != 0) options.frames = kTokensToDrop * options.dropEvery + 2;
    if (options.silent) options.frames = kSilentFrames;
}

void readTimeout(const po::variables_map& map, Options& options) {
    if (options.losesTokens()) options.timeout = std::chrono::seconds(1);
    if (const auto seconds = wholeNumber(map, "timeout", 0)) {
        options.timeout = std::chrono::seconds(*seconds);
    }
    if (options.losesTokens() && options.timeout.count() == 0) {
        throw OptionError("--timeout 0 would wait forever for a lost token");
    }
}

void readPage(const po::variables_map& map, Options& options) {
    if (options.headless) {
        for (const char* name : {"port", "no-browser", "remind", "diagnostics"}) {
            if (map.count(name) != 0) {
                throw OptionError(std::string("--") + name +
                                  " is about a page, not for --headless");
            }
        }
        return;
    }
    if (options.losesTokens() || options.failEvery != 0) {
        throw OptionError("--drop-token, --fail-block and --silent need --headless, too");
    }
    constexpr std::int64_t kMostPort = 65535;
    options.port = static_cast<std::uint16_t>(wholeNumber(map, "port", 0, kMostPort).value_or(0));
    if (given(map, "remind") == "0") {
        options.remind = std::chrono::duration<double>::zero();
    } else if (const auto seconds = positiveNumber(map, "remind", ", or 0")) {
        options.remind = std::chrono::duration<double>(*seconds);
    }
    options.opensBrowser = map.count("no-browser") == 0;
    if (const auto file = given(map, "diagnostics")) options.diagnostics = *file;
}

Options readOptions(const po::variables_map& map) {
    Options options;
    options.headless = map.count("headless") != 0;
    options.silent = map.count("silent") != 0;
    options.dropEvery = every(map, "drop-token");
    options.failEvery = every(map, "fail-block");
    if (options.silent && (options.dropEvery != 0 || options.failEvery != 0)) {
        throw OptionError("a --silent client has no token to drop and no block to fail");
    }
    readPace(map, options);
    readTimeout(map, options);
    readPage(map, options);
    options.data = given(map, "data").value_or(MONITOR_DATA_DIR);
    if (const auto file = given(map, "record")) options.record = *file;
    return options;
}

std::string helpText() {
    std::ostringstream out;
    out << kUsage << allOptions() << '\n' << kExamples;
    return out.str();
}

}  // namespace

ParsedOptions parseOptions(int argc, const char* const* argv) {
    po::variables_map map;
    try {
        namespace style = po::command_line_style;
        const po::options_description all = allOptions();
        // Taken in, to be named by its text: the parser would say only that there is one too many.
        po::options_description known;
        known.add(all).add_options()(kStray, po::value<std::vector<std::string>>());
        const po::positional_options_description stray =
            po::positional_options_description().add(kStray, -1);
        // Abbreviations are not guessed: a new option would change what they mean.
        constexpr int kStyle = style::unix_style & ~style::allow_guessing;
        po::store(po::command_line_parser(argc, argv)
                      .options(known)
                      .positional(stray)
                      .style(kStyle)
                      .run(),
                  map);
    } catch (const po::error& error) {
        throw OptionError(std::string(error.what()) + "; see --help");
    }
    if (map.count(kStray) != 0) {
        throw OptionError('"' + map[kStray].as<std::vector<std::string>>().front() +
                          "\" is not an option; see --help");
    }
    if (map.count("help") != 0) return {std::nullopt, helpText()};
    if (map.count("version") != 0) return {std::nullopt, "monitor " KIROWEB_VERSION "\n"};
    return {readOptions(map), {}};
}

}  // namespace monitor
