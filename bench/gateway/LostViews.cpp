#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Fanout.hpp"
#include "Figures.hpp"
#include "Inbound.hpp"
#include "ViewRegistry.hpp"

namespace bench {

namespace {

using std::chrono::steady_clock;

/// As many as `Limits::lostViews` may be, and a tenth of that. What looks at each of them costs ten
/// times as much beside so many; what does not still finds less of them in the processor's caches.
constexpr std::size_t kMany = 10'000;
constexpr std::size_t kFew = 1'000;
/// What is kept for each, which is copied for each.
constexpr std::size_t kText = 10'000;
constexpr std::size_t kPublished = 200;

struct NoBus final : kirogateway::Bus, relay::TransportLink {
    relay::TransportLink& texts() noexcept override { return *this; }
    void deliver(const std::string& /*channel*/, relay::Publication::Text /*text*/,
                 std::shared_ptr<const void> /*ticket*/) override {}
    bool send(const std::string& /*channel*/, std::string_view /*block*/) override { return false; }
    void announce(kirogateway::wire::ViewKind /*kind*/,
                  const kirogateway::View::Identity& /*view*/) override {}
    void pages(std::size_t /*count*/) noexcept override {}
};

struct NoConnection final : kirogateway::Connection {
    void request(Request /*what*/) noexcept override {}
    void close(std::uint16_t /*code*/, std::string_view /*reason*/,
               std::string /*rest*/) noexcept override {}
    void cut() noexcept override {}
    void readOn() noexcept override {}
    [[nodiscard]] bool isReadingHeld() const noexcept override { return false; }
};

kirogateway::Options optionsFor(std::size_t count) {
    kirogateway::Options options;
    options.maySubscribe = {"/*"};
    options.limits.lostViews = kMany;
    options.limits.lostMemory = count * kText * 5 / 4;
    return options;
}

/// A gateway's views without its sockets, `count` of them lost. A text is kept for each of them,
/// and for the last one so many more that the next one ends the first.
class LostViews {
  public:
    explicit LostViews(std::size_t count)
        : fContext(std::make_shared<kirogateway::Context>(optionsFor(count))), fInbound(fContext) {
        fInbound.connect(fBus);
        fViews = std::make_shared<kirogateway::ViewRegistry>(
            fContext, std::make_shared<kirogateway::Wakeup>(), fInbound, [] {});
        fFanout.emplace(fContext, fViews);
        NoConnection connection;
        for (std::size_t i = 1; i <= count; ++i) {
            kirogateway::wire::Hello hello;
            hello.subscribe = {"/all"};
            if (i == count) hello.subscribe.emplace_back("/last");
            const auto now = steady_clock::now();
            const auto view = fViews->welcome(hello, {connection, nullptr, false}, now);
            fViews->lost(view, connection, now);
        }
        publish("/all");
        const auto& memory = *fContext->lostMemory;
        while (memory.used() + 2 * kText < memory.limit()) publish("/last");
    }
    void publish(const std::string& channel) { fFanout->messagePublished({channel, fText}); }
    [[nodiscard]] kirogateway::ViewRegistry& views() noexcept { return *fViews; }

  private:
    const std::string fText = std::string(kText, 'x');
    std::shared_ptr<kirogateway::Context> fContext;
    NoBus fBus;
    kirogateway::Inbound fInbound;
    std::shared_ptr<kirogateway::ViewRegistry> fViews;
    std::optional<kirogateway::Fanout> fFanout;
};

/// `measured` is done beside so many lost views and says how often it did what.
template <typename Measured>
Body beside(std::size_t count, const Measured& measured) {
    return [=](benchmark::State& state) {
        LostViews lost(count);
        for (auto _ : state) {
            const auto begin = steady_clock::now();
            const std::size_t times = measured(lost, count);
            setTimeEach(state, steady_clock::now() - begin, times);
        }
    };
}

template <typename Measured>
Figure figure(const char* name, const char* unit, double target, const Measured& measured) {
    return {name, unit, beside(kFew, measured), beside(kMany, measured), target, Comparison::kCost,
            true};
}

}  // namespace

std::vector<Figure> lostViewFigures() {
    const auto publish = [](LostViews& lost, std::size_t) {
        for (std::size_t i = 0; i < kPublished; ++i) lost.publish("/last");
        return kPublished;
    };
    const auto expire = [](LostViews& lost, std::size_t count) {
        lost.views().tick(steady_clock::now() + std::chrono::hours(1));
        return count;
    };
    const auto stop = [](LostViews& lost, std::size_t count) {
        lost.views().shut();
        return count;
    };
    return {figure("publish, lost ends", "ns/text", 4.0, publish),
            figure("lost views expire", "ns/view", 2.0, expire),
            figure("lost views, stop", "ns/view", 2.0, stop)};
}

}  // namespace bench
