#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

#include "Blocks.hpp"
#include "Browser.hpp"
#include "Figures.hpp"
#include "Stage.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"
#include "kiro/web/StringPayload.hpp"

namespace bench {

namespace {

using relay::message_service::JsonMessage;
using std::chrono::steady_clock;

const std::string kTexts = "/bench/texts";
constexpr std::chrono::seconds kPatience{60};

std::vector<kirogateway::Asset> pageAssets() {
    const std::string page = KIROWEB_BENCH_PAGE_DIR;
    auto assets = kirogateway::clientAssets();
    assets.push_back(kirogateway::loadAsset("/", page + "/index.html"));
    assets.push_back(kirogateway::loadAsset("/counting.mjs", page + "/counting.mjs"));
    return assets;
}

/// A browser with the counting page, and what the page says. One for all samples of a figure.
class Page {
  public:
    Page() : fStage(pageAssets()) {
        fHearing = fStage.service()
                       .subscribe("/bench/page",
                                  [this](const JsonMessage& message) {
                                      hear({message.json, message.length});
                                  })
                       .get();
        fBrowser = std::make_unique<Browser>(fStage.gateway().singleUseLink());
        await("loaded");
    }

    /// The page is ready to count when this returns.
    void prepare(bool module, const std::string& channel, std::size_t count) {
        const auto order = std::string(R"({"module":)") + (module ? "true" : "false") +
                           R"(,"channel":")" + channel + R"(","count":)" + std::to_string(count) +
                           "}";
        fStage.service().publish("/bench/control", {"/bench/control", order.data(), order.size()});
        await("ready");
    }
    void awaitLast() { await("done"); }

  private:
    void hear(std::string what) {
        const std::lock_guard lock(fMutex);
        fHeard.push_back(std::move(what));
        fChanged.notify_one();
    }
    void await(const std::string& what) {
        std::unique_lock lock(fMutex);
        if (!fChanged.wait_for(lock, kPatience, [this] { return !fHeard.empty(); })) {
            throw std::runtime_error("the page did not say \"" + what + "\"");
        }
        if (fHeard.front() != what) throw std::runtime_error("the page said " + fHeard.front());
        fHeard.pop_front();
    }

    Stage fStage;
    std::mutex fMutex;
    std::condition_variable fChanged;
    std::deque<std::string> fHeard;
    std::shared_ptr<relay::message_service::Subscription> fHearing;
    std::unique_ptr<Browser> fBrowser;
};

Page& page() {
    static Page thePage;  // the figure's process has just one
    return thePage;
}

void sendTexts(std::size_t count) {
    const auto pubsub = kiro::web::PubSubFactory::pubsubInstance();
    kiro::web::StringPayload payload(sampleText());
    kiro::web::StringPayload last("last");
    for (std::size_t i = 1; i < count; ++i) pubsub->publish(kTexts, payload);
    pubsub->publish(kTexts, last);
}

Figure browserFigure(const char* name, const char* unit, const std::string& channel,
                     std::size_t count, void (*send)(std::size_t)) {
    const auto with = [channel, count, send](bool module) {
        return [channel, count, send, module](benchmark::State& state) {
            for (auto _ : state) {
                page().prepare(module, channel, count);
                const auto start = steady_clock::now();
                send(count);
                page().awaitLast();
                setTimeEach(state, steady_clock::now() - start, count);
            }
        };
    };
    return {name, unit, with(false), with(true), 0.8, Comparison::kRate, true};
}

}  // namespace

std::vector<Figure> browserFigures(const Effort& effort) {
    return {
        browserFigure("page, texts", "ns/text", kTexts, effort.quick ? 1'000 : 200'000, sendTexts),
        browserFigure("page, blocks", "ns/block", kBlockChannel, effort.quick ? 20 : 300,
                      sendBlocks)};
}

}  // namespace bench
