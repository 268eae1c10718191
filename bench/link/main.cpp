// What an engine's link costs beside libnats alone. Started by figures.py, which starts the nodes,
// the gateway and the process that answers.
#include <nats/nats.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "../Program.hpp"
#include "../gateway/Blocks.hpp"
#include "../gateway/Figures.hpp"
#include "../gateway/Stage.hpp"
#include "../gateway/TokenPage.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"
#include "kiro/web/StringPayload.hpp"
#include "kirolink/Link.hpp"
#include "relay/Relay.hpp"

namespace {

using bench::Client;
using bench::Socket;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

const std::string kTexts = "/bench/texts";
/// Whoever knows it can do no more than hear these figures' messages.
const std::string kToken(64, 'b');
constexpr char kRecordSeparator = '\x1e';

std::string environment(const char* name) {
    const char* const value = std::getenv(name);
    if (value == nullptr) throw std::runtime_error("to be started by bench/link/figures.py");
    return value;
}

std::string folder() { return environment("KIROWEB_BENCH_FOLDER"); }

/// An engine with a link.
class Engine {
  public:
    Engine() : fLink(options()) {}

    /// A page that hears `channel`, at the gateway; the engine knows of it.
    [[nodiscard]] Socket join(const std::string& channel) const {
        static constexpr int kMostTries = 200;
        for (int i = 0; i < kMostTries; ++i) {
            try {
                auto page = connect(channel);
                for (int j = 0; j < 20; ++j) {
                    if (fLink.statistics().pages > 0) return page;
                    std::this_thread::sleep_for(milliseconds(50));
                }
            } catch (const std::runtime_error&) {
                // The gateway has not joined this session yet, or has not left the one before it.
                std::this_thread::sleep_for(milliseconds(50));
            }
        }
        throw std::runtime_error("the gateway does not join");
    }

  private:
    static kirolink::Options options() {
        relay::getRelay();
        auto options = kirolink::loadOptions(folder() + "/session-bench/link.conf");
        options.mayPublish = {"/bench/*"};
        options.maySubscribe = {"/bench/*"};
        options.blockChannels = {bench::kBlockChannel};
        options.token = kToken;
        options.onLastPageGone = [] {};
        return options;
    }

    static Socket connect(const std::string& channel) {
        const auto port = static_cast<std::uint16_t>(std::stoul(environment("KIROWEB_BENCH_PORT")));
        Socket socket(port);
        socket.upgrade(port, kToken, "/s/bench/");
        socket.sendText(R"({"t":"hello","version":1,"subscribe":[")" + channel + "\"]}");
        char hello[4096];
        socket.receive(hello, sizeof hello);
        return socket;
    }

    kirolink::Link fLink;
};

void require(natsStatus status) {
    if (status != NATS_OK) throw std::runtime_error(natsStatus_GetText(status));
}

/// What one would write with libnats alone, over the same nodes, with the same TLS and rights.
/// Nothing that is lost is sent again.
class Bare {
  public:
    /// The first byte of a message.
    static constexpr char kData = 'd';
    static constexpr char kAsks = 'a';  ///< an answer is wanted

    /// `user` has a file as a link's.
    Bare(const std::string& user, std::string sends, const char* hears) : fSends(std::move(sends)) {
        const auto settings = kirolink::loadOptions(folder() + "/" + user + "/link.conf");
        std::ifstream credentials(settings.credentials);
        std::string name;
        std::string password;
        credentials >> name >> password;
        require(natsOptions_Create(&fOptions));
        require(natsOptions_SetURL(fOptions, ("tls://" + settings.servers.at(0)).c_str()));
        require(natsOptions_SetSecure(fOptions, true));
        require(natsOptions_LoadCATrustedCertificates(fOptions, settings.caFile.c_str()));
        require(natsOptions_SetUserInfo(fOptions, name.c_str(), password.c_str()));
        require(natsOptions_SetSendAsap(fOptions, true));
        require(natsOptions_SetIOBufSize(fOptions, 256 * 1024));  // as the link's
        require(natsConnection_Connect(&fConnection, fOptions));
        require(natsConnection_SubscribeSync(&fHeard, fConnection, hears));
        require(natsSubscription_SetPendingLimits(fHeard, -1, -1));
        require(natsConnection_Flush(fConnection));
    }
    ~Bare() {
        natsMsg_Destroy(fMessage);
        natsSubscription_Destroy(fHeard);
        natsConnection_Destroy(fConnection);
        natsOptions_Destroy(fOptions);
    }
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;

    void send(std::string_view bytes) {
        require(natsConnection_Publish(fConnection, fSends.c_str(), bytes.data(),
                                       static_cast<int>(bytes.size())));
    }
    /// Waits for a minute at most; valid until the next one.
    std::string_view receive() {
        natsMsg_Destroy(std::exchange(fMessage, nullptr));
        require(natsSubscription_NextMsg(&fMessage, fHeard, 60'000));
        return {natsMsg_GetData(fMessage),
                static_cast<std::size_t>(natsMsg_GetDataLength(fMessage))};
    }

  private:
    const std::string fSends;
    natsOptions* fOptions = nullptr;
    natsConnection* fConnection = nullptr;
    natsSubscription* fHeard = nullptr;
    natsMsg* fMessage = nullptr;
};

/// The engine's end; the other one has answered.
struct BareEngine : Bare {
    BareEngine() : Bare("session-bare", "kiroweb.bare.down", "kiroweb.bare.from.*") {
        send({&kAsks, 1});
        receive();
    }
};

/// The other end, a process of its own: counts records, and says how many it were when asked.
void answer() {
    Bare end("gateway-bare", "kiroweb.bare.from.bare", "kiroweb.bare.down");
    std::puts("ready");
    std::fflush(stdout);
    for (std::ptrdiff_t count = 0;;) {
        const auto bytes = end.receive();
        count += std::ranges::count(bytes, kRecordSeparator);
        if (bytes.starts_with(Bare::kAsks)) end.send(std::to_string(std::exchange(count, 0)));
    }
}

/// The sample is the time that each of `count` took.
template <typename Work>
void timeAll(benchmark::State& state, std::size_t count, const Work& work) {
    for (auto _ : state) {
        const auto start = steady_clock::now();
        work();
        bench::setTimeEach(state, steady_clock::now() - start, count);
    }
}

// --- Texts ---

void sendTextsBare(benchmark::State& state, std::size_t count) {
    static constexpr std::size_t kFull = std::size_t{64} << 10U;
    BareEngine sender;
    const auto text = bench::sampleText();
    timeAll(state, count, [&] {
        std::string batch(1, Bare::kData);
        for (std::size_t i = 0; i < count; ++i) {
            batch += kRecordSeparator;
            batch += text;
            if (batch.size() < kFull) continue;
            sender.send(batch);
            batch.resize(1);
        }
        batch.front() = Bare::kAsks;
        sender.send(batch);
        if (sender.receive() != std::to_string(count)) throw std::runtime_error("texts were lost");
    });
}

void sendTexts(benchmark::State& state, std::size_t count) {
    const Engine engine;
    Client page(engine.join(kTexts));
    const auto pubsub = kiro::web::PubSubFactory::pubsubInstance();
    kiro::web::StringPayload payload(bench::sampleText());
    timeAll(state, count, [&] {
        auto read = std::async(std::launch::async, [&] { page.readRecords(count, true); });
        for (std::size_t i = 0; i < count; ++i) pubsub->publish(kTexts, payload);
        read.get();
    });
}

// --- Blocks ---

void sendBlocksBare(benchmark::State& state, std::size_t count) {
    static constexpr std::size_t kUnderWay = 16;
    BareEngine sender;
    std::string piece(std::size_t{512} << 10U, 'x');
    timeAll(state, count, [&] {
        for (std::size_t i = 0; i < count + kUnderWay; ++i) {
            if (i >= kUnderWay) sender.receive();
            if (i >= count) continue;
            for (const auto kind : {Bare::kData, Bare::kAsks}) {
                piece.front() = kind;
                sender.send(piece);
            }
        }
    });
}

void sendBlocks(benchmark::State& state, std::size_t count) {
    const Engine engine;
    Client page(engine.join(bench::kBlockChannel));
    timeAll(state, count, [&] {
        auto read = std::async(std::launch::async, [&] { bench::readBlocks(page, count); });
        bench::sendBlocks(count);
        read.get();
    });
}

// --- Round trips ---

/// One trip right after the other, or with pauses as between an engine's frames.
struct Trips {
    std::size_t count;
    milliseconds pause;
};

/// Nanoseconds.
template <typename Trip>
double median(const Trips& trips, const Trip& trip) {
    std::vector<double> times(trips.count);
    for (auto& time : times) {
        if (trips.pause.count() > 0) std::this_thread::sleep_for(trips.pause);
        const auto start = steady_clock::now();
        trip();
        time = static_cast<double>((steady_clock::now() - start).count());
    }
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(trips.count / 2);
    std::nth_element(times.begin(), middle, times.end());
    return *middle;
}

double flushes(Socket socket, const Trips& trips) {
    bench::TokenPage page(std::move(socket));
    page.begin(trips.count);
    return median(trips, [&page] { page.flush(); });
}

double requests(const Trips& trips) {
    BareEngine sender;
    std::string request(119, 'x');  // as long as a token's command
    request.front() = Bare::kAsks;
    return median(trips, [&] {
        sender.send(request);
        sender.receive();
    });
}

template <int kPause>
void tripBare(benchmark::State& state, std::size_t count) {
    const Trips trips{count, milliseconds(kPause)};
    for (auto _ : state) {
        state.SetIterationTime(1);
        const bench::Stage stage;
        const auto embedded = flushes(stage.connect(bench::TokenPage::kCommands), trips);
        const auto bare = requests(trips);
        std::printf("# request and reply %.0f ns, embedded gateway %.0f ns\n", bare, embedded);
        state.counters[bench::kValue] = bare + embedded;
    }
}

template <int kPause>
void trip(benchmark::State& state, std::size_t count) {
    const Trips trips{count, milliseconds(kPause)};
    for (auto _ : state) {
        state.SetIterationTime(1);
        const Engine engine;
        state.counters[bench::kValue] = flushes(engine.join(bench::TokenPage::kCommands), trips);
    }
}

std::vector<bench::Figure> allFigures(const bench::Effort& effort) {
    const auto figure = [&effort](const char* name, const char* unit, std::size_t count,
                                  void (*floor)(benchmark::State&, std::size_t),
                                  void (*subject)(benchmark::State&, std::size_t), double target,
                                  bench::Comparison comparison) {
        const auto all = effort.quick ? count / 20 : count;
        return bench::Figure{name,
                             unit,
                             [=](benchmark::State& state) { floor(state, all); },
                             [=](benchmark::State& state) { subject(state, all); },
                             target,
                             comparison,
                             true};
    };
    using enum bench::Comparison;
    return {figure("texts", "ns/text", 200'000, sendTextsBare, sendTexts, 0.8, kRate),
            figure("1 MiB blocks", "ns/block", 300, sendBlocksBare, sendBlocks, 0.8, kRate),
            figure("round trip, p50", "ns", 2'000, tripBare<0>, trip<0>, 2.0, kCost),
            figure("the same, 5 ms apart", "ns", 400, tripBare<5>, trip<5>, 2.0, kCost)};
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc == 2 && std::string_view(argv[1]) == "--answer") answer();
    return bench::run({"kiroweb_link_bench", "See bench/link/figures.py.\n", 5, allFigures}, argc,
                      argv);
} catch (const std::exception& error) {
    std::fprintf(stderr, "kiroweb_link_bench: %s\n", error.what());
    return 1;
}
