#include "Access.hpp"

#include <algorithm>
#include <utility>

#include "ByteRange.hpp"
#include "PageFiles.hpp"

namespace recording_tool {

namespace {

constexpr std::chrono::seconds kCodeLife{60};
constexpr std::string_view kBearer = "Bearer ";

std::vector<std::string> hostsOf(std::uint16_t port) {
    std::vector<std::string> hosts;
    for (const std::string name : {"127.0.0.1", "localhost"}) {
        hosts.push_back(name + ':' + std::to_string(port));
        constexpr std::uint16_t kHttp = 80;
        if (port == kHttp) hosts.push_back(name);
    }
    return hosts;
}

/// The page's file at `target`, whatever query it has; nothing if there is none.
std::optional<Answer> pageAnswer(std::string_view target) {
    const auto path = target.substr(0, target.find('?'));
    const auto found = std::ranges::find(kiropage::files(), path, &kiropage::File::path);
    if (found == kiropage::files().end()) return std::nullopt;
    return Answer{200, found->body, {}, found->type};
}

}  // namespace

Access::Access(std::span<const ServedFile> recordings, std::uint16_t port)
    : fRecordings(recordings), fHosts(hostsOf(port)), fSecrets(kCodeLife) {}

Answer Access::decide(const Request& request, TimePoint now) {
    if (auto refused = refuse(request)) return *std::move(refused);
    if (request.target == served::kTokenPath) return exchange(request, now);
    if (!request.body.empty()) return {400, "a body is not expected\n"};
    if (request.method != "GET" && request.method != "HEAD") {
        return {405, "method not allowed\n", "Allow: GET, HEAD\r\n"};
    }
    if (auto page = pageAnswer(request.target)) return *std::move(page);
    return serveRecording(request);
}

std::optional<Answer> Access::refuse(const Request& request) const {
    if (request.isAmbiguous) return Answer{400, "ambiguous request\n"};
    // A name that is not ours was made to point here by somebody else.
    if (!request.host) return Answer{400, "one Host is needed\n"};
    if (std::ranges::find(fHosts, *request.host) == fHosts.end()) {
        return Answer{403, "foreign Host\n"};
    }
    if (!request.target.starts_with('/') || !served::isClean(request.target)) {
        return Answer{400, "malformed target\n"};
    }
    return std::nullopt;
}

std::optional<Answer> Access::refuseOrigin(const Request& request) const {
    const bool isOurs = std::ranges::any_of(
        fHosts, [&request](const std::string& host) { return request.origin == "http://" + host; });
    if (isOurs) return std::nullopt;
    return Answer{403, "foreign Origin\n"};
}

Answer Access::exchange(const Request& request, TimePoint now) {
    // Anything but a POST is what a link preview or a cache sends: it must not use up a code.
    if (request.method != "POST") return {405, "method not allowed\n", "Allow: POST\r\n"};
    if (auto refused = refuseOrigin(request)) return *std::move(refused);
    if (!fSecrets.useCode(request.body, now)) return {403, "wrong or used code\n"};
    return {200, fSecrets.token()};
}

Answer Access::serveRecording(const Request& request) const {
    // A browser names the origin in what it sends for another one's page.
    if (request.origin) {
        if (auto refused = refuseOrigin(request)) return *std::move(refused);
    }
    // Before the name: who has no token does not learn which there are.
    const auto token = request.authorization.value_or("");
    if (!token.starts_with(kBearer) || !fSecrets.isToken(token.substr(kBearer.size()))) {
        return {403, "not without the token of the link\n"};
    }
    const auto found = std::ranges::find(fRecordings, request.target.substr(1), &ServedFile::name);
    if (found == fRecordings.end()) return {404, "no such recording\n"};
    const auto whole = found->source->size();
    const auto range = byteRange(request.range.value_or(""), whole);
    if (!range) return {400, "one range of bytes is needed\n"};
    const auto ofWhole = '/' + std::to_string(whole) + "\r\n";
    if (range->size == 0) {
        return {416, "none of it is there\n", "Content-Range: bytes *" + ofWhole};
    }
    const auto size = std::min(range->size, kMostAtOnce);
    auto fields = "Accept-Ranges: bytes\r\nContent-Range: bytes " + std::to_string(range->offset) +
                  '-' + std::to_string(range->offset + size - 1) + ofWhole;
    constexpr std::string_view kType = "application/octet-stream";
    return {206, {}, std::move(fields), kType, found->source.get(), range->offset, size};
}

std::string Access::linkWith(const std::string& secret) const {
    std::string text = "http://" + fHosts.front() + "/#" + secret + "&replay=";
    for (const auto& recording : fRecordings) text += recording.name + ',';
    text.pop_back();
    return text;
}

std::string Access::link() const { return linkWith("token=" + fSecrets.token()); }

std::string Access::singleUseLink(TimePoint now) {
    return linkWith("code=" + fSecrets.makeCode(now));
}

std::string Access::commonFields() { return served::securityFields("'self'", "'none'"); }

}  // namespace recording_tool
