// What only the stand-in host does: blocks that nobody answers, its end, bounds of its history.

#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Buffers.hpp"
#include "kirohost/Controls.hpp"
#include "kiroutils/Logger.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"
#include "relay/message_service/MessageService.hpp"

namespace {

using namespace relay::binary::experimental;
using namespace relay::message_service;
using support::bufferOf;
using support::bytesOf;

using Lines = std::vector<std::string>;

std::shared_ptr<MessageService> makeService() {
    relay::getRelay();
    return createMessageService("test", {}).get();
}

void publish(MessageService& service, const std::string& channel, const std::string& text) {
    (void)service.publish(channel, {channel, text.data(), text.size()});
}

// A completion may keep the stream, as the library's do: then its own destructor answers nothing.
TEST(OpenBlocks, CompleteOnceWhenTheirInterpreterGoes) {
    std::vector<Delivery> kept;
    const ClientEnd end("/open",
                        [&kept](Delivery delivery) { kept.push_back(std::move(delivery)); });
    std::optional<kirohost::Vm> vm(std::in_place);
    const auto stream = [&] {
        const auto binding = vm->bindThisThread();
        return createBinaryStream("/open", {{"returnOnFail", "true"}});
    }();
    Lines answers;
    const auto send = [&answers, &stream](const char* what) {
        (void)stream->send(bufferOf(what)).then([&answers, stream](auto&& future) {
            const auto result = future.get();
            answers.push_back(bytesOf(result.buffer) + (result.delivered ? " delivered" : ""));
        });
    };
    send("1");
    EXPECT_EQ(answers, Lines());
    vm.reset();
    send("2");
    EXPECT_EQ(answers, (Lines{"1", "2"}));
    ASSERT_EQ(kept.size(), 1U) << "a stream whose interpreter has gone sends nothing";
    EXPECT_EQ(bytesOf(kept[0].block()), "1") << "the client may go on reading";
    kept[0].deliver();
    EXPECT_EQ(answers.size(), 2U) << "once each";
    EXPECT_EQ(stream.use_count(), 1) << "nothing keeps what is answered";
}

[[noreturn]] void exitWhileAHandlerWaitsForThisThread() {
    // Runs after the bus has stopped: nothing more is delivered and nobody waits for it.
    std::atexit([] {
        publish(*makeService(), "/exit", "{}");
        kirohost::waitForDelivery();
    });
    const auto service = makeService();
    std::promise<void> entered;
    std::promise<void> never;
    int calls = 0;
    const Handler handler = [&entered, &never, &calls](const JsonMessage&) {
        if (++calls == 1) entered.set_value();
        never.get_future().wait();
    };
    const auto subscription = service->subscribe("/exit", handler).get();
    for (int number = 0; number < 1000; ++number) publish(*service, "/exit", "{}");
    entered.get_future().wait();
    std::exit(0);
}

TEST(ProcessExit, WaitsForNoRunningHandler) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exitWhileAHandlerWaitsForThisThread(), testing::ExitedWithCode(0), "");
}

TEST(LogHistory, KeepsTheNewestWithinItsEntriesAndItsBytes) {
    auto& logger = kiroutils::Logger::instance();
    const std::string name = "test/history";
    logger.setHistoryEnabled(name, true, 3, false);
    logger.setMaxHistoryBytes(8);
    const std::pair<std::string, std::vector<std::string>> steps[] = {
        {"aaaa", {"aaaa"}},   {"bbbb", {"aaaa", "bbbb"}},
        {"c", {"bbbb", "c"}}, {"longer than all", {"longer than all"}},
        {"", {""}},
    };
    for (const auto& [text, kept] : steps) {
        logger.log(name, text);
        EXPECT_EQ(logger.history(name), kept) << text;
    }
    logger.setMaxHistoryBytes(std::size_t{16} << 20U);
    logger.setHistoryEnabled(name, false, 0, false);
}

}  // namespace
