// What a page sends, once its frames have been taken apart: texts, and the headers of blocks.
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "FrameReader.hpp"
#include "Fuzz.hpp"
#include "PageMessages.hpp"

namespace {

using fuzz::require;
namespace wire = kirogateway::wire;

/// The messages of `text`, which comes in two parts.
std::vector<wire::PageMessage> messagesOf(std::string_view text, std::size_t cut) {
    constexpr std::size_t kMaxNames = 16;
    kirogateway::FrameReader reader(kMaxNames);
    std::vector<wire::PageMessage> messages;
    const kirogateway::FrameReader::Handler keep = [&](wire::PageMessage&& message) {
        messages.push_back(std::move(message));
        return true;
    };
    reader.read(text.substr(0, cut), false, keep);
    reader.read(text.substr(cut), true, keep);
    require(reader.held() == 0, "nothing is held between frames");
    return messages;
}

void check(const wire::PageMessage& message) {
    if (const auto* hello = std::get_if<wire::Hello>(&message)) {
        require(hello->client.size() <= wire::kMaxClient, "a client's name is short");
        require(!hello->view.empty() || hello->last == 0, "only a return has a last message");
        require(hello->refused.size() <= wire::kMaxRefused, "so many blocks are refused at most");
    } else if (const auto* echo = std::get_if<wire::Echo>(&message)) {
        const auto again = messagesOf(wire::echoText(echo->id), 0);
        require(again.size() == 1 && std::get<wire::Echo>(again[0]).id == echo->id,
                "an echo's answer is the same message");
    }
}

void readText(std::string_view text) {
    try {
        const std::size_t cut =
            text.empty() ? 0 : static_cast<unsigned char>(text[0]) % text.size();
        const auto messages = messagesOf(text, cut);
        for (const auto& message : messages) check(message);
        require(messagesOf(text, 0).size() == messages.size(), "a cut is not seen");
    } catch (const std::runtime_error& error) {
        const std::string_view reason = error.what();
        require(!reason.empty() && reason.size() < 100, "the reason fits into a close frame");
    }
}

void readBlock(const std::string& frame) {
    const auto header = wire::BlockHeader::read(frame);
    if (!header) return;
    std::string again(wire::BlockHeader::kSize, '\0');
    header->write(again.data());
    again[1] = static_cast<char>(again[1] | (frame[1] & ~1));  // flags of later versions
    require(frame.starts_with(again), "a header is written as it is read");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string frame(data, data + size);
    readText(frame);
    readBlock(frame);
    return 0;
}
