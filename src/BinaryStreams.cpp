#include "BinaryStreams.hpp"

#include <stdexcept>
#include <utility>

#include "BinaryReceiverRegistry.hpp"
#include "Replaceable.hpp"
#include "TestableMapStorage.hpp"
#include "bedrock/usm/thisthread.hpp"
#include "kiro/web/binary/BinaryDataSender.hpp"
#include "kiro/web/binary/BinaryStreamLifeCycle.hpp"
#include "process/Immortal.hpp"

namespace kiro::web::binary {

namespace experimental = relay::binary::experimental;

namespace {

/// The streams of one interpreter VM by channel name.
struct IdToKiroBinaryStream {
    TestableMapStorage<std::shared_ptr<experimental::BinaryStream>> streams;
};

IdToKiroBinaryStream& streamRegistry() {
    return bedrock::usm::thisthread::findOrInsert<IdToKiroBinaryStream>();
}

std::shared_ptr<experimental::BinaryStream> createStream(const std::string& channel) {
    return experimental::createBinaryStream(channel, {{"returnOnFail", "true"}});
}

using StreamCreation = Replaceable<std::shared_ptr<experimental::BinaryStream>(const std::string&)>;

StreamCreation& streamCreation() {
    static Immortal<StreamCreation> creation(&createStream);
    return *creation;
}

}  // namespace

std::shared_ptr<experimental::BinaryStream> streamOfChannel(const std::string& channel) {
    auto& streams = streamRegistry().streams;
    const auto found = streams.find(channel);
    if (found != streams.end()) return found->second;
    auto stream = streamCreation()(channel);
    if (stream == nullptr) {
        throw std::runtime_error("no binary stream could be made for the channel " + channel);
    }
    return streams.emplace(channel, std::move(stream)).first->second;
}

void BinaryStreamLifeCycle::initBinaryStream(const std::string& channel) {
    static_cast<void>(streamOfChannel(channel));
}

void BinaryStreamLifeCycle::destroyBinaryStream(const std::string& channel) {
    // Out of the registry before it ends: its unanswered sends may lead back here.
    const auto gone = streamRegistry().streams.extract(channel);
}

void BinaryStreamLifeCycle::destroyBinaryDataReceiver(const std::string& channel) {
    const auto gone = IdToBinaryDataReceiver::getInstance().fImpl->fReceivers.extract(channel);
}

namespace test {

BinaryStreamCreationFunction RegisterBinaryStreamCreationFunction(BinaryStreamCreationFunction f) {
    return streamCreation().exchange(std::move(f));
}

}  // namespace test
}  // namespace kiro::web::binary
