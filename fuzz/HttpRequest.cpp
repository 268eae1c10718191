// Arbitrary bytes as requests of HTTP: read, decided on, answered. In them "$T" stands for the
// token, "$C" for a code that is good.
#include <boost/asio/buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ByteRange.hpp"
#include "Fuzz.hpp"
#include "HttpText.hpp"

namespace {

using fuzz::require;
using namespace kirogateway;
namespace http = boost::beast::http;

constexpr Secrets::TimePoint kNow{std::chrono::hours(1)};
const std::string kToken(64, 't');

/// What is asked, and what it may give away.
struct Gate {
    /// `isReady`: somebody gets in. `others`: of a page that has other servers, too.
    explicit Gate(bool isReady = true, std::vector<std::string> others = {})
        : policy(options, 8080,
                 {std::make_shared<const AssetTable>(options.assets), isReady ? secrets : nullptr,
                  std::move(others)}) {}

    static Options usual() {
        Options options;
        options.extraHosts = {"plot.example"};
        options.assets = {{"/", "text/html; charset=utf-8", "<p>page"},
                          {"/a.js", "text/javascript", std::string(9999, 'x')}};
        return options;
    }
    Options options = usual();
    std::shared_ptr<Secrets> secrets = std::make_shared<Secrets>(std::chrono::seconds(60), kToken);
    AccessPolicy policy;
};

std::string replaced(std::string text, std::string_view what, std::string_view instead) {
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += instead.size())
        text.replace(at, what.size(), instead);
    return text;
}

/// The whole answer to `text`, which comes in two parts; empty: more of it is awaited.
std::string answerTo(Gate& gate, std::string_view text, std::size_t cut) {
    http::request_parser<http::string_body> parser;
    parser.header_limit(static_cast<std::uint32_t>(gate.options.limits.headerSize));
    parser.body_limit(boost::none);
    boost::system::error_code error;
    std::size_t used = 0;
    for (const auto end : {cut, text.size(), text.size()}) {
        used += parser.put(boost::asio::buffer(text.data() + used, end - used), error);
        const bool isWhole =
            parser.is_header_done() && (parser.is_done() || !awaitsBody(requestOf(parser.get())));
        if (isWhole || (error && error != http::error::need_more)) break;
    }
    if (error == http::error::need_more) return {};
    if (error) {
        const auto refusal = refusalOf(error);
        return refusal ? responseText(*refusal, nullptr, gate.policy) : std::string();
    }
    const auto request = requestOf(parser.get());
    if (awaitsBody(request) && !parser.is_done()) return {};
    const auto admission = gate.policy.decide(request, kNow);
    return responseText(admission, &request, gate.policy) +
           std::string(responseBody(admission, &request));
}

void check(std::string_view answer, std::string_view asked, std::string_view code) {
    const auto status = answer.substr(0, 13);
    require(status.starts_with("HTTP/1.1 ") && status.ends_with(' '), "an answer has a status");
    const auto has = [](std::string_view text, std::string_view part) {
        return text.find(part) != std::string_view::npos;
    };
    require(!has(answer, kToken) || has(asked, code), "the token is for a code only");
    require(!has(status, "101") || has(asked, kToken), "a connection is for the token only");
    const auto head = answer.substr(0, answer.find("\r\n\r\n"));
    for (std::size_t at = 0; at < head.size(); ++at) {
        const bool isEnd = head.substr(at, 2) == "\r\n";
        require(isEnd || static_cast<unsigned char>(head[at]) >= ' ', "a line has no ends in it");
        at += isEnd ? 1 : 0;
    }
}

void checkRange(std::string_view field, std::uint64_t size) {
    const auto range = recording_tool::byteRange(field, size);
    if (!range || range->size == 0) return;
    require(range->offset < size && range->size <= size - range->offset, "a part lies within");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Gate gates[] = {Gate(), Gate(false), Gate(true, {"https://other.example"})};
    for (auto& gate : gates) {
        const auto code = gate.secrets->makeCode(kNow);
        const auto text =
            replaced(replaced(std::string(data, data + size), "$T", kToken), "$C", code);
        const auto answer = answerTo(gate, text, text.size() / 2);
        if (!answer.empty()) check(answer, text, code);
    }
    checkRange({reinterpret_cast<const char*>(data), size}, size * size);
    return 0;
}
