#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Buffers.hpp"
#include "kirogateway/Gateway.hpp"
#include "kirohost/Controls.hpp"
#include "kiroutils/Logger.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"
#include "relay/message_service/MessageService.hpp"
#include "secret/Secrets.hpp"

/// A gateway and an engine that does what lines on standard input say, and says on standard output
/// what it hears. Texts and names of channels go in hexadecimal.
namespace {

using relay::binary::experimental::BinaryStream;
using relay::binary::experimental::SendResult;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

std::string hexOf(std::string_view text) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string hex = "-";  // so that an empty text is a word, too
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        hex += {kDigits[byte >> 4U], kDigits[byte & 15U]};
    }
    return hex;
}

std::string textOf(const std::string& hex) {
    std::string text;
    for (std::size_t i = 1; i + 1 < hex.size(); i += 2) {
        text += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return text;
}

void say(const std::string& line) {
    static std::mutex mutex;
    const std::scoped_lock lock(mutex);
    std::cout << line << std::endl;
}

/// The shortest time, over many tries, that a comparison of `given` with `secret` takes.
double nanosecondsOf(const std::string& given, const std::string& secret) {
    constexpr int kTries = 400;
    constexpr int kCalls = 500;
    double best = 1e9;
    for (int i = 0; i < kTries; ++i) {
        const auto begin = steady_clock::now();
        volatile bool result = false;
        for (int call = 0; call < kCalls; ++call) result = secret::isSecret(given, secret);
        static_cast<void>(result);
        const std::chrono::duration<double, std::nano> took = steady_clock::now() - begin;
        best = std::min(best, took.count() / kCalls);
    }
    return best;
}

void timeComparisons() {
    const std::string secret(64, 'a');
    std::string answer = "times";
    for (const std::size_t wrongAt : {0U, 1U, 31U, 32U, 63U}) {
        auto given = secret;
        given[wrongAt] = 'b';
        answer += " " + std::to_string(nanosecondsOf(given, secret));
    }
    say(answer);
}

class Engine {
  public:
    explicit Engine(const kirogateway::Options& options) {
        relay::getRelay();
        fService = relay::message_service::createMessageService("engine", {}).get();
        for (const char* channel : {"/views", "/returns", "/up/*", ""}) {
            fSubscriptions.push_back(
                fService
                    ->subscribe(channel,
                                [](const relay::message_service::JsonMessage& message) {
                                    const std::string_view text(message.json, message.length);
                                    say("heard " + hexOf(message.channel) + " " + hexOf(text));
                                })
                    .get());
        }
        fGateway = std::make_unique<kirogateway::Gateway>(options);
        say("ready " + fGateway->link());
    }

    /// Until standard input ends. Every 10 ms there is a further text on "/beat".
    void run() {
        auto next = steady_clock::now();
        std::string unread;
        for (std::uint64_t beat = 0;;) {
            const auto now = steady_clock::now();
            if (now >= next) {
                publish("/beat", std::to_string(beat++));
                next = now + milliseconds(10);
            }
            pollfd input{STDIN_FILENO, POLLIN, 0};
            if (::poll(&input, 1, 10) <= 0) continue;
            char bytes[65536];
            const auto got = ::read(STDIN_FILENO, bytes, sizeof bytes);
            if (got <= 0) return fGateway->stop();
            unread.append(bytes, static_cast<std::size_t>(got));
            for (auto end = unread.find('\n'); end != std::string::npos; end = unread.find('\n')) {
                obey(unread.substr(0, end));
                unread.erase(0, end + 1);
            }
        }
    }

  private:
    void obey(const std::string& line) {
        std::istringstream words(line);
        std::string verb;
        std::string channel;
        std::string argument;
        words >> verb >> channel >> argument;
        if (verb == "text") publish(textOf(channel), textOf(argument));
        if (verb == "block") sendBlock(textOf(channel), textOf(argument));
        if (verb == "listen") listen(textOf(channel));
        if (verb == "code") say("code " + fGateway->singleUseLink());
        if (verb == "times") timeComparisons();
        if (verb == "log") kiroutils::Logger::instance().log("engine", textOf(channel));
    }
    void publish(const std::string& channel, const std::string& text) {
        fService->publish(channel, {channel, text.data(), text.size()});
    }
    BinaryStream& streamOf(const std::string& channel) {
        auto& stream = fStreams[channel];
        if (stream == nullptr) {
            stream = relay::binary::experimental::createBinaryStream(channel,
                                                                     {{"returnOnFail", "true"}});
        }
        return *stream;
    }
    void listen(const std::string& channel) {
        streamOf(channel).receive([channel](relay::common::DataBuffer&& block) {
            say("block " + hexOf(channel) + " " + hexOf(support::bytesOf(block)));
        });
        say("listening " + hexOf(channel));
    }
    void sendBlock(const std::string& channel, const std::string& bytes) {
        streamOf(channel)
            .send(support::bufferOf(bytes))
            .then([channel](relay::Future<SendResult> sent) {
                say("sent " + hexOf(channel) + (sent.get().delivered ? " yes" : " no"));
            });
    }

    std::shared_ptr<relay::message_service::MessageService> fService;
    std::vector<std::shared_ptr<relay::message_service::Subscription>> fSubscriptions;
    std::map<std::string, std::shared_ptr<BinaryStream>> fStreams;
    std::unique_ptr<kirogateway::Gateway> fGateway;
};

kirogateway::Options optionsOf(int count, char** words) {
    using kirogateway::Limits;
    const std::map<std::string, std::size_t Limits::*> sizes{
        {"headerSize", &Limits::headerSize},
        {"messageSize", &Limits::messageSize},
        {"namesPerFrame", &Limits::namesPerFrame},
        {"connections", &Limits::connections},
        {"unauthenticatedConnections", &Limits::unauthenticatedConnections},
        {"subscriptions", &Limits::subscriptions},
        {"queueSize", &Limits::queueSize},
        {"pieceSize", &Limits::pieceSize},
        {"lostViews", &Limits::lostViews},
        {"readRate", &Limits::readRate}};
    const std::map<std::string, milliseconds Limits::*> times{
        {"request", &Limits::request},   {"hello", &Limits::hello}, {"queue", &Limits::queue},
        {"block", &Limits::block},       {"ping", &Limits::ping},   {"gone", &Limits::gone},
        {"comeback", &Limits::comeback}, {"close", &Limits::close}, {"code", &Limits::code}};
    kirogateway::Options options;
    options.mayPublish = {"/up/*", ""};
    options.maySubscribe = {"/beat", "/to/*", "/up/*", ""};
    options.newViewChannel = "/views";
    options.reconnectChannel = "/returns";
    options.configuration = R"({"figures":["/fig/1"]})";
    options.extraHosts = {"plot.example"};
    options.extraOrigins = {"http://dev.example:5173"};
    std::string script;
    for (int i = 0; i < 1000; ++i) script += "// line " + std::to_string(i * i) + "\n";
    options.assets = {{"/", "text/html; charset=utf-8", "<p>page"},
                      {"/a.js", "text/javascript", script}};
    for (int i = 1; i < count; ++i) {
        const std::string word = words[i];
        const auto name = word.substr(0, word.find('='));
        const auto value = word.substr(word.find('=') + 1);
        if (name == "tls") {
            options.certificateFile = options.keyFile = value;
        } else if (sizes.contains(name)) {
            options.limits.*sizes.at(name) = std::stoul(value);
        } else {
            options.limits.*times.at(name) = milliseconds(std::stol(value));
        }
    }
    return options;
}

}  // namespace

int main(int count, char** words) {
    const auto observing = kirohost::observeLog(
        [](const kirohost::LogRecord& record) { say("log " + hexOf(record.text)); });
    try {
        Engine(optionsOf(count, words)).run();
        say("stopped");
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "kiroweb_prove_hostile: " << error.what() << '\n';
        return 1;
    }
}
