#include "Door.hpp"

#include <algorithm>

namespace kirogateway {
namespace {

/// Of the same length or not, a host is no secret: an ordinary comparison will do.
bool isOneOf(std::string_view text, const std::vector<std::string>& allowed) {
    return std::ranges::find(allowed, text) != allowed.end();
}

bool isClean(std::string_view text) {
    return !text.empty() && std::ranges::all_of(text, [](char c) { return c > 0x20 && c < 0x7f; });
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

std::vector<std::string> hostsOf(const Options& options, std::uint16_t port) {
    std::vector<std::string> names{options.address.find(':') == std::string::npos
                                       ? options.address
                                       : "[" + options.address + "]"};
    if (options.address == "127.0.0.1" || options.address == "::1") {
        names = {names.front(), "localhost", "127.0.0.1", "[::1]"};
    }
    const bool isDefaultPort = port == (options.certificateFile.empty() ? 80 : 443);
    std::vector<std::string> hosts;
    for (const auto& name : names) {
        hosts.push_back(name + ":" + std::to_string(port));
        if (isDefaultPort) hosts.push_back(name);
    }
    hosts.insert(hosts.end(), options.extraHosts.begin(), options.extraHosts.end());
    return hosts;
}

}  // namespace

Door::Door(const Options& options, std::uint16_t port, Secrets& secrets)
    : fSecrets(secrets),
      fIsSecure(!options.certificateFile.empty()),
      fCookieName("kiroweb-" + std::to_string(port)),
      fHosts(hostsOf(options, port)) {
    const std::string scheme = fIsSecure ? "https://" : "http://";
    fAddress = scheme + fHosts.front();
    for (const auto& host : fHosts) fOrigins.push_back(scheme + host);
    fOrigins.insert(fOrigins.end(), options.extraOrigins.begin(), options.extraOrigins.end());
    for (const auto& asset : options.assets) fAssets.emplace(asset.name, &asset);
}

Verdict Door::decide(const Knock& knock, TimePoint now) {
    // The host first: a name that is not ours was made to point here by somebody else.
    if (knock.hosts.size() != 1) return {400, "one Host is needed"};
    if (!isClean(knock.hosts.front())) return {400, "malformed Host"};
    if (!isOneOf(knock.hosts.front(), fHosts)) return {403, "foreign Host"};
    if (knock.hasBody) return {400, "a body is not expected"};
    if (!knock.target.starts_with('/') || !isClean(knock.target)) return {400, "malformed target"};
    if (knock.method != "GET" && knock.method != "HEAD") return {405, "method not allowed"};
    if (knock.target == kSocketPath) return decideUpgrade(knock);

    const auto question = knock.target.find('?');
    const auto path = knock.target.substr(0, question);
    const auto query =
        question == std::string_view::npos ? std::string_view() : knock.target.substr(question + 1);
    if (path == "/" && (query.starts_with("token=") || query.starts_with("code="))) {
        // Anything but a GET would use up a code, or say whether a token is right, for nothing.
        if (knock.method != "GET") return {405, "method not allowed"};
        return decideExchange(query, now);
    }
    const auto asset = fAssets.find(path);
    if (asset == fAssets.end()) return {404, "no such asset"};
    return {200, {}, asset->second};
}

Verdict Door::decideUpgrade(const Knock& knock) const {
    if (knock.method != "GET" || !knock.isUpgrade) return {400, "not a WebSocket upgrade"};
    if (knock.origins.size() > 1) return {400, "several Origins"};
    if (knock.origins.empty()) return {403, "no Origin"};
    if (!isClean(knock.origins.front())) return {400, "malformed Origin"};
    if (!isOneOf(knock.origins.front(), fOrigins)) return {403, "foreign Origin"};
    if (!hasCookie(knock.cookies)) return {403, "no valid cookie"};
    if (!knock.offersSubprotocol) return {400, "subprotocol kiroweb.v1 not offered"};
    return {101, {}};
}

Verdict Door::decideExchange(std::string_view query, TimePoint now) {
    const auto given = query.substr(query.find('=') + 1);
    const bool isGood =
        query.starts_with("token=") ? fSecrets.isToken(given) : fSecrets.useCode(given, now);
    if (!isGood) return {403, "wrong token or code"};
    std::string cookie =
        fCookieName + "=" + fSecrets.cookie() + "; HttpOnly; SameSite=Strict; Path=/";
    if (fIsSecure) cookie += "; Secure";
    return {303, {}, nullptr, std::move(cookie)};
}

bool Door::hasCookie(const std::vector<std::string_view>& fields) const {
    for (auto field : fields) {
        while (!field.empty()) {
            const auto end = std::min(field.find(';'), field.size());
            const auto pair = trimmed(field.substr(0, end));
            const auto equals = pair.find('=');
            if (equals != std::string_view::npos && pair.substr(0, equals) == fCookieName &&
                fSecrets.isCookie(pair.substr(equals + 1))) {
                return true;
            }
            field.remove_prefix(std::min(end + 1, field.size()));
        }
    }
    return false;
}

std::string Door::commonFields(std::string_view host) const {
    // Old browsers do not count ws: as 'self'.
    std::string connect = "'self'";
    if (!host.empty()) connect += (fIsSecure ? " wss://" : " ws://") + std::string(host);
    return "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; "
           "img-src 'self' data: blob:; font-src 'self'; connect-src " +
           connect +
           "; base-uri 'none'; form-action 'none'; frame-ancestors 'none'\r\n"
           "Referrer-Policy: no-referrer\r\n"
           "X-Content-Type-Options: nosniff\r\n"
           "Cross-Origin-Resource-Policy: same-origin\r\n"
           "Cross-Origin-Opener-Policy: same-origin\r\n"
           "Cache-Control: no-store\r\n";
}

}  // namespace kirogateway
