#include "OptionsCheck.hpp"

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <boost/json/stream_parser.hpp>
#include <map>
#include <stdexcept>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "AccessPolicy.hpp"
#include "text/ChannelPattern.hpp"
#include "text/Escape.hpp"

namespace kirogateway {
namespace {

using std::chrono::milliseconds;
using namespace std::string_literals;

struct Size {
    const char* name;
    std::size_t Limits::*member;
};

struct Time {
    const char* name;
    milliseconds Limits::*member;
};

constexpr Size kSizes[] = {
    {"headerSize", &Limits::headerSize},
    {"messageSize", &Limits::messageSize},
    {"namesPerFrame", &Limits::namesPerFrame},
    {"undelivered", &Limits::undelivered},
    {"readRate", &Limits::readRate},
    {"connections", &Limits::connections},
    {"unauthenticatedConnections", &Limits::unauthenticatedConnections},
    {"subscriptions", &Limits::subscriptions},
    {"queueSize", &Limits::queueSize},
    {"memory", &Limits::memory},
    {"lostViews", &Limits::lostViews},
    {"lostMemory", &Limits::lostMemory},
    {"blocksUnderWay", &Limits::blocksUnderWay},
    {"bytesUnderWay", &Limits::bytesUnderWay},
    {"pieceSize", &Limits::pieceSize},
    {"batchSize", &Limits::batchSize},
};

/// A page's hello, which comes before it knows the limits, takes what the module says in one, and
/// so does what it tells of a script error.
constexpr std::size_t kLeastMessage = 64 * kKiB;
constexpr std::size_t kLeastNames = 1024;

constexpr Time kTimes[] = {
    {"request", &Limits::request},   {"hello", &Limits::hello}, {"queue", &Limits::queue},
    {"block", &Limits::block},       {"ping", &Limits::ping},   {"gone", &Limits::gone},
    {"comeback", &Limits::comeback}, {"close", &Limits::close}, {"code", &Limits::code},
};

static_assert(sizeof(Limits) == std::size(kSizes) * sizeof(std::size_t) +
                                    std::size(kTimes) * sizeof(milliseconds),
              "a limit is not checked");

/// What is added to the time of day must not overflow it.
constexpr milliseconds kLongestTime = std::chrono::hours(24 * 366);
/// The parser of requests counts a header's bytes in 32 bits.
constexpr std::size_t kLargestHeader = 0xffff'ffff;
/// Each is looked at every now and then, and each view that comes copies the list of them.
constexpr std::size_t kMostLostViews = 10'000;

[[noreturn]] void refuse(const std::string& what) { throw std::invalid_argument(what); }

std::string quoted(std::string_view text) { return '"' + text::escaped(text) + '"'; }

void checkLimits(const Limits& limits) {
    for (const auto& [name, member] : kSizes) {
        if (limits.*member == 0) refuse("limits."s + name + " is 0: it has to be at least 1");
    }
    for (const auto& [name, member] : kTimes) {
        const auto value = limits.*member;
        if (value.count() > 0 && value <= kLongestTime) continue;
        refuse("limits."s + name + " is " + std::to_string(value.count()) +
               " ms: it has to be from 1 ms to a year");
    }
    const auto demandLeast = [](const char* name, std::size_t size, std::size_t least) {
        if (size >= least) return;
        refuse("limits."s + name + " is " + std::to_string(size) + ": it has to be at least " +
               std::to_string(least));
    };
    demandLeast("messageSize", limits.messageSize, kLeastMessage);
    demandLeast("namesPerFrame", limits.namesPerFrame, kLeastNames);
    if (limits.lostViews > kMostLostViews) {
        refuse("limits.lostViews: it has to be at most " + std::to_string(kMostLostViews));
    }
    if (limits.headerSize > kLargestHeader) refuse("limits.headerSize: it has to be below 4 GiB");
}

void checkConfiguration(const std::string& text) {
    boost::json::stream_parser parser;
    boost::json::error_code error;
    const auto read = parser.write_some(text, error);
    if (!error && read == text.size()) parser.finish(error);
    if (error) {
        refuse("configuration: not JSON at byte " + std::to_string(read) + ", " + error.message());
    }
    if (read < text.size()) {
        refuse("configuration: something follows the JSON object at byte " + std::to_string(read));
    }
    if (!parser.release().is_object()) {
        refuse("configuration: not a JSON object; {} is an empty one");
    }
}

/// Whether `path` can stand in a request as it is: the gateway does not decode it.
bool isPath(std::string_view path) {
    return std::ranges::all_of(path,
                               [](char c) { return c > 0x20 && c < 0x7f && c != '?' && c != '#'; });
}

void checkAssets(const std::vector<Asset>& assets) {
    std::unordered_set<std::string_view> names;
    for (const auto& [name, contentType, body] : assets) {
        const auto which = "assets: the name " + quoted(name);
        if (!name.starts_with('/')) refuse(which + " has to begin with \"/\"");
        if (!isPath(name))
            refuse(which + " cannot stand in an address; give it as it stands there");
        if (name == kSocketPath || name == kTokenPath) {
            refuse(which + " is the gateway's own; choose another");
        }
        if (!names.insert(name).second) refuse(which + " is given twice; leave one out");
        if (contentType.find_first_of("\r\n") != std::string::npos) {
            refuse(which + " has a content type with a line end; take that out");
        }
    }
}

void requireOrigin(const char* option, const std::string& origin) {
    const auto host = origin.find("://");
    if (host != std::string::npos && host > 0 && host + 3 < origin.size() &&
        origin.find('/', host + 3) == std::string::npos) {
        return;
    }
    refuse(std::string(option) + ": " + quoted(origin) +
           " is no origin; give scheme, host and port, such as \"http://localhost:5173\"");
}

void checkNames(const Options& options) {
    for (const auto& host : options.extraHosts) {
        if (!host.empty() && host.find('/') == std::string::npos) continue;
        refuse("extraHosts: " + quoted(host) +
               " is no host; give it as a request names it, such as \"plot.example:8080\"");
    }
    for (const auto& origin : options.extraOrigins) requireOrigin("extraOrigins", origin);
    for (const auto& origin : options.frameAncestors) {
        requireOrigin("frameAncestors", origin);
        // It stands in a header's list, where these have a meaning.
        if (isPath(origin) && origin.find_first_of(";,") == std::string::npos) continue;
        refuse("frameAncestors: " + quoted(origin) + " cannot stand in a header");
    }
}

void checkToken(const std::string& token) {
    constexpr std::size_t kShortest = 32;
    if (token.empty()) return;
    const bool isText = std::ranges::all_of(token, [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    });
    // What it is stays out of the text, which may be logged.
    if (!isText) refuse("token: it has to be letters and digits");
    if (token.size() < kShortest) refuse("token: it has to have at least 32 letters and digits");
}

void checkChannels(const Options& options) {
    const std::pair<const char*, const std::string&> single[] = {
        {"newViewChannel", options.newViewChannel}, {"reconnectChannel", options.reconnectChannel}};
    for (const auto& [name, channel] : single) {
        if (!channels::isWildcard(channel)) continue;
        refuse(name + (": " + quoted(channel)) + " are many channels; give a single one");
    }
    std::map<std::string_view, std::size_t> lanes;
    for (std::size_t lane = 0; lane < options.lanes.size(); ++lane) {
        for (const auto& channel : options.lanes[lane]) {
            if (lanes.emplace(channel, lane).first->second == lane) continue;
            refuse("lanes: the channel " + quoted(channel) + " is in two groups; leave one out");
        }
    }
}

}  // namespace

Options checked(Options options) {
    boost::system::error_code error;
    static_cast<void>(boost::asio::ip::make_address(options.address, error));
    if (error) {
        refuse("address: " + quoted(options.address) +
               R"( is not numeric; give one such as "127.0.0.1" or "::1")");
    }
    if (options.certificateFile.empty() != options.keyFile.empty()) {
        const bool hasKey = options.certificateFile.empty();
        refuse(hasKey
                   ? "keyFile: " + quoted(options.keyFile) + " needs its certificateFile"
                   : "certificateFile: " + quoted(options.certificateFile) + " needs its keyFile");
    }
    checkLimits(options.limits);
    checkConfiguration(options.configuration);
    checkAssets(options.assets);
    checkNames(options);
    checkToken(options.token);
    checkChannels(options);
    return options;
}

}  // namespace kirogateway
