#include "CountingPort.hpp"

#include <array>
#include <atomic>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include "../gateway/Client.hpp"

namespace bench {

struct CountingPort::State {
    Listener listener;
    std::atomic<std::size_t> requests = 0;
    std::atomic<std::size_t> bytes = 0;
};

namespace {

/// Both directions of a connection.
struct Pair {
    Socket browser;
    Socket target;
};

/// Until one side ends.
template <typename Count>
void handOn(const Socket& from, const Socket& to, const Count& count) {
    try {
        for (;;) {
            std::array<char, 65536> bytes;
            const std::string_view piece(bytes.data(), from.receive(bytes.data(), bytes.size()));
            count(piece);
            to.send(piece);
        }
    } catch (const std::runtime_error&) {  // the connection is over
    }
}

std::size_t requestsIn(std::string_view piece) {
    constexpr std::string_view kEnd = " HTTP/1.1\r\n";
    std::size_t found = 0;
    for (auto at = piece.find(kEnd); at != piece.npos; at = piece.find(kEnd, at + 1)) ++found;
    return found;
}

}  // namespace

CountingPort::CountingPort() : fState(std::make_shared<State>()) {}

std::uint16_t CountingPort::port() const noexcept { return fState->listener.port(); }
std::size_t CountingPort::requests() const noexcept { return fState->requests; }
std::size_t CountingPort::bytes() const noexcept { return fState->bytes; }

void CountingPort::handOnTo(std::uint16_t target) {
    std::thread([state = fState, target] {
        for (;;) {
            auto browser = state->listener.accept();
            const auto pair =
                std::make_shared<const Pair>(Pair{std::move(browser), Socket(target)});
            std::thread([state, pair] {
                handOn(pair->browser, pair->target,
                       [&state](std::string_view piece) { state->requests += requestsIn(piece); });
            }).detach();
            std::thread([state, pair] {
                handOn(pair->target, pair->browser,
                       [&state](std::string_view piece) { state->bytes += piece.size(); });
            }).detach();
        }
    }).detach();
}

}  // namespace bench
