#include "Session.hpp"

#include <utility>
#include <variant>

#include "text/Escape.hpp"

namespace kirogateway {
namespace {

template <typename... Handlers>
struct Overloaded : Handlers... {
    using Handlers::operator()...;
};
template <typename... Handlers>
Overloaded(Handlers...) -> Overloaded<Handlers...>;  // clang 14 does not find it by itself

}  // namespace

Session::Session(const SessionServices& services, ViewRegistry::Arrival arrival)
    : fServices(services),
      fArrival(std::move(arrival)),
      fReader(services.context->options.limits.namesPerFrame) {}

// --- Reading -----------------------------------------------------------------------------------

void Session::text(std::string_view bytes, bool isLast, TimePoint now) {
    heard(now);
    if (fIsOver) return;
    fCharacter.read(bytes);
    // Whoever reads the frames does not look at the end of a text whose last frame is empty.
    if (isLast && std::exchange(fCharacter, {}).isWithin()) {
        fServices.context->peerLog.write("a text that ends within a character", {});
        return close(wire::CloseCode::kInvalidText, {});
    }
    try {
        fReader.read(bytes, isLast, [this, now](wire::PageMessage&& message) {
            handle(std::move(message), now);
            // A view that is to end hears nothing more of what its page said.
            return !fIsOver && (fView == nullptr || fView->failure() == nullptr);
        });
    } catch (const wire::BadMessage& error) {
        bad(error.what());
    }
}

void Session::handle(wire::PageMessage&& message, TimePoint now) {
    if (const auto* said = std::get_if<wire::Hello>(&message)) return hello(*said, now);
    if (fView == nullptr) throw wire::BadMessage("hello comes first");
    std::visit(Overloaded{
                   [](const wire::Hello&) {},
                   [&](wire::Publish& said) { publish(std::move(said)); },
                   [&](const wire::Subscribe& said) { subscribe(said); },
                   [&](const wire::Unsubscribe& said) {
                       for (const auto& channel : said.channels) {
                           fServices.views->unsubscribe(*fView, channel);
                       }
                   },
                   [&](const wire::BlockAnswer& said) { answer(said); },
                   [&](const wire::Ack& said) { fView->acknowledge(said.last); },
                   [&](const wire::ChannelName& said) { name(said); },
                   [&](const wire::Echo& said) {
                       fView->sendControl(said.wantsTime
                                              ? wire::echoText(said.id, fServices.inbound.clocks())
                                              : wire::echoText(said.id));
                   },
                   [&](const wire::Unknown& said) { refuse(said.what, {}, "unknown"); },
               },
               message);
}

void Session::hello(const wire::Hello& hello, TimePoint now) {
    if (fView != nullptr) throw wire::BadMessage("a second hello");
    if (hello.version != 1) return close(wire::CloseCode::kVersion, "unknown version");
    fView = fServices.views->welcome(hello, fArrival, now);
    if (fView == nullptr) close(wire::CloseCode::kStopped, "gateway stopped");
}

void Session::publish(wire::Publish&& publish) {
    fView->speaks();
    const auto channel = publish.channel;
    if (fServices.inbound.publish(*fView, std::move(publish))) return;
    refuse("publish", channel, "not allowed");
}

void Session::subscribe(const wire::Subscribe& subscribe) {
    for (const auto& channel : subscribe.channels) {
        if (fServices.views->subscribe(*fView, channel)) continue;
        refuse("subscribe", channel, "not allowed, or too many");
    }
}

void Session::answer(const wire::BlockAnswer& answer) {
    if (!answer.ok) fServices.context->peerLog.write("page refused a block", answer.reason);
    PageBlocks left;
    fView->answer(answer.transfer, answer.ok, left);
    leaveAll(left);
}

void Session::name(const wire::ChannelName& name) {
    if (name.number < 1 || name.number > kOwnChannels) {
        throw wire::BadMessage("member \"number\"");
    }
    fOwnChannels[name.number - 1] = name.name;
}

void Session::binary(std::string_view bytes, bool isLast, TimePoint now) {
    heard(now);
    if (fIsOver) return;
    try {
        if (fView == nullptr) throw wire::BadMessage("hello comes first");
        if (isLast && fBlock.empty()) return takeBlock(bytes);
        fBlock += bytes;
        if (!isLast) return;
        const auto whole = std::exchange(fBlock, {});
        takeBlock(whole);
    } catch (const wire::BadMessage& error) {
        bad(error.what());
    }
}

void Session::takeBlock(std::string_view frame) {
    const auto header = wire::BlockHeader::read(frame);
    if (!header) return;  // of a kind that a later version may know
    if (!header->isLast) throw wire::BadMessage("a block in pieces");
    if (header->channel < 1 || header->channel > kOwnChannels) {
        throw wire::BadMessage("no such block channel");
    }
    const auto& channel = fOwnChannels[header->channel - 1];
    const auto block = frame.substr(wire::BlockHeader::kSize);
    if (channel && fServices.inbound.publishBlock(*channel, block)) return;
    refuse("block", channel.value_or(std::string()), "not allowed");
}

void Session::heard(TimePoint now) noexcept {
    if (fView != nullptr) fView->heard(now);
}

Session::Reading Session::mayRead() noexcept {
    const auto& memory = fServices.context->memory;
    fHeld.set(memory, fReader.held() + fBlock.size());
    // Those for whom most is held make room for those who have something to say.
    if (memory->isExceeded() && !memory->makeRoom(0)) return Reading::kLater;
    if (viewHere() == nullptr) return Reading::kNow;
    if (fView->hasManyAnswersWaiting() || !fServices.inbound.hasRoom()) return Reading::kLater;
    if (!fView->backlog()->isFull()) return Reading::kNow;
    fView->backlog()->setReader(&fArrival.connection);
    return Reading::kWhenTold;
}

// --- Ending ------------------------------------------------------------------------------------

View* Session::viewHere() const noexcept {
    if (fView == nullptr || fIsOver) return nullptr;
    return fView->connection() == &fArrival.connection ? fView.get() : nullptr;
}

void Session::refuse(std::string_view what, std::string_view channel, std::string_view reason) {
    static constexpr std::size_t kMaxEcho = 256;
    ++fServices.context->counters->refusals;
    fServices.context->peerLog.write("refused a page's " + text::escaped(what), channel);
    // A cut within a character would make the answer invalid, so what is too long is left out.
    if (channel.size() > kMaxEcho) channel = {};
    if (what.size() > kMaxEcho) what = {};
    fView->sendControl(wire::refusedText(what, channel, reason));
}

void Session::bad(std::string_view why) noexcept {
    fServices.context->peerLog.write("bad message from a page", why);
    close(wire::CloseCode::kBadMessage, why);
}

void Session::close(wire::CloseCode code, std::string_view why) noexcept {
    const bool isHere = viewHere() != nullptr;
    if (std::exchange(fIsOver, true)) return;
    if (isHere) {
        fServices.views->dismiss(fView, code, why);
    } else if (fView == nullptr) {
        const bool isBad = code == wire::CloseCode::kBadMessage;
        std::string reason;
        try {
            reason = isBad ? "bad message: " : "";
            reason += why;
        } catch (...) {  // the code alone has to do
        }
        fArrival.connection.close(static_cast<std::uint16_t>(code), reason, {});
    }
}

void Session::ended(bool wasClosed, TimePoint now) noexcept {
    fIsOver = true;
    if (fView == nullptr) return;
    wasClosed ? fServices.views->left(fView, fArrival.connection)
              : fServices.views->lost(fView, fArrival.connection, now);
}

void Session::viewFailed() noexcept {
    if (viewHere() == nullptr) return;
    const auto* failure = fView->failure();
    if (failure != nullptr) close(wire::CloseCode::kTooSlow, failure);
}

void Session::helloOverdue() noexcept {
    if (fView == nullptr) close(wire::CloseCode::kNoHello, "no hello in time");
}

}  // namespace kirogateway
