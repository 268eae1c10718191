#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "BeastPeer.hpp"
#include "Figures.hpp"
#include "Stage.hpp"

namespace bench {

namespace {

/// What the process holds of the machine's memory, in bytes.
double residentSize() {
    std::ifstream pages("/proc/self/statm");
    double all = 0.0;
    double resident = 0.0;
    if (!(pages >> all >> resident)) throw std::runtime_error("cannot read /proc/self/statm");
    return resident * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

/// Each connection has both its ends in this process.
void allowManyDescriptors() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 3 * kIdlePages);
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// In KB each. The clients' ends cost this process a number each, the rest of them is the kernel's.
template <typename Connect>
double growth(const Connect& connect) {
    allowManyDescriptors();
    std::vector<Socket> clients;
    clients.reserve(kIdlePages + 1);
    clients.push_back(connect());  // what only the first one costs
    const auto before = residentSize();
    while (clients.size() <= kIdlePages) clients.push_back(connect());
    return (residentSize() - before) / 1000.0 / kIdlePages;
}

double growthOfGateway() {
    const Stage stage;
    return growth([&stage] { return stage.connect("/bench/commands"); });
}

double growthOfBeast() {
    const IdleBeastPeers peers;
    return growth([&peers] {
        Socket socket(peers.port());
        socket.upgrade(peers.port(), {});
        socket.sendText("hello");
        char answer[64];
        socket.receive(answer, sizeof answer);
        return socket;
    });
}

/// A process for each sample: in one that had connections before, new ones would take their place.
void measureApart(benchmark::State& state, double (*measure)()) {
    for (auto _ : state) {
        int ends[2];
        if (::pipe(ends) != 0) throw std::runtime_error("no pipe");
        const auto child = ::fork();
        if (child == 0) {
            double result = 0.0;
            try {
                result = measure();
            } catch (const std::exception&) {  // the parent sees that nothing came
                ::_exit(1);
            }
            ::_exit(::write(ends[1], &result, sizeof result) == sizeof result ? 0 : 1);
        }
        ::close(ends[1]);
        double result = 0.0;
        if (::read(ends[0], &result, sizeof result) != sizeof result) {
            state.SkipWithError("the measuring process failed");
        }
        ::close(ends[0]);
        ::waitpid(child, nullptr, 0);
        state.SetIterationTime(1.0);
        state.counters[kValue] = result;
    }
}

}  // namespace

Figure idlePageFigure() {
    return {"idle page",
            "KB",
            [](benchmark::State& state) { measureApart(state, growthOfBeast); },
            [](benchmark::State& state) { measureApart(state, growthOfGateway); },
            10.0,
            Comparison::kDifference,
            true};
}

}  // namespace bench
