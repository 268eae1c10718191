// The whole of an engine's link in a process with a host, over a cluster that is a function call.
#include "kirolink/Link.hpp"

#include <gmock/gmock.h>
#include <unistd.h>

#include <boost/json.hpp>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <stdexcept>

#include "Buffers.hpp"
#include "Collector.hpp"
#include "GatewayEnd.hpp"
#include "NatsCluster.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"
#include "relay/message_service/MessageService.hpp"

namespace link_test {
namespace {

using namespace kirolink;
using testing::ElementsAre;
using testing::HasSubstr;

/// Brings each message within `publish`.
class Loopback final : public Cluster {
  public:
    bool publish(const std::string& subject, Bytes bytes) noexcept override {
        std::vector<Listener> listeners;
        {
            const std::lock_guard lock(mutex());
            for (const auto& [id, entry] : all()) {
                const auto& [pattern, listener] = entry;
                const bool isAny = pattern.ends_with(".*") &&
                                   subject.starts_with(pattern.substr(0, pattern.size() - 1));
                if (isAny || pattern == subject) listeners.push_back(listener);
            }
        }
        for (const auto& listener : listeners) listener(subject, *bytes);
        return true;
    }
    std::unique_ptr<Subscription> subscribe(const std::string& subject,
                                            Listener listener) override {
        const std::lock_guard lock(mutex());
        static int next = 0;
        all().emplace(++next, std::pair(subject, std::move(listener)));
        return std::make_unique<Held>(next);
    }
    [[nodiscard]] bool isConnected() const noexcept override { return true; }

  private:
    struct Held final : Subscription {
        explicit Held(int theID) : id(theID) {}
        ~Held() override {
            const std::lock_guard lock(mutex());
            all().erase(id);
        }
        const int id;
    };
    static std::mutex& mutex() {
        static std::mutex one;
        return one;
    }
    static std::map<int, std::pair<std::string, Listener>>& all() {
        static std::map<int, std::pair<std::string, Listener>> subscriptions;
        return subscriptions;
    }
};

support::Collector<NatsOptions> connections;

/// Answers every block, and says what it was given.
class Gateway final : public Follower {
  public:
    explicit Gateway(const std::string& name)
        : fEnd(fCluster, {"run-7", name, "https://" + name + "/s/run-7"}, *this) {
        fEnd.tick(std::chrono::steady_clock::now());
        EXPECT_EQ(events.take(), "joined");
    }
    PageWanted pageOffered(const PageDigest& page) noexcept override {
        EXPECT_EQ(page.files, 1U);
        return PageWanted::kHere;
    }
    void joined(const Description& session) noexcept override {
        description = session;
        events.add("joined");
    }
    void text(const std::string& channel, std::string_view text) noexcept override {
        events.add(channel + " " + std::string(text));
    }
    void block(const std::string& channel, std::shared_ptr<const std::string> block,
               std::unique_ptr<BlockTicket> ticket) noexcept override {
        events.add("block " + channel + " " + *block);
        if (*block != "keep") ticket->answer(BlockOutcome::kDelivered);
        tickets.push_back(std::move(ticket));
    }
    void silent(std::chrono::steady_clock::time_point since) noexcept override {
        static_cast<void>(since);
    }
    void heard() noexcept override {}
    void left(std::string_view why, Whose) noexcept override {
        events.add("left: " + std::string(why));
    }
    GatewayEnd* operator->() { return &fEnd; }

    Description description;
    support::Collector<std::string> events;
    std::vector<std::unique_ptr<BlockTicket>> tickets;

  private:
    Loopback fCluster;
    GatewayEnd fEnd;
};

Options usual() {
    Options options;
    options.servers = {"node:4222"};
    options.session = "run-7";
    options.mayPublish = {"/up"};
    options.maySubscribe = {"/fig"};
    options.newViewChannel = "/views";
    options.token = std::string(64, 'a');
    return options;
}

TEST(Link, CarriesWhatTheProcessAndPagesSay) {
    relay::getRelay();
    auto service = relay::message_service::createMessageService("engine", {}).get();
    support::Collector<std::string> events;
    const auto hear = [&](const relay::message_service::JsonMessage& message) {
        events.add(message.channel + " " + std::string(message.json, message.length));
    };
    const auto up = service->subscribe("/up", hear).get();
    const auto views = service->subscribe("/views", hear).get();
    auto stream = relay::binary::experimental::createBinaryStream("/fig", {});
    auto upStream = relay::binary::experimental::createBinaryStream("/up", {});
    upStream->receive([&](auto&& block) { events.add("block " + support::bytesOf(block)); });
    auto options = usual();
    options.onGateway = [&](const std::string& link) { events.add(link); };
    options.onLastPageGone = [&] { events.add("last page gone"); };
    Link link(options);
    EXPECT_THAT(connections.take().servers, ElementsAre("node:4222"));
    EXPECT_FALSE(stream->send(support::bufferOf("nobody")).get().delivered);

    Gateway gateway("g");
    const auto address = "https://g/s/run-7/#token=" + options.token;
    EXPECT_EQ(events.take(), address);
    // The SHA-256 of 64 times "a".
    EXPECT_EQ(gateway.description.tokenHash,
              "ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb");
    service->publish("/fig", {"/fig", "draw", 4});
    EXPECT_EQ(gateway.events.take(), "/fig draw");
    EXPECT_TRUE(stream->send(support::bufferOf("data")).get().delivered);
    EXPECT_EQ(gateway.events.take(), "block /fig data");
    gateway->pages(1);
    gateway->publish("/up", "hello");
    EXPECT_EQ(events.take(), "/up hello");
    gateway->sendBlock("/up", "bytes");
    EXPECT_EQ(events.take(), "block bytes");
    gateway->announce(GatewayEnd::ViewKind::kNew, "Anna", 1);
    EXPECT_EQ(events.take(), R"(/views {"kind":"first","view":1,"client":"Anna"})");
    EXPECT_FALSE(link.lastPageGone());
    gateway->pages(0);
    EXPECT_EQ(events.take(), "last page gone");
    EXPECT_TRUE(link.lastPageGone());

    auto unanswered = stream->send(support::bufferOf("keep"));
    EXPECT_EQ(gateway.events.take(), "block /fig keep");
    link.stop();
    EXPECT_FALSE(unanswered.get().delivered);
    EXPECT_EQ(gateway.events.take(), "left: the engine is gone");
    EXPECT_THAT(link.links(), ElementsAre(address));
    const auto told = boost::json::parse(link.diagnostics()).as_object();
    EXPECT_EQ(told.at("session"), "run-7");
    EXPECT_EQ(told.at("detail").at(0).at("gateway"), "g");
    EXPECT_THAT(link.diagnostics(), testing::Not(HasSubstr(options.token)));
}

TEST(Link, RefusesWhatCannotBeMeant) {
    const auto failure = [](const std::function<void(Options&)>& change) -> std::string {
        auto options = usual();
        change(options);
        try {
            const Link link(options);
        } catch (const std::invalid_argument& error) {
            return error.what();
        }
        return "nothing thrown";
    };
    EXPECT_THAT(failure([](auto& all) { all.session = "a.b"; }), HasSubstr("session"));
    EXPECT_THAT(failure([](auto& all) { all.session.clear(); }), HasSubstr("session"));
    EXPECT_THAT(failure([](auto& all) { all.session = std::string(65, 'a'); }),
                HasSubstr("session"));
    EXPECT_THAT(failure([](auto& all) { all.memory = 1; }), HasSubstr("memory"));
    EXPECT_THAT(failure([](auto& all) { all.token = "short"; }), HasSubstr("token"));
    EXPECT_THAT(failure([](auto& all) { all.configuration = "[]"; }), HasSubstr("configuration"));
    EXPECT_THAT(failure([](auto& all) {
                    all.configuration = R"({"a":")" + std::string(1 << 20U, 'a') + "\"}";
                }),
                HasSubstr("more than goes into a message"));
    const kirogateway::Asset page{"/", "text/html", "<p>"};
    EXPECT_THAT(failure([&](auto& all) { all.assets = {page, page}; }), HasSubstr("given twice"));
    EXPECT_THAT(failure([&](auto& all) {
                    all.assets = {{"/a", "", ""}};
                }),
                HasSubstr("assets: there is none with the name \"/\""));
    for (const auto* name : {"a_b", "-a", "a-"}) {
        EXPECT_THAT(failure([&](auto& all) {
                        all.assets = {page};
                        all.session = name;
                    }),
                    HasSubstr("a part of a host's name"));
    }
}

TEST(LinkOptions, AreReadFromAFile) {
    const std::filesystem::path file =
        testing::TempDir() + "kirolink_" + std::to_string(::getpid());
    const auto load = [&file](const std::string& text) {
        std::ofstream(file) << text;
        return loadOptions(file.string());
    };
    const auto options = load(
        "# a cluster\nservers = a:4222, b:4222\nsession = run-7\ncredentials = my.creds\n"
        "ca = /etc/ca.pem\n");
    EXPECT_THAT(options.servers, ElementsAre("a:4222", "b:4222"));
    EXPECT_EQ(options.session, "run-7");
    EXPECT_EQ(options.credentials, (file.parent_path() / "my.creds").string());
    EXPECT_EQ(options.caFile, "/etc/ca.pem");
    for (const char* wrong : {"session = a\n", "servers = a\nsession = b\nport = 1\n", "what?\n"}) {
        EXPECT_THAT([&] { load(wrong); },
                    testing::ThrowsMessage<std::runtime_error>(HasSubstr(file.filename())));
    }
    std::filesystem::remove(file);
    EXPECT_THROW(static_cast<void>(loadOptions(file.string())), std::runtime_error);
}

}  // namespace
}  // namespace link_test

/// In place of the one that looks for nodes.
std::unique_ptr<kirolink::Cluster> kirolink::connectNats(NatsOptions options) {
    link_test::connections.add(std::move(options));
    return std::make_unique<link_test::Loopback>();
}
