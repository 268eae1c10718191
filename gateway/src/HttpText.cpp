#include "HttpText.hpp"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/rfc7230.hpp>
#include <boost/beast/http/status.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <charconv>
#include <limits>
#include <stdexcept>

namespace kirogateway {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;

std::string_view viewOf(beast::string_view text) { return {text.data(), text.size()}; }

std::vector<std::string_view> valuesOf(const RequestMessage& message, http::field name) {
    std::vector<std::string_view> values;
    const auto range = message.equal_range(name);
    for (auto field = range.first; field != range.second; ++field) {
        values.push_back(viewOf(field->value()));
    }
    return values;
}

/// Whether `key` is 16 bytes in Base64. Of the last character before the padding two bits count.
bool isKey(std::string_view key) {
    constexpr std::size_t kFull = 21;
    const auto isDigit = [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
               c == '+' || c == '/';
    };
    return key.size() == kFull + 3 && std::ranges::all_of(key.substr(0, kFull), isDigit) &&
           std::string_view("AQgw").find(key[kFull]) != std::string_view::npos &&
           key.substr(kFull + 1) == "==";
}

/// All that the handshake needs, so that it cannot fail later.
bool isWholeUpgrade(const RequestMessage& message) {
    const auto versions = valuesOf(message, http::field::sec_websocket_version);
    const auto keys = valuesOf(message, http::field::sec_websocket_key);
    return beast::websocket::is_upgrade(message) && versions.size() == 1 &&
           versions.front() == "13" && keys.size() == 1 && isKey(keys.front());
}

std::vector<std::string_view> subprotocolsOf(const RequestMessage& message) {
    std::vector<std::string_view> offers;
    for (const auto field : valuesOf(message, http::field::sec_websocket_protocol)) {
        for (const auto offer : http::token_list(beast::string_view(field.data(), field.size()))) {
            offers.push_back(viewOf(offer));
        }
    }
    return offers;
}

/// Whether an answer may be in gzip, which a weight of 0 forbids.
bool takesGzip(const RequestMessage& message) {
    const auto isZero = [](beast::string_view weight) {
        return weight.starts_with('0') &&
               weight.find_first_not_of("0.") == beast::string_view::npos;
    };
    for (const auto field : valuesOf(message, http::field::accept_encoding)) {
        for (const auto& [name, parameters] :
             http::ext_list(beast::string_view(field.data(), field.size()))) {
            if (!beast::iequals(name, "gzip")) continue;
            return std::ranges::none_of(parameters, [&isZero](const auto& parameter) {
                return beast::iequals(parameter.first, "q") && isZero(parameter.second);
            });
        }
    }
    return false;
}

/// The parser has refused what is no number and numbers that contradict each other.
std::uint64_t bodySizeOf(const RequestMessage& message) {
    std::uint64_t size = 0;
    for (const auto text : valuesOf(message, http::field::content_length)) {
        const auto* const end = text.data() + text.size();
        const auto [rest, error] = std::from_chars(text.data(), end, size);
        if (error != std::errc() || rest != end) return std::numeric_limits<std::uint64_t>::max();
    }
    return size;
}

/// What RFC 6455 makes of a key, to show that the answer is not a cached one.
std::string acceptOf(std::string_view key) {
    const auto text = std::string(key) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned size = 0;
    if (EVP_Digest(text.data(), text.size(), digest.data(), &size, EVP_sha1(), nullptr) != 1) {
        throw std::runtime_error("no SHA-1 for the WebSocket's handshake");
    }
    std::array<unsigned char, std::size_t{2} * EVP_MAX_MD_SIZE> encoded{};
    const auto length = EVP_EncodeBlock(encoded.data(), digest.data(), static_cast<int>(size));
    return {encoded.data(), encoded.data() + length};
}

std::string statusLine(unsigned status) {
    const auto reason = http::obsolete_reason(static_cast<http::status>(status));
    return "HTTP/1.1 " + std::to_string(status) + " " + std::string(viewOf(reason)) + "\r\n";
}

/// Written here and not by the parser's library, which would name itself and its version.
std::string switchingText(const Request& request) {
    return statusLine(101) + "Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: " +
           acceptOf(request.key) + "\r\nSec-WebSocket-Protocol: " + std::string(kSubprotocol) +
           "\r\n\r\n";
}

}  // namespace

Request requestOf(const RequestMessage& message) {
    Request request;
    request.method = viewOf(message.method_string());
    request.target = viewOf(message.target());
    request.hosts = valuesOf(message, http::field::host);
    request.origins = valuesOf(message, http::field::origin);
    request.subprotocols = subprotocolsOf(message);
    request.isUpgrade = isWholeUpgrade(message);
    request.key = viewOf(message[http::field::sec_websocket_key]);
    request.isEncoded = message.count(http::field::transfer_encoding) > 0;
    request.takesGzip = takesGzip(message);
    request.bodySize = bodySizeOf(message);
    request.body = message.body();
    request.isKeptAlive = message.keep_alive();
    return request;
}

std::optional<Admission> refusalOf(const boost::system::error_code& error) {
    if (error.category() != make_error_code(http::error::bad_method).category()) return {};
    if (error == http::error::end_of_stream || error == http::error::partial_message) return {};
    if (error == http::error::header_limit) return Admission{431, "header too large"};
    return Admission{400, "malformed"};
}

bool keepsAlive(const Admission& admission, const Request* request) noexcept {
    return request != nullptr && admission.status < 400 && request->isKeptAlive;
}

std::string_view responseBody(const Admission& admission, const Request* request) noexcept {
    const bool isShown = request == nullptr || request->method != "HEAD";
    return isShown && admission.status < 400 ? admission.body : std::string_view();
}

std::string responseText(const Admission& admission, const Request* request,
                         const AccessPolicy& policy) {
    if (admission.status == 101 && request != nullptr) return switchingText(*request);
    const bool isRefusal = admission.status >= 400;
    const auto body = isRefusal ? std::string(admission.reason) + "\n" : std::string();
    const auto shown = isRefusal ? std::string_view(body) : admission.body;
    auto text =
        statusLine(admission.status) + "Content-Type: " + std::string(admission.contentType) +
        "\r\nContent-Length: " + std::to_string(shown.size()) +
        "\r\nConnection: " + (keepsAlive(admission, request) ? "keep-alive" : "close") + "\r\n";
    if (!admission.allowedMethods.empty()) {
        text += "Allow: " + std::string(admission.allowedMethods) + "\r\n";
    }
    if (!admission.location.empty()) text += "Location: " + admission.location + "\r\n";
    if (admission.comesLater) text += "Retry-After: 1\r\n";
    if (admission.isGzip) text += "Content-Encoding: gzip\r\n";
    if (admission.variesByEncoding) text += "Vary: Accept-Encoding\r\n";
    // A host that was refused is not repeated.
    const bool isOurHost = request != nullptr && !isRefusal;
    text += policy.commonFields(isOurHost ? request->hosts.front() : std::string_view()) + "\r\n";
    if (request == nullptr || request->method != "HEAD") text += body;
    return text;
}

}  // namespace kirogateway
