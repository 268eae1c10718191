#include "Session.hpp"

#include <stdexcept>
#include <utility>
#include <variant>

namespace kirogateway {
namespace {

template <typename... Handlers>
struct Overloaded : Handlers... {
    using Handlers::operator()...;
};
template <typename... Handlers>
Overloaded(Handlers...) -> Overloaded<Handlers...>;  // clang 14 does not find it by itself

}  // namespace

void Session::text(std::string_view frame, const std::shared_ptr<Carrier>& self, TimePoint now) {
    heard(now);
    try {
        for (const auto& message : wire::readFrame(frame)) {
            if (fIsOver) return;
            handle(message, self, now);
        }
    } catch (const std::exception& error) {
        bad(error.what(), now);
    }
}

void Session::handle(const wire::PageMessage& message, const std::shared_ptr<Carrier>& self,
                     TimePoint now) {
    if (const auto* said = std::get_if<wire::Hello>(&message)) return hello(*said, self, now);
    if (fPage == nullptr) throw std::runtime_error("hello comes first");
    std::visit(
        Overloaded{
            [](const wire::Hello&) {},
            [&](const wire::Publish& said) { publish(said, now); },
            [&](const wire::Subscribe& said) { subscribe(said, now); },
            [&](const wire::Unsubscribe& said) {
                for (const auto& channel : said.channels) fPage->unsubscribe(channel);
            },
            [&](const wire::BlockAnswer& said) { answer(said, now); },
            [&](const wire::Ack& said) { fPage->acknowledge(said.last); },
            [&](const wire::ChannelName& said) { name(said); },
            [&](const wire::Echo& said) { fPage->sendControl(wire::echoText(said.id), now); },
            [&](const wire::Unknown& said) { refuse(said.what, {}, "unknown", now); },
        },
        message);
}

void Session::hello(const wire::Hello& hello, const std::shared_ptr<Carrier>& self, TimePoint now) {
    if (fPage != nullptr) throw std::runtime_error("a second hello");
    if (hello.version != 1) return close(wire::CloseCode::kVersion, "unknown version");
    fPage = fHub->welcome(hello, self, fSocket, now);
    if (fPage == nullptr) close(wire::CloseCode::kStopped, "gateway stopped");
}

void Session::publish(const wire::Publish& publish, TimePoint now) {
    fPage->speaks();
    if (fHub->publish(publish.channel, publish.text)) return;
    refuse("publish", publish.channel, "not allowed", now);
}

void Session::subscribe(const wire::Subscribe& subscribe, TimePoint now) {
    for (const auto& channel : subscribe.channels) {
        if (fHub->subscribe(*fPage, channel)) continue;
        refuse("subscribe", channel, "not allowed, or too many", now);
    }
}

void Session::answer(const wire::BlockAnswer& answer, TimePoint now) {
    if (!answer.ok) fHub->peerLog().write("page refused a block", answer.reason, now);
    LeavingList leaving;
    fPage->answer(answer.transfer, answer.ok, now, leaving);
    Hub::release(std::move(leaving));
}

void Session::name(const wire::ChannelName& name) {
    if (name.number < 1 || name.number > kOwnChannels) {
        throw std::runtime_error("member \"number\"");
    }
    fOwnChannels[name.number - 1] = name.name;
}

void Session::binary(std::string_view frame, TimePoint now) {
    heard(now);
    if (fIsOver) return;
    try {
        if (fPage == nullptr) throw std::runtime_error("hello comes first");
        const auto header = wire::BlockHeader::read(frame);
        if (!header) return;  // of a kind that a later version may know
        if (!header->isLast) throw std::runtime_error("a block in pieces");
        if (header->channel < 1 || header->channel > kOwnChannels) {
            throw std::runtime_error("no such block channel");
        }
        const auto& channel = fOwnChannels[header->channel - 1];
        if (!fHub->publishBlock(channel, frame.substr(wire::BlockHeader::kSize))) {
            refuse("block", channel, "not allowed", now);
        }
    } catch (const std::exception& error) {
        bad(error.what(), now);
    }
}

void Session::heard(TimePoint now) {
    if (fPage != nullptr) fPage->heard(now);
}

void Session::refuse(std::string_view what, std::string_view channel, std::string_view reason,
                     TimePoint now) {
    static constexpr std::size_t kMaxEcho = 256;
    ++fHub->counters().refusals;
    fHub->peerLog().write("refused a page's " + escaped(what), channel, now);
    // A cut within a character would make the answer invalid, so what is too long is left out.
    if (channel.size() > kMaxEcho) channel = {};
    if (what.size() > kMaxEcho) what = {};
    fPage->sendControl(wire::refusedText(what, channel, reason), now);
}

void Session::bad(const std::string& why, TimePoint now) {
    fHub->peerLog().write("bad message from a page", why, now);
    close(wire::CloseCode::kBadMessage, why);
}

void Session::close(wire::CloseCode code, const std::string& why) {
    if (std::exchange(fIsOver, true)) return;
    if (fPage != nullptr && fPage->carrier().get() == &fCarrier) {
        fHub->dismiss(fPage, code, why);
    } else if (fPage == nullptr) {
        const bool isBad = code == wire::CloseCode::kBadMessage;
        fCarrier.close(static_cast<std::uint16_t>(code), isBad ? "bad message: " + why : why, {});
    }
}

void Session::ended(bool wasClosed, TimePoint now) {
    fIsOver = true;
    if (fPage == nullptr) return;
    wasClosed ? fHub->left(fPage, fCarrier) : fHub->lost(fPage, fCarrier, now);
}

void Session::pageFailed() {
    if (fPage == nullptr || fIsOver) return;
    const auto failure = fPage->failure();
    if (!failure.empty()) close(wire::CloseCode::kTooSlow, failure);
}

void Session::helloOverdue() {
    if (fPage == nullptr) close(wire::CloseCode::kNoHello, "no hello in time");
}

}  // namespace kirogateway
