#include "AccessPolicy.hpp"

#include <algorithm>
#include <utility>

#include "checked/Require.hpp"
#include "served/Host.hpp"

namespace kirogateway {
namespace {

using served::isClean;

/// A host is no secret: an ordinary comparison will do.
bool isOneOf(std::string_view text, const std::vector<std::string>& allowed) {
    return std::ranges::find(allowed, text) != allowed.end();
}

std::vector<std::string> hostsOf(const Options& options, std::uint16_t port) {
    std::vector<std::string> names{served::hostOfUrl(options.address)};
    if (options.address == "127.0.0.1" || options.address == "::1") {
        names = {names.front(), "localhost", "127.0.0.1", "[::1]"};
    }
    const bool isDefaultPort = port == (options.certificateFile.empty() ? 80 : 443);
    std::vector<std::string> hosts;
    for (const auto& name : names) {
        hosts.push_back(name + ":" + std::to_string(port));
        if (isDefaultPort) hosts.push_back(name);
    }
    // Nobody reaches all addresses at once by one: links name the host that was given instead.
    const bool isAll = options.address == "0.0.0.0" || options.address == "::";
    hosts.insert(isAll ? hosts.begin() : hosts.end(), options.extraHosts.begin(),
                 options.extraHosts.end());
    return hosts;
}

Admission movedTo(unsigned status, std::string location) {
    Admission admission{status};
    admission.location = std::move(location);
    return admission;
}

/// `refusal`: why not, if an engine has been reached.
Admission notYet(std::string_view refusal = {}) {
    Admission admission{503, "no engine has been reached that takes this token"};
    admission.logged = refusal;
    admission.comesLater = true;
    return admission;
}

}  // namespace

bool awaitsBody(const Request& request) noexcept {
    return request.method == "POST" && request.target == kTokenPath && !request.isEncoded &&
           request.bodySize > 0 && request.bodySize <= kMaxBody;
}

AccessPolicy::AccessPolicy(const Options& options, std::uint16_t port, Entrance entrance)
    : fEntrance(std::move(entrance)),
      fIsSecure(fEntrance.origin.empty() ? !options.certificateFile.empty()
                                         : fEntrance.origin.starts_with("https:")),
      fAddress(fEntrance.origin),
      fFrameAncestors(options.frameAncestors.empty() ? "'none'" : "") {
    if (fAddress.empty()) {
        fHosts = hostsOf(options, port);
        const std::string scheme = fIsSecure ? "https://" : "http://";
        fAddress = scheme + fHosts.front();
        for (const auto& host : fHosts) fOrigins.push_back(scheme + host);
        fOrigins.insert(fOrigins.end(), options.extraOrigins.begin(), options.extraOrigins.end());
    } else {
        fHosts = {hostOf(fAddress)};
        fOrigins = {fAddress};
    }
    for (const auto& origin : options.frameAncestors) fFrameAncestors += origin + ' ';
    for (const auto& origin : fEntrance.others) {
        fOrigins.push_back(origin);
        fSockets += ' ' + socketOf(origin);
    }
}

Admission AccessPolicy::decide(const Request& request, TimePoint now) {
    // The host first: a name that is not ours was made to point here by somebody else.
    if (auto refusal = refuseHost(request)) return *refusal;
    if (request.isEncoded) return {400, "a Transfer-Encoding is not expected"};
    const bool isBare = !request.site.empty() && request.target.empty();
    if (!isBare && !isClean(request.target)) return {400, "malformed target"};
    if (request.target == kTokenPath) return decideExchange(request, now);
    if (request.bodySize > 0) return {400, "a body is not expected"};
    // A page names its files from where it is: without the slash that is one place further up.
    if (isBare || (!request.site.empty() && request.target.front() == '?')) {
        return movedTo(308, std::string(request.site) + "/" + std::string(request.target));
    }
    if (request.method != "GET" && request.method != "HEAD") {
        return {405, "method not allowed", {}, kPlainText, "GET, HEAD"};
    }
    if (!fEntrance.movedTo.empty()) return redirect(request);
    if (request.target == kSocketPath) return decideUpgrade(request);
    return serve(request);
}

Admission AccessPolicy::redirect(const Request& request) const {
    if (request.target.substr(0, request.target.find('?')) != "/") {
        return {404, "the page is elsewhere"};
    }
    return movedTo(302, fEntrance.movedTo);
}

Admission AccessPolicy::serve(const Request& request) const {
    const auto path = request.target.substr(0, request.target.find('?'));
    const auto found = fEntrance.assets->find(path, request.takesGzip);
    if (!found) return {404, "no such asset"};
    Admission admission{200, {}, found->body, found->contentType};
    admission.isGzip = found->isGzip;
    admission.variesByEncoding = found->variesByEncoding;
    admission.assets = fEntrance.assets;
    admission.comesLater = fEntrance.secrets == nullptr || fEntrance.isDiscreet;
    return admission;
}

std::optional<Admission> AccessPolicy::refuseHost(const Request& request) const {
    if (request.hosts.size() != 1) return Admission{400, "one Host is needed"};
    if (!isClean(request.hosts.front())) return Admission{400, "malformed Host"};
    if (!isOneOf(request.hosts.front(), fHosts)) return Admission{403, "foreign Host"};
    return std::nullopt;
}

std::optional<Admission> AccessPolicy::refuseOrigin(const Request& request) const {
    if (request.origins.size() > 1) return Admission{400, "several Origins"};
    if (request.origins.empty()) return Admission{403, "no Origin"};
    if (!isClean(request.origins.front())) return Admission{400, "malformed Origin"};
    if (!isOneOf(request.origins.front(), fOrigins)) return Admission{403, "foreign Origin"};
    return std::nullopt;
}

std::optional<Admission> AccessPolicy::refuseToken(const Request& request) const {
    // One offer only: several would be as many guesses.
    std::optional<std::string_view> token;
    for (const auto offer : request.subprotocols) {
        if (!offer.starts_with(kTokenOffer)) continue;
        if (token) return Admission{400, "several tokens"};
        token = offer.substr(kTokenOffer.size());
    }
    if (!token) return Admission{403, "no token"};
    if (!fEntrance.secrets->isToken(*token)) return Admission{403, "wrong token"};
    return std::nullopt;
}

Admission AccessPolicy::decideUpgrade(const Request& request) const {
    if (request.method != "GET" || !request.isUpgrade) return {400, "not a WebSocket upgrade"};
    if (auto refusal = refuseOrigin(request)) return *refusal;
    if (fEntrance.secrets == nullptr) return notYet();
    if (auto refusal = refuseToken(request)) {
        return fEntrance.isDiscreet ? notYet(refusal->reason) : *refusal;
    }
    if (std::ranges::find(request.subprotocols, kSubprotocol) == request.subprotocols.end()) {
        return {400, "subprotocol kiroweb.v1 not offered"};
    }
    return {101};
}

Admission AccessPolicy::decideExchange(const Request& request, TimePoint now) {
    // Anything but a POST is what a link preview or a cache sends: it must not use up a code.
    if (request.method != "POST") return {405, "method not allowed", {}, kPlainText, "POST"};
    if (request.bodySize > kMaxBody) return {413, "body too large"};
    if (auto refusal = refuseOrigin(request)) return *refusal;
    if (fEntrance.secrets == nullptr || fEntrance.isDiscreet) {
        return notYet("a code, which this site does not exchange");
    }
    if (request.bodySize == 0) return {400, "a code is expected"};
    KIROWEB_REQUIRE(request.body.size() == request.bodySize);
    auto& secrets = *fEntrance.secrets;
    if (!secrets.useCode(request.body, now)) return {403, "wrong or used code"};
    return {200, {}, secrets.token()};
}

std::string AccessPolicy::commonFields(std::string_view host) const {
    // Old browsers do not count ws: as 'self'.
    std::string connect = "'self'";
    if (!host.empty()) connect += (fIsSecure ? " wss://" : " ws://") + std::string(host) + fSockets;
    return served::securityFields(connect, fFrameAncestors);
}

}  // namespace kirogateway
