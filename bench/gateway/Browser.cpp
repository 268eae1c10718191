#include "Browser.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <boost/json.hpp>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "Client.hpp"

namespace bench {

namespace {

namespace beast = boost::beast;
namespace json = boost::json;
using boost::asio::ip::tcp;

std::filesystem::path makeProfile() {
    auto name = (std::filesystem::temp_directory_path() / "kiroweb-bench-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("no folder for a profile");
    return name;
}

/// Without a word on the standard outputs.
pid_t start(std::vector<std::string> arguments) {
    std::vector<char*> pointers;
    for (auto& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t process = 0;
    const auto error =
        posix_spawnp(&process, pointers.front(), &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::system_error(error, std::generic_category(), arguments.front());
    return process;
}

/// The browser writes down where its interface is, once it is there.
std::uint16_t portOf(const std::filesystem::path& profile) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < end) {
        std::ifstream file(profile / "DevToolsActivePort");
        std::uint16_t port = 0;
        if (file >> port) return port;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    throw std::runtime_error("the browser does not say its port");
}

}  // namespace

Browser::Browser(const std::string& link) : fProfile(makeProfile()) {
    std::vector<std::string> arguments{"chromium",
                                       "--headless",
                                       "--disable-gpu",
                                       "--disable-quic",
                                       "--no-first-run",
                                       "--disable-background-networking",
                                       "--disable-component-update",
                                       "--disable-sync",
                                       "--remote-debugging-port=0",
                                       "--user-data-dir=" + fProfile.string(),
                                       link};
    // The sandbox wants a user who is not root.
    if (::geteuid() == 0) arguments.insert(arguments.begin() + 1, "--no-sandbox");
    fProcess = start(std::move(arguments));
}

std::string Browser::ask(const std::string& request) {
    const auto port = portOf(fProfile);
    const Socket socket(port);
    socket.send(request + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n\r\n");
    const std::string length = "Content-Length:";
    std::string answer;
    for (;;) {
        std::array<char, 4096> bytes;
        answer.append(bytes.data(), socket.receive(bytes.data(), bytes.size()));
        const auto head = answer.find("\r\n\r\n");
        const auto at = answer.find(length);
        if (head == std::string::npos || at == std::string::npos) continue;
        const auto size = std::stoul(answer.substr(at + length.size()));
        if (answer.size() >= head + 4 + size) return answer.substr(head + 4);
    }
}

std::string Browser::open(const std::string& link) {
    std::string address = link;
    // What would be taken for the end of the request's own address.
    for (auto at = address.find('#'); at != std::string::npos; at = address.find('#')) {
        address.replace(at, 1, "%23");
    }
    const auto answer = ask("PUT /json/new?" + address);
    const std::string begin = R"("id": ")";
    const auto from = answer.find(begin);
    if (from == std::string::npos) throw std::runtime_error("the browser opens no tab: " + answer);
    const auto to = answer.find('"', from + begin.size());
    return answer.substr(from + begin.size(), to - from - begin.size());
}

void Browser::close(const std::string& tab) { ask("GET /json/close/" + tab); }

std::string Browser::evaluate(const std::string& tab, const std::string& expression) {
    const auto port = portOf(fProfile);
    boost::asio::io_context context;
    beast::websocket::stream<tcp::socket> socket(context);
    socket.next_layer().connect({boost::asio::ip::address_v4::loopback(), port});
    socket.handshake("127.0.0.1:" + std::to_string(port), "/devtools/page/" + tab);
    const json::object parameters{
        {"expression", expression}, {"awaitPromise", true}, {"returnByValue", true}};
    socket.write(boost::asio::buffer(json::serialize(
        json::object{{"id", 1}, {"method", "Runtime.evaluate"}, {"params", parameters}})));
    beast::flat_buffer buffer;
    socket.read(buffer);
    const auto answer = json::parse(beast::buffers_to_string(buffer.data()));
    const auto* const value = answer.as_object().if_contains("result");
    const bool isThrown = value == nullptr || value->as_object().contains("exceptionDetails");
    if (isThrown) throw std::runtime_error(json::serialize(answer));
    return json::serialize(value->at("result").at("value"));
}

Browser::~Browser() {
    ::kill(fProcess, SIGKILL);
    ::waitpid(fProcess, nullptr, 0);
    std::error_code ignored;
    std::filesystem::remove_all(fProfile, ignored);
}

}  // namespace bench
