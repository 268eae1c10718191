// Sequences of operations on a sender: what it accepts arrives once and in order, after the
// client's announcement and not before.
#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Binary.hpp"
#include "Fuzz.hpp"
#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/JSONObject.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/StringPayload.hpp"
#include "kiro/web/Subscriber.hpp"

namespace {

using fuzz::require;
using kiro::web::JSONObject;
using Numbers = std::vector<unsigned long>;

/// The number of a message: of a command, or of the block that it carries as text.
unsigned long numberOf(const JSONObject& message) {
    unsigned long number = 0;
    if (message.getValue("number", number)) return number;
    const auto names = message.getObject("data").getNames();
    support::DataID id;
    require(names.size() == 1 && support::DataID::construct_from_string(names.front(), id),
            "a message is a command or one block");
    return id.value();
}

/// One sender, its client, and what the client should get.
class Run {
  public:
    explicit Run(FuzzedDataProvider& input)
        : fName(input.ConsumeRandomLengthString(32)), fSender(std::in_place, fName) {
        fSubscriber =
            subscribe(fuzz::endpoint(), fName,
                      [client = fClient, name = fName](const auto& channel, const auto& payload) {
                          // A name that ends in "/*" hears the announcement too.
                          if (channel != name) return;
                          client->add(numberOf(JSONObject(payload.convertToString())));
                      });
    }

    void step(FuzzedDataProvider& input) {
        switch (input.ConsumeIntegralInRange(0, 5)) {
            case 0:
            case 1:
                sendCommand();
                break;
            case 2:
                fSender->sendBinaryData(support::payloadOf({fNext}));
                accept(fInOrder);
                break;
            case 3:
                fSender->sendBinaryDataAsync(support::payloadOf({fNext}));
                // While it queues, an asynchronous send takes its place among the others.
                accept(fIsReady ? fAnyOrder : fInOrder);
                fSender->removeFinishedAsyncTasksFromCache();
                break;
            case 4:
                announce(input.ConsumeRandomLengthString(64));
                break;
            default:
                fSender->setEnable(input.ConsumeBool());
        }
        require(fIsReady || fClient->size() == 0, "nothing goes out before");
    }

    void finish() {
        fSender.reset();  // waits for what is under way
        auto arrived = fClient->all();
        if (!fIsReady)
            return require(arrived.empty(), "a backlog that nobody asked for is dropped");
        require(inOrder() == fInOrder, "each once, in order");
        fInOrder.insert(fInOrder.end(), fAnyOrder.begin(), fAnyOrder.end());
        std::ranges::sort(arrived);
        std::ranges::sort(fInOrder);
        require(arrived == fInOrder, "everything that was accepted, each once");
    }

  private:
    void sendCommand() {
        kiro::web::JSONPayload payload;
        payload.addDataToPayload("number", fNext);
        fSender->sendCommand("c", std::move(payload));
        if (fSender->isEnabled()) accept(fInOrder);
    }

    void accept(Numbers& numbers) {
        numbers.push_back(fNext++);
        // Once the client is ready a send is over when it returns, and all before it.
        const bool isOver = fIsReady && &numbers == &fInOrder;
        require(!isOver || inOrder() == fInOrder, "sent when it returns");
    }

    /// What arrived and has a place of its own.
    [[nodiscard]] Numbers inOrder() const {
        auto numbers = fClient->all();
        std::erase_if(numbers, [this](unsigned long number) {
            return std::ranges::binary_search(fAnyOrder, number);
        });
        return numbers;
    }

    void announce(const std::string& text) {
        kiro::web::StringPayload payload(text);
        fuzz::endpoint()->publish(fName + "/channelReady", payload);
        fIsReady = true;
    }

    const std::string fName;
    const std::shared_ptr<support::Collector<unsigned long>> fClient =
        std::make_shared<support::Collector<unsigned long>>();
    std::unique_ptr<kiro::web::Subscriber> fSubscriber;
    std::optional<kiro::web::BootstrappingCommandSender> fSender;
    bool fIsReady = false;
    unsigned long fNext = 4;  ///< identifiers below have a meaning of their own
    Numbers fInOrder;
    Numbers fAnyOrder;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::endpoint();
    FuzzedDataProvider input(data, size);
    Run run(input);
    while (input.remaining_bytes() > 0) run.step(input);
    run.finish();
    return 0;
}
