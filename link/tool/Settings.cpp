#include "Settings.hpp"

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/program_options.hpp>
#include <fstream>
#include <limits>

#include "Endpoint.hpp"
#include "Subjects.hpp"
#include "text/Escape.hpp"

namespace link_tool {
namespace {

namespace po = boost::program_options;

constexpr const char* kKeys[] = {
    "name",         "address",       "port",       "tls",
    "certificate",  "key",           "public",     "gateways",
    "servers",      "credentials",   "ca",         "cluster-tls",
    "sessions",     "pages",         "memory",     "status-address",
    "status-port",  "session-pages", "all-memory", "page-size",
    "message-size",
};

constexpr const char* kHelp =
    R"(  name            this gateway's name in the cluster, 1 to 64 of A-Z a-z 0-9 _ - (needed)
  servers         the cluster's nodes, HOST:PORT with commas between (needed)
  credentials     file with the user's name and password, for its owner alone to read
  ca              PEM file: who signed the nodes' certificates
  cluster-tls     off: nodes on this machine are spoken to in the clear (on)
  address         numeric address to listen on for pages (127.0.0.1)
  port            port for pages, 0 for a free one (8443)
  certificate     PEM file, the chain of this gateway's certificate
  key             PEM file with its key, without a passphrase
  tls             off: no certificate; on a loopback address only (on)
  public          where browsers find this gateway, https://HOST:PORT (address and port)
  gateways        the same of the other gateways, with commas between; pages go there when they
                  lose this one
  sessions        how many are followed at a time (100)
  pages           how many are connected at a time (1000)
  session-pages   how many of one session (half of pages)
  memory          MiB that may wait for the pages of one session (1024)
  all-memory      MiB that may wait for the pages of all sessions (4096); beyond it pages of the
                  session with most have to go
  page-size       MiB that a page may have that an engine brings, 0: none is served (4); public
                  needs a host's name for it, and the certificate that of each session before it
  message-size    MiB that one text or block of an engine's may have (256)
  status-address  numeric address for /healthz and /metrics (127.0.0.1)
  status-port     port for them (a free one)
)";

/// What the file says, by key.
class Values {
  public:
    Values(std::istream& lines, std::string source) : fSource(std::move(source)) {
        po::options_description keys;
        for (const auto* key : kKeys) keys.add_options()(key, po::value<std::string>(), "");
        try {
            po::store(po::parse_config_file(lines, keys), fMap);
        } catch (const po::error& error) {
            throw WrongSetting(fSource + ": " + text::escaped(error.what()));
        }
    }

    [[nodiscard]] bool has(const char* key) const { return fMap.count(key) != 0; }
    [[nodiscard]] std::string text(const char* key, std::string otherwise = {}) const {
        return has(key) ? fMap[key].as<std::string>() : otherwise;
    }
    [[nodiscard]] std::vector<std::string> list(const char* key) const {
        std::vector<std::string> parts;
        if (!has(key)) return parts;
        boost::split(parts, text(key), boost::is_any_of(","));
        for (auto& part : parts) boost::trim(part);
        return parts;
    }
    [[nodiscard]] std::size_t number(const char* key, std::size_t least, std::size_t most,
                                     std::size_t otherwise) const {
        if (!has(key)) return otherwise;
        const auto given = text(key);
        constexpr std::size_t kDigits = 9;
        const bool isNumber = !given.empty() && given.size() <= kDigits &&
                              given.find_first_not_of("0123456789") == std::string::npos;
        const auto value = isNumber ? std::stoul(given) : std::numeric_limits<std::size_t>::max();
        if (value >= least && value <= most) return value;
        refuse(key, "it has to be a number from " + std::to_string(least) + " to " +
                        std::to_string(most));
    }
    [[nodiscard]] bool isOn(const char* key) const {
        const auto given = text(key, "on");
        if (given != "on" && given != "off") refuse(key, "it has to be on or off");
        return given == "on";
    }
    [[noreturn]] void refuse(const char* key, const std::string& why) const {
        const auto given = has(key) ? " = " + text::escaped(text(key)) : std::string();
        throw WrongSetting(fSource + ": " + key + given + ": " + why);
    }

  private:
    const std::string fSource;
    po::variables_map fMap;
};

/// Whether `text` is "https://HOST" or "https://HOST:PORT", or the same with http.
bool isOrigin(const std::string& text) {
    const auto slashes = text.find("://");
    const bool isWeb = text.starts_with("https://") || text.starts_with("http://");
    if (!isWeb || slashes == std::string::npos) return false;
    const auto host = text.substr(slashes + 3);
    const auto isOfHost = [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
               std::string_view(".-:[]").find(c) != std::string_view::npos;
    };
    return !host.empty() && std::ranges::all_of(host, isOfHost);
}

constexpr const char* kOrigin = "it has to be https://HOST:PORT in small letters, without a path";

std::string numericAddress(const Values& values, const char* key) {
    auto address = values.text(key, "127.0.0.1");
    boost::system::error_code error;
    static_cast<void>(boost::asio::ip::make_address(address, error));
    if (error) values.refuse(key, "it has to be numeric, such as 127.0.0.1 or ::1");
    return address;
}

void readTls(const Values& values, Settings& settings) {
    if (!values.isOn("tls")) {
        for (const auto* key : {"certificate", "key"}) {
            if (values.has(key)) values.refuse(key, "it is not used, since tls = off");
        }
        if (boost::asio::ip::make_address(settings.address).is_loopback()) return;
        values.refuse("tls",
                      "pages and their token would go in the clear; that is for a loopback "
                      "address only");
    }
    settings.certificateFile = values.text("certificate");
    settings.keyFile = values.text("key");
    for (const auto* key : {"certificate", "key"}) {
        if (values.text(key).empty()) {
            values.refuse(key, "a file is needed; on a loopback address tls = off does without");
        }
    }
    kirogateway::Options options;
    options.certificateFile = settings.certificateFile;
    options.keyFile = settings.keyFile;
    for (const auto* key : {"certificate", "key"}) {
        if (!std::ifstream(values.text(key))) values.refuse(key, "the file cannot be read");
    }
    try {
        static_cast<void>(kirogateway::tlsOf(options));
    } catch (const std::exception& error) {
        values.refuse("certificate", error.what());
    }
}

void readCluster(const Values& values, Settings& settings) {
    auto& cluster = settings.cluster;
    cluster.servers = values.list("servers");
    const auto isEmpty = [](const std::string& server) { return server.empty(); };
    if (cluster.servers.empty() || std::ranges::any_of(cluster.servers, isEmpty)) {
        values.refuse("servers", "the cluster's nodes are needed, HOST:PORT with commas between");
    }
    cluster.credentialsFile = values.text("credentials");
    cluster.caFile = values.text("ca");
    cluster.isPlainAllowed = !values.isOn("cluster-tls");
    cluster.name = "gateway-" + settings.name;
    cluster.inboxPrefix = "_INBOX.gateway-" + settings.name;
}

}  // namespace

Settings readSettings(std::istream& lines, const std::string& source) {
    const Values values(lines, source);
    constexpr std::size_t kMostPort = std::numeric_limits<std::uint16_t>::max();
    constexpr std::size_t kMost = 100000;
    Settings settings;
    settings.name = values.text("name");
    if (!kirolink::subjects::isName(settings.name)) {
        values.refuse("name", "it has to be 1 to 64 of A-Z a-z 0-9 _ -");
    }
    settings.address = numericAddress(values, "address");
    settings.port = static_cast<std::uint16_t>(values.number("port", 0, kMostPort, settings.port));
    readTls(values, settings);
    settings.publicAddress = values.text("public");
    if (values.has("public") && !isOrigin(settings.publicAddress)) values.refuse("public", kOrigin);
    settings.others = values.list("gateways");
    if (!std::ranges::all_of(settings.others, isOrigin)) values.refuse("gateways", kOrigin);
    readCluster(values, settings);
    settings.sessions = values.number("sessions", 1, kMost, settings.sessions);
    settings.pages = values.number("pages", 1, kMost, settings.pages);
    settings.sessionPages = values.number("session-pages", 1, kMost, 0);
    settings.memory = values.number("memory", 1, kMost, settings.memory >> 20U) << 20U;
    settings.allMemory = values.number("all-memory", 1, kMost, settings.allMemory >> 20U) << 20U;
    settings.pageSize =
        values.number("page-size", 0, settings.pageSize >> 20U, settings.pageSize >> 20U) << 20U;
    settings.largest = values.number("message-size", 1, kMost, settings.largest >> 20U) << 20U;
    settings.statusAddress = numericAddress(values, "status-address");
    settings.statusPort = static_cast<std::uint16_t>(values.number("status-port", 0, kMostPort, 0));
    return settings;
}

Settings readSettings(const std::string& file) {
    std::ifstream lines(file);
    if (!lines) throw WrongSetting(text::escaped(file) + ": the file cannot be read");
    return readSettings(lines, text::escaped(file));
}

const char* settingsHelp() noexcept { return kHelp; }

}  // namespace link_tool
