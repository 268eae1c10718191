#include "kiro/web/binary/BinaryDataSender.hpp"

#include <stdexcept>
#include <utility>

#include "BinaryCompletion.hpp"
#include "BinaryStreams.hpp"
#include "Block.hpp"
#include "InterpreterWarnings.hpp"
#include "Replaceable.hpp"
#include "component_Quarn/catalog_graphics.hpp"
#include "process/Immortal.hpp"

namespace kiro::web::binary {

namespace catalog = component_Quarn::catalog_graphics;
using relay::binary::experimental::SendResult;
using relay::common::DataBuffer;

namespace {

constexpr const char* kSource = "src/BinaryDataSender";

class BinaryDataSender : public BinaryDataSenderInterface,
                         public std::enable_shared_from_this<BinaryDataSender> {
  public:
    explicit BinaryDataSender(std::shared_ptr<relay::binary::experimental::BinaryStream> stream)
        : fStream(std::move(stream)) {}

    /// Nobody sends any more; completions under way may still warn.
    void letGoOfStream() { const auto gone = std::move(fStream); }

    SendFuture send(DataBuffer&& block) override { return fStream->send(std::move(block)); }

    SendFuture send(DataID id, const char* data, std::size_t length) override {
        try {
            return fStream->send(buildBlock(id, data, length));
        } catch (const std::runtime_error&) {
            warnAboutOOMFailure();
            char missing[kBlockHeaderSize];
            writeID(id, missing);
            return fStream->send(buildBlock(kOutOfMemoryID, missing, sizeof missing));
        }
    }

    void warnAboutSendFailure(const std::string& channel) override {
        postWarning(bedrock::core::messageId<catalog::key_GraphicsBinarySendFailure>(), {channel},
                    kSource);
    }

    void warnAboutOOMFailure() override { postOutOfMemoryWarning(kSource); }

  private:
    std::shared_ptr<relay::binary::experimental::BinaryStream> fStream;
};

using SenderCreation = Replaceable<std::shared_ptr<BinaryDataSenderInterface>(const std::string&)>;

/// A sender that holds its stream as long as somebody may send with it. Completions hold the
/// sender itself (see `referenceForCompletion`), so that a stream does not keep itself alive
/// through the sends that it has not answered: it ends with its last user, and answers them.
std::shared_ptr<BinaryDataSenderInterface> createSender(const std::string& channel) {
    auto sender = std::make_shared<BinaryDataSender>(streamOfChannel(channel));
    auto* const interface = static_cast<BinaryDataSenderInterface*>(sender.get());
    return {interface, [sender = std::move(sender)](BinaryDataSenderInterface* /*interface*/) {
                sender->letGoOfStream();
            }};
}

SenderCreation& senderCreation() {
    static Immortal<SenderCreation> creation(&createSender);
    return *creation;
}

}  // namespace

std::shared_ptr<BinaryDataSenderInterface> referenceForCompletion(
    const std::shared_ptr<BinaryDataSenderInterface>& sender) {
    auto* const own = dynamic_cast<BinaryDataSender*>(sender.get());
    return own != nullptr ? own->shared_from_this() : sender;
}

BinaryDataSenderInterface::~BinaryDataSenderInterface() = default;

std::shared_ptr<BinaryDataSenderInterface> createBinaryDataSender(const std::string& channel) {
    return senderCreation().current()(channel);
}

namespace test {

BinaryDataSenderCreationFunction RegisterBinaryDataSenderCreationFunction(
    BinaryDataSenderCreationFunction f) {
    return senderCreation().exchange(std::move(f));
}

NullBinaryDataSender::NullBinaryDataSender() = default;
NullBinaryDataSender::~NullBinaryDataSender() = default;

BinaryDataSenderInterface::SendFuture NullBinaryDataSender::send(DataBuffer&& block) {
    const DataBuffer dropped = std::move(block);
    return relay::makeReadyFuture(SendResult{true, {}});
}

BinaryDataSenderInterface::SendFuture NullBinaryDataSender::send(DataID /*id*/,
                                                                 const char* /*data*/,
                                                                 std::size_t /*length*/) {
    return relay::makeReadyFuture(SendResult{true, {}});
}

void NullBinaryDataSender::warnAboutSendFailure(const std::string& /*channel*/) {}
void NullBinaryDataSender::warnAboutOOMFailure() {}

}  // namespace test
}  // namespace kiro::web::binary
