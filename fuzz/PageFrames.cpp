// What a page sends, once its frames have been taken apart: texts, and the headers of blocks.
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>

#include "Fuzz.hpp"
#include "PageMessages.hpp"

namespace {

using fuzz::require;
namespace wire = kirogateway::wire;

void check(const wire::PageMessage& message) {
    if (const auto* hello = std::get_if<wire::Hello>(&message)) {
        require(hello->client.size() <= 256, "a client's name is short");
        require(!hello->view.empty() || hello->last == 0, "only a return has a last message");
    } else if (const auto* echo = std::get_if<wire::Echo>(&message)) {
        const auto again = wire::readFrame(wire::echoText(echo->id));
        require(again.size() == 1 && std::get<wire::Echo>(again[0]).id == echo->id,
                "an echo's answer is the same message");
    }
}

void readText(std::string_view text) {
    try {
        for (const auto& message : wire::readFrame(text)) check(message);
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
