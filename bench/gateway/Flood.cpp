#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "Figures.hpp"
#include "Stage.hpp"
#include "TokenPage.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"
#include "kiro/web/StringPayload.hpp"
#include "kiro/web/Subscriber.hpp"
#include "kirohost/Controls.hpp"

namespace bench {

namespace {

const std::string kFlood = "/bench/flood";
constexpr std::size_t kTextsOfFrame = 100;

/// A page that sends the same frame over and over, as fast as it is read from.
class Flooder {
  public:
    Flooder(Socket socket, const std::string& text)
        : fSocket(std::move(socket)),
          fSent(std::async(std::launch::async, [this, frame = clientFrame(text)] {
              try {
                  for (;;) fSocket.send(frame);
              } catch (const std::runtime_error&) {  // it was shut down
              }
          })) {}
    ~Flooder() {
        fSocket.shutDown();
        fSent.wait();
    }
    Flooder(const Flooder&) = delete;
    Flooder& operator=(const Flooder&) = delete;

  private:
    const Socket fSocket;
    const std::future<void> fSent;
};

/// A script error of 3 MB, which the recorder of client messages reads and keeps.
std::string scriptError() {
    constexpr std::size_t kSize = 3'000'000;
    return R"({"t":"publish","channel":")" + std::string(kScriptErrors) +
           R"(","text":"{\"message\":\")" + std::string(kSize, 'e') + R"(\"}"})";
}

/// As many small messages as a frame reasonably has.
std::string manyTexts() {
    constexpr std::size_t kTexts = 1000;
    const auto one = R"({"t":"publish","channel":")" + kFlood + R"(","text":"{\"x\":1}"})";
    std::string all = "[" + one;
    for (std::size_t i = 1; i < kTexts; ++i) all += "," + one;
    return all + "]";
}

/// Frames of an engine: texts, the token behind them, and the wait for its return. `flood` is what
/// another page says meanwhile; empty: there is none.
void frames(benchmark::State& state, std::size_t count, const std::string& flood) {
    auto settings = kirohost::settings();
    settings.drawnowTimeoutLogging = true;
    kirohost::setSettings(settings);
    const Stage stage;
    TokenPage page(stage.connect(TokenPage::kCommands));
    const auto pubsub = kiro::web::PubSubFactory::pubsubInstance();
    const auto heard = subscribe(pubsub, kFlood, [](const auto&, const auto&) {});
    kiro::web::StringPayload payload(sampleText());
    const auto frame = [&] {
        for (std::size_t i = 0; i < kTextsOfFrame; ++i) {
            pubsub->publish(TokenPage::kCommands, payload);
        }
        page.flush();
    };
    page.begin(count + 1);
    frame();  // the recorder of client messages is there from here on
    std::unique_ptr<Flooder> flooder;
    if (!flood.empty()) flooder = std::make_unique<Flooder>(stage.connect("/bench/other"), flood);
    timeTrips(state, count, 0.99, frame);
}

Figure floodFigure(const char* name, std::size_t count, std::string (*flood)()) {
    return {name,
            "ns/frame",
            [=](benchmark::State& state) { frames(state, count, {}); },
            [=](benchmark::State& state) { frames(state, count, flood()); },
            2.0,
            Comparison::kCost,
            true};
}

}  // namespace

std::vector<Figure> floodFigures(const Effort& effort) {
    const std::size_t count = effort.quick ? 100 : 2'000;
    return {floodFigure("beside errors, p99", count, scriptError),
            floodFigure("beside texts, p99", count, manyTexts)};
}

}  // namespace bench
