#include "Browser.hpp"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <cerrno>
#include <csignal>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "process/Browser.hpp"
#include "process/Descriptor.hpp"

namespace recording_tool {

namespace json = boost::json;

namespace {

/// Where a browser looks for its pipes.
constexpr int kHears = 3;
constexpr int kSays = 4;

/// The one that runs; 0: none.
std::atomic<pid_t> running{0};

[[noreturn]] void fail(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

void closeEnd(int& end) noexcept {
    if (end >= 0) ::close(end);
    end = -1;
}

}  // namespace

Pipe::Pipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) fail(errno, "no pipe to the browser");
    // Not where the browser looks for its own.
    fReading = ::fcntl(ends[0], F_DUPFD_CLOEXEC, kSays + 1);
    fWriting = ::fcntl(ends[1], F_DUPFD_CLOEXEC, kSays + 1);
    const int error = errno;
    for (const int end : ends) ::close(end);
    if (fReading >= 0 && fWriting >= 0) return;
    closeReading();
    closeWriting();
    fail(error, "no pipe to the browser");
}

Pipe::~Pipe() {
    closeReading();
    closeWriting();
}

void Pipe::closeReading() noexcept { closeEnd(fReading); }
void Pipe::closeWriting() noexcept { closeEnd(fWriting); }

Browser::Browser(const std::string& path, const std::string& folder, std::chrono::seconds patience)
    : fDeadline(std::chrono::steady_clock::now() + patience) {
    start(path, folder);
    fHears.closeReading();
    fSays.closeWriting();
}

Browser::~Browser() {
    // It ends when nobody speaks to it any more; what it has started belongs to its group.
    fHears.closeWriting();
    bool isOver = false;
    std::array<char, 4096> rest{};
    while (!isOver && untilReadable()) {
        const auto count = ::read(fSays.reading(), rest.data(), rest.size());
        isOver = count == 0 || (count < 0 && errno != EINTR);
    }
    if (!isOver) ::kill(-fProcess, SIGKILL);
    running = 0;  // before its number may be somebody else's
    while (::waitpid(fProcess, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void Browser::killAny() noexcept {
    const pid_t process = running;
    if (process == 0) return;
    ::kill(-process, SIGKILL);
    siginfo_t ended{};
    ::waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOWAIT);
}

void Browser::start(const std::string& path, const std::string& folder) {
    std::vector<std::string> words{path,
                                   "--headless",
                                   "--disable-gpu",
                                   "--hide-scrollbars",
                                   "--no-first-run",
                                   "--disable-background-networking",
                                   "--disable-component-update",
                                   "--remote-debugging-pipe",
                                   "--user-data-dir=" + folder};
    // Its sandbox wants a user who is not root. What it opens is our own page.
    if (::geteuid() == 0) words.emplace_back("--no-sandbox");
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (auto& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions{};
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fHears.reading(), kHears);
    posix_spawn_file_actions_adddup2(&actions, fSays.writing(), kSays);
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
        posix_spawn_file_actions_addopen(&actions, stream, "/dev/null", O_WRONLY, 0);
    }
    const process::Separately separately;
    const int error = ::posix_spawn(&fProcess, path.c_str(), &actions, separately.get(),
                                    arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) fail(error, path + ": cannot be started");
    running = fProcess;
}

json::object Browser::call(std::string_view method, json::object parameters,
                           std::string_view session) {
    json::object message{{"id", ++fNumber}, {"method", method}, {"params", std::move(parameters)}};
    if (!session.empty()) message["sessionId"] = session;
    send(json::serialize(message));
    for (;;) {
        auto answer = receive();
        const auto* id = answer.if_contains("id");
        if (id == nullptr || *id != fNumber) continue;
        if (auto* result = answer.if_contains("result")) return std::move(result->as_object());
        throw std::runtime_error("the browser refuses " + std::string(method));
    }
}

void Browser::send(std::string_view text) const {
    std::string bytes(text);
    bytes += '\0';
    if (!process::writeAll(fHears.writing(), bytes)) {
        throw std::runtime_error("the browser has ended");
    }
}

json::object Browser::receive() {
    constexpr std::size_t kMost = std::size_t{256} << 20U;
    for (;;) {
        const auto end = fRead.find('\0');
        if (end != std::string::npos) {
            const auto message = json::parse(fRead.substr(0, end));
            fRead.erase(0, end + 1);
            return message.as_object();
        }
        if (!untilReadable()) throw std::runtime_error("the browser does not answer");
        std::array<char, 65536> bytes{};
        const auto count = ::read(fSays.reading(), bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0 || fRead.size() > kMost) throw std::runtime_error("the browser has ended");
        fRead.append(bytes.data(), static_cast<std::size_t>(count));
    }
}

bool Browser::untilReadable() const {
    using std::chrono::milliseconds;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<milliseconds>(fDeadline - std::chrono::steady_clock::now());
        pollfd end{fSays.reading(), POLLIN, 0};
        const int count =
            ::poll(&end, 1, static_cast<int>(std::max<milliseconds::rep>(0, left.count())));
        if (count >= 0 || errno != EINTR) return count > 0;
    }
}

}  // namespace recording_tool
