#include "Floor.hpp"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "../gateway/Stage.hpp"

namespace bench {

namespace {

using relay::message_service::JsonMessage;

std::vector<kirogateway::Asset> pageAssets() {
    const std::string page = KIROWEB_BENCH_PAGE_DIR;
    auto assets = kirogateway::clientAssets();
    assets.push_back(kirogateway::loadAsset("/", page + "/index.html"));
    assets.push_back(kirogateway::loadAsset("/floors.mjs", page + "/floors.mjs"));
    return assets;
}

/// A browser with the page, which says every now and then how many frames it has painted.
class FloorPage {
  public:
    explicit FloorPage(const std::string& picture) : fStage(pageAssets()) {
        fHearing = fStage.service()
                       .subscribe("/bench/page",
                                  [this](const JsonMessage& message) {
                                      hear(std::stod(std::string(message.json, message.length)));
                                  })
                       .get();
        fBrowser = std::make_unique<Browser>(fStage.gateway().singleUseLink());
        frames();  // it is there
        const auto order = "\"" + picture + "\"";
        fStage.service().publish("/bench/control", {"/bench/control", order.data(), order.size()});
        while (frames() == 0) continue;
    }

    [[nodiscard]] const Browser& browser() const noexcept { return *fBrowser; }
    /// What the page says next.
    double frames() {
        std::unique_lock lock(fMutex);
        fIsNew = false;
        if (!fChanged.wait_for(lock, std::chrono::seconds(60), [this] { return fIsNew; })) {
            throw std::runtime_error("the page says nothing");
        }
        return fFrames;
    }

  private:
    void hear(double frames) {
        const std::lock_guard lock(fMutex);
        fFrames = frames;
        fIsNew = true;
        fChanged.notify_one();
    }

    Stage fStage;
    std::mutex fMutex;
    std::condition_variable fChanged;
    double fFrames = 0;
    bool fIsNew = false;
    std::shared_ptr<relay::message_service::Subscription> fHearing;
    std::unique_ptr<Browser> fBrowser;
};

}  // namespace

Costs floorOf(const std::string& picture, bool quick) {
    FloorPage page(picture);
    double before = page.frames();
    return Rounds(quick).measure(page.browser(), [&page, &before](double seconds) {
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        const double now = page.frames();
        return now - std::exchange(before, now);
    });
}

}  // namespace bench
