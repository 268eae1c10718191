// Sequences of operations on a sender: what it accepts arrives once and in order, after the
// client's announcement and not before.
#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Fuzz.hpp"
#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/JSONObject.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/StringPayload.hpp"
#include "kiro/web/Subscriber.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"
#include "kiro/web/binary/BinaryDataSender.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"

namespace {

using fuzz::require;
using kiro::web::BootstrappingCommandSender;
using kiro::web::JSONObject;
using kiro::web::JSONPayload;
using kiro::web::PayloadInterface;
using kiro::web::binary::BinaryDataPayload;
using kiro::web::binary::DataID;
using relay::binary::experimental::SendResult;
using relay::common::DataBuffer;

using Numbers = std::vector<unsigned long>;

/// Identifiers of blocks begin behind those with a meaning of their own.
constexpr unsigned long kFirstNumber = 4;

/// A payload takes its texts to be UTF-8 and passes them on unchanged; these are.
std::string consumeASCII(FuzzedDataProvider& input, std::size_t maxLength) {
    auto text = input.ConsumeRandomLengthString(maxLength);
    for (auto& character : text) character = static_cast<char>(character & 0x7F);
    return text;
}

/// The client: what arrived, by number, over messages and over the binary channel. Any thread.
class Client {
  public:
    void receiveText(const std::string& text) {
        const JSONObject message(text);
        unsigned long number = 0;
        DataID id;
        if (!message.getValue("number", number)) {
            const auto names = message.getObject("data").getNames();
            require(names.size() == 1 && DataID::construct_from_string(names.front(), id),
                    "a message is a command or one block");
            number = id.value();
        }
        receive(number);
    }
    void receive(unsigned long number) {
        const std::lock_guard lock(fMutex);
        fNumbers.push_back(number);
    }
    [[nodiscard]] Numbers numbers() {
        const std::lock_guard lock(fMutex);
        return fNumbers;
    }

  private:
    std::mutex fMutex;
    Numbers fNumbers;
};

/// Delivers every block but each third, which then takes the way over the message service.
class Channel : public kiro::web::binary::BinaryDataSenderInterface {
  public:
    explicit Channel(std::shared_ptr<Client> client) : fClient(std::move(client)) {}

    SendFuture send(DataBuffer&& block) override {
        const DataBuffer owned = std::move(block);
        unsigned long number = 0;
        for (std::size_t i = 8; i-- > 0;) {
            number = (number << 8U) | static_cast<unsigned char>(owned.data()[i]);
        }
        const bool delivered = number % 3 != 0;
        if (delivered) fClient->receive(number);
        return relay::makeReadyFuture(SendResult{delivered, {}});
    }
    SendFuture send(DataID /*id*/, const char* /*data*/, std::size_t /*length*/) override {
        require(false, "a payload sends ready-made blocks");
        return {};
    }
    void warnAboutSendFailure(const std::string& /*channel*/) override {}
    void warnAboutOOMFailure() override {}

  private:
    std::shared_ptr<Client> fClient;
};

/// One sender, its client, and what the client should get.
class Run {
  public:
    explicit Run(FuzzedDataProvider& input)
        : fName(input.ConsumeRandomLengthString(32)),
          fSender(std::in_place, fName, consumeASCII(input, 8)) {
        kiro::web::binary::test::RegisterBinaryDataSenderCreationFunction(
            [client = fClient](const std::string& /*channel*/) {
                return std::make_shared<Channel>(client);
            });
        fSubscriber = subscribe(fuzz::endpoint(), fName,
                                [client = fClient, name = fName](const std::string& channel,
                                                                 const PayloadInterface& payload) {
                                    // A name that ends in "/*" hears the announcement too.
                                    if (channel == name)
                                        client->receiveText(payload.convertToString());
                                });
    }

    void step(FuzzedDataProvider& input) {
        switch (input.ConsumeIntegralInRange(0, 7)) {
            case 0:
            case 1:
                return sendCommand(consumeASCII(input, 16));
            case 2:
                fSender->sendBinaryData(nextBlock());
                return expectInOrder();
            case 3:
                return sendAsync();
            case 4:
                return announce(input.ConsumeRandomLengthString(64));
            case 5:
                return fSender->setEnable(input.ConsumeBool());
            case 6:
                // The name is set before a client can announce itself.
                if (!fIsReady) fSender->setBinaryChannelName(input.ConsumeRandomLengthString(4));
                return;
            default:
                return fSender->removeFinishedAsyncTasksFromCache();
        }
    }

    /// After each step: nothing before the client is ready.
    void check() {
        require(fSender->queryCommandSenderReadyStatus() == fIsReady, "ready once announced");
        require(fIsReady || fClient->numbers().empty(), "nothing goes out before");
    }

    /// The destructor of the sender waits for what is under way.
    void finish() {
        fSender.reset();
        auto arrived = fClient->numbers();
        if (!fIsReady)
            return require(arrived.empty(), "a backlog that nobody asked for is dropped");
        require(inOrder(arrived) == fInOrder, "each once, in order");
        auto accepted = fInOrder;
        accepted.insert(accepted.end(), fAnyOrder.begin(), fAnyOrder.end());
        std::sort(arrived.begin(), arrived.end());
        std::sort(accepted.begin(), accepted.end());
        require(arrived == accepted, "everything that was accepted, each once");
    }

  private:
    void sendCommand(const std::string& command) {
        JSONPayload payload;
        payload.addDataToPayload("number", fNext++);
        fSender->sendCommand(command, std::move(payload));
        if (fSender->isEnabled()) expectInOrder();
    }

    BinaryDataPayload nextBlock() {
        BinaryDataPayload payload;
        payload.addDataToPayloadInternalWithID("data", 4, DataID(fNext++));
        return payload;
    }

    void sendAsync() {
        fSender->sendBinaryDataAsync(nextBlock());
        // While it queues an asynchronous send takes its place among the others.
        if (fIsReady) {
            fAnyOrder.push_back(fNext - 1);
        } else {
            fInOrder.push_back(fNext - 1);
        }
    }

    /// The latest number was accepted. Once the client is ready a send is over when it returns,
    /// and all before it.
    void expectInOrder() {
        fInOrder.push_back(fNext - 1);
        if (fIsReady) require(inOrder(fClient->numbers()) == fInOrder, "sent when it returns");
    }

    /// `numbers` without those that have no place of their own.
    [[nodiscard]] Numbers inOrder(Numbers numbers) const {
        std::erase_if(numbers, [this](unsigned long number) {
            return std::binary_search(fAnyOrder.begin(), fAnyOrder.end(), number);
        });
        return numbers;
    }

    void announce(const std::string& text) {
        kiro::web::StringPayload payload(text);
        fuzz::endpoint()->publish(fName + "/channelReady", payload);
        fIsReady = true;
        int value = 0;
        const bool usingBinary =
            JSONObject(text).getValue("binaryChannelStatus", value) && value == 1;
        require(fSender->queryUsingBinary() == usingBinary, "what the announcement says");
    }

    const std::string fName;
    const std::shared_ptr<Client> fClient = std::make_shared<Client>();
    std::unique_ptr<kiro::web::Subscriber> fSubscriber;
    std::optional<BootstrappingCommandSender> fSender;
    bool fIsReady = false;
    unsigned long fNext = kFirstNumber;
    Numbers fInOrder;
    Numbers fAnyOrder;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::endpoint();
    FuzzedDataProvider input(data, size);
    Run run(input);
    while (input.remaining_bytes() > 0) {
        run.step(input);
        run.check();
    }
    run.finish();
    return 0;
}
