#include "kiro/web/binary/BinaryDataReceiver.hpp"

#include <utility>

#include "BinaryReceiverRegistry.hpp"
#include "BinaryStreams.hpp"
#include "Replaceable.hpp"
#include "bedrock/usm/thisthread.hpp"
#include "process/Immortal.hpp"

namespace kiro::web::binary {

namespace {

class BinaryDataReceiver : public BinaryDataReceiverInterface {
  public:
    explicit BinaryDataReceiver(std::shared_ptr<relay::binary::experimental::BinaryStream> stream)
        : fStream(std::move(stream)) {}

    void receive(ReceiveCallback callback) override { fStream->receive(std::move(callback)); }

  private:
    std::shared_ptr<relay::binary::experimental::BinaryStream> fStream;
};

using ReceiverCreation =
    Replaceable<std::shared_ptr<BinaryDataReceiverInterface>(const std::string&)>;

std::shared_ptr<BinaryDataReceiverInterface> createReceiver(const std::string& channel) {
    return std::make_shared<BinaryDataReceiver>(streamOfChannel(channel));
}

ReceiverCreation& receiverCreation() {
    static Immortal<ReceiverCreation> creation(&createReceiver);
    return *creation;
}

}  // namespace

BinaryDataReceiverInterface::~BinaryDataReceiverInterface() = default;

std::shared_ptr<BinaryDataReceiverInterface> createBinaryDataReceiver(const std::string& channel) {
    return receiverCreation()(channel);
}

IdToBinaryDataReceiver::IdToBinaryDataReceiver() : fImpl(std::make_unique<Impl>()) {}

IdToBinaryDataReceiver::~IdToBinaryDataReceiver() = default;

IdToBinaryDataReceiver& IdToBinaryDataReceiver::getInstance() {
    return bedrock::usm::thisthread::findOrInsert<IdToBinaryDataReceiver>();
}

std::shared_ptr<BinaryDataReceiverInterface>& IdToBinaryDataReceiver::getOrCreateStreamChannel(
    const std::string& channel) {
    return fImpl->fReceivers[channel];
}

namespace test {

BinaryDataReceiverCreationFunction RegisterBinaryDataReceiverCreationFunction(
    BinaryDataReceiverCreationFunction f) {
    return receiverCreation().exchange(std::move(f));
}

NullBinaryDataReciever::NullBinaryDataReciever() = default;
NullBinaryDataReciever::~NullBinaryDataReciever() = default;
void NullBinaryDataReciever::receive(ReceiveCallback /*callback*/) {}

}  // namespace test
}  // namespace kiro::web::binary
