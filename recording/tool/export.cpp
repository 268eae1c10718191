// kiroweb-export: makes a page, tables or a picture of a recording.
#include <boost/program_options.hpp>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Csv.hpp"
#include "Cut.hpp"
#include "Draft.hpp"
#include "Interruption.hpp"
#include "Program.hpp"
#include "Screenshot.hpp"
#include "SingleFile.hpp"

namespace {

namespace po = boost::program_options;
using namespace kirorecording;
using namespace recording_tool;

constexpr const char* kHelp =
    R"(kiroweb-export: makes a page, tables or a picture of a recording.

Usage: kiroweb-export FILE -o OUT.html [--from S] [--to S] [--most SIZE]
       kiroweb-export FILE --csv FOLDER [--frame N]
       kiroweb-export FILE --png N -o OUT.png

The page is one HTML file with the recording in it. It opens by a double click, without a server or
a network, and has the time line and all tools of the page that showed the run.

Options:
  -o [ --output ] OUT  the file to make; one that is there is replaced when all went well
  --from S             the page opens at S seconds since the beginning; what is needed to show
                       that begins up to some seconds before
  --to S               and ends at S seconds
  --most SIZE          at most so many bytes (k, M or G behind the number: 1000, a million, ...).
                       When all is larger, key frames are kept, about one for each 2 s, or of them
                       as many as fit, evenly spread. What lies between is lost: other frames,
                       tokens with their times, controls and errors
  --csv FOLDER         a file for each series with elements, as a row for each; FOLDER must not be
                       there, or be empty. What is not a number is an empty cell; on axes of time
                       there are dates, UTC
  --frame N            the frame with that number, in place of the last one
  --png N              a picture of the page at that frame, by a Chromium on the PATH
  --help               show this

Exit status:
  0  it is made
  1  a file cannot be used, or not be made so small; for a picture: there is no browser
  2  a wrong option
  3  standard output cannot be written
)";

struct Options {
    bool isHelp = false;
    std::string file;
    std::string output;
    std::optional<double> from;
    std::optional<double> to;
    std::optional<std::uint64_t> most;
    std::optional<std::string> csv;
    std::optional<std::uint64_t> frame;
    std::optional<std::uint64_t> png;
};

template <typename Number>
std::optional<Number> numberIn(const std::string& text) {
    Number number{};
    const auto* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end) return std::nullopt;
    return number;
}

std::optional<std::string> given(const po::variables_map& map, const char* name) {
    if (map.count(name) == 0) return std::nullopt;
    return map[name].as<std::string>();
}

std::optional<double> secondsOf(const po::variables_map& map, const char* name) {
    const auto text = given(map, name);
    if (!text) return std::nullopt;
    constexpr double kMost = 1e9;
    const auto number = numberIn<double>(*text);
    if (number && *number >= 0 && *number <= kMost) return number;
    throw WrongOption(std::string("--") + name + ": what is wanted is seconds, not '" + *text +
                      "'");
}

std::optional<std::uint64_t> frameOf(const po::variables_map& map, const char* name) {
    const auto text = given(map, name);
    if (!text) return std::nullopt;
    if (const auto number = numberIn<std::uint64_t>(*text)) return number;
    throw WrongOption(std::string("--") + name + ": what is wanted is a frame's number, not '" +
                      *text + "'");
}

std::optional<std::uint64_t> sizeOf(const po::variables_map& map) {
    auto text = given(map, "most");
    if (!text) return std::nullopt;
    std::uint64_t unit = 1;
    auto digits = *text;
    if (const auto place = std::string("kMG").find(digits.empty() ? ' ' : digits.back());
        place != std::string::npos) {
        constexpr std::uint64_t kThousand = 1000;
        for (std::size_t i = 0; i <= place; ++i) unit *= kThousand;
        digits.pop_back();
    }
    constexpr std::uint64_t kMost = std::uint64_t{1} << 40U;
    const auto number = numberIn<std::uint64_t>(digits);
    if (number && *number > 0 && *number <= kMost / unit) return *number * unit;
    throw WrongOption("--most: what is wanted is a size, as 500k or 5M, not '" + *text + "'");
}

/// Throws WrongOption for what does not go together.
void check(const Options& options) {
    const auto demand = [](bool isTrue, const char* what) {
        if (!isTrue) throw WrongOption(std::string(what) + "; see --help");
    };
    const bool isPage = !options.csv && !options.png;
    demand(!options.csv || !options.png, "--csv and --png are two things");
    demand(options.csv ? options.output.empty() : !options.output.empty(),
           options.csv ? "--csv names its folder: -o is for a page or a picture"
                       : "where it goes is missing: -o OUT");
    demand(isPage || (!options.from && !options.to && !options.most),
           "--from, --to and --most are for a page");
    demand(!options.frame || options.csv, "--frame is for --csv");
    demand(!options.to || *options.to >= options.from.value_or(0), "--to lies before --from");
}

Options optionsOf(int argc, const char* const* argv) {
    po::options_description described;
    auto add = described.add_options();
    add("help", "")("output,o", po::value<std::string>(), "");
    for (const char* name : {"from", "to", "most", "csv", "frame", "png"}) {
        add(name, po::value<std::string>(), "");
    }
    const auto map = parse(described, argc, argv);
    Options options;
    options.isHelp = map.count("help") != 0;
    if (options.isHelp) return options;
    const auto words = wordsOf(map);
    if (words.size() != 1) throw WrongOption("what is wanted is one file; see --help");
    options.file = words.front();
    options.output = given(map, "output").value_or("");
    options.from = secondsOf(map, "from");
    options.to = secondsOf(map, "to");
    options.most = sizeOf(map);
    options.csv = given(map, "csv");
    options.frame = frameOf(map, "frame");
    options.png = frameOf(map, "png");
    check(options);
    return options;
}

constexpr double kSecond = 1e9;  // nanoseconds

std::uint64_t momentAt(const Recording& run, double seconds) {
    return run.begin() + static_cast<std::uint64_t>(std::llround(seconds * kSecond));
}

/// The recording as far as it goes into the page.
Cut recordingFor(const Recording& run, const Options& options, const Range& range) {
    const auto most = options.most ? roomInFile(*options.most) : kMostInPage;
    try {
        return cut(run, range, most);
    } catch (const TooLarge&) {
        if (!options.most) {
            throw std::runtime_error(
                options.file +
                (options.png ? ": that frame takes more than the 256 MiB that a page can hold"
                             : ": more than the 256 MiB that a page can hold; what helps is "
                               "--from and --to, or --most"));
        }
    }
    try {
        return thinned(run, range, most);
    } catch (const TooLarge&) {
        throw std::runtime_error(options.file + ": the page with a single frame takes more than " +
                                 std::to_string(*options.most) + " bytes");
    }
}

/// `name`: what errors call it.
std::uint64_t writePage(const std::string& path, const std::string& name, const Cut& recording,
                        std::uint64_t from) {
    FileSink sink(path, name);
    const auto at = from > recording.begin ? from - recording.begin : 0;
    writeSingleFile(sink, recording.bytes, static_cast<double>(at) / kSecond);
    sink.close();
    return std::filesystem::file_size(path);
}

Status makePage(const Recording& run, const Options& options) {
    Range range;
    range.from = momentAt(run, options.from.value_or(0));
    if (options.to) range.to = momentAt(run, *options.to);
    if (range.from > run.end()) {
        throw std::runtime_error(
            options.file + ": --from lies behind the end, " +
            std::to_string(static_cast<double>(run.end() - run.begin()) / kSecond) + " s");
    }
    const auto recording = recordingFor(run, options, range);
    Draft draft(options.output);
    const auto size =
        writePage(draft.path(), options.output, recording, options.from ? range.from : 0);
    draft.keep();
    // What stood on the screen all the time may be a snapshot alone.
    const auto frames =
        recording.frames == 0 ? "a snapshot" : std::to_string(recording.frames) + " frames";
    print(options.output + ": " + frames + ", " + std::to_string(size) + " bytes" +
          (recording.isThinned ? ", key frames alone" : "") + '\n');
    return kGood;
}

Status makeTables(const Recording& run, const Options& options) {
    const auto tables = tablesAt(run, run.timeOf(options.frame));
    Draft draft(*options.csv, Draft::Kind::kFolder);
    for (const auto& [name, text] : tables) {
        FileSink sink(draft.path() + '/' + name, *options.csv + '/' + name);
        sink.write(text);
        sink.close();
    }
    draft.keep();
    print(*options.csv + ": " + std::to_string(tables.size()) + " tables\n");
    return kGood;
}

Status makePicture(const Recording& run, const Options& options) {
    const auto browser = findBrowser();
    const auto time = run.timeOf(options.png);
    const auto recording = recordingFor(run, options, {time, time});
    // By its name a browser knows what it is.
    const Draft folder(options.output, Draft::Kind::kFolder);
    const auto page = std::filesystem::absolute(folder.path() + "/page.html").string();
    writePage(page, page, recording, time);
    const auto picture = screenshotOf(browser, page, *options.png, folder.path());
    Draft draft(options.output);
    FileSink sink(draft.path(), options.output);
    sink.write(picture);
    sink.close();
    draft.keep();
    print(options.output + ": frame " + std::to_string(*options.png) + '\n');
    return kGood;
}

Status run(int argc, const char* const* argv) {
    const Options options = optionsOf(argc, argv);
    if (options.isHelp) {
        print(kHelp);
        return kGood;
    }
    std::error_code none;
    if (std::filesystem::equivalent(options.file, options.output, none)) {
        throw WrongOption(options.output + " is the recording itself");
    }
    const FileSource source(options.file);
    const Recording recorded(source);
    if (options.csv) return makeTables(recorded, options);
    return options.png ? makePicture(recorded, options) : makePage(recorded, options);
}

}  // namespace

int main(int argc, char** argv) {
    // A browser that ends early is an error like others.
    std::signal(SIGPIPE, SIG_IGN);
    return runProgram("kiroweb-export", [&] {
        const Interruption interruption;
        return run(argc, argv);
    });
}
