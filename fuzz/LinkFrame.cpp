// A frame of a link, from either end, or a page that an engine brings: whatever is read is within
// its bounds, and stays what it is when it is written again.
#include "Frame.hpp"

#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>

#include "Fuzz.hpp"
#include "OwnPage.hpp"

namespace {

using fuzz::require;
using namespace kirolink;

void check(const frame::Body& body) {
    if (const auto* texts = std::get_if<frame::Texts>(&body)) {
        require(!texts->records.empty(), "a batch has a text");
        std::string space;
        for (const auto& record : texts->records) {
            require(canBeNamed(record.channel), "a channel can be named");
            require(textOf(record, space).size() <= record.text.size(), "decoding shortens");
        }
    } else if (const auto* piece = std::get_if<frame::Piece>(&body)) {
        require(piece->offset + piece->bytes.size() <= piece->total, "a piece is in its whole");
        Assembly assembly(kMaxFrame);
        const auto result = assembly.add(*piece);
        require(piece->offset == 0 || result == Assembly::Result::kBad, "a whole has a beginning");
    } else if (const auto* ask = std::get_if<frame::Ask>(&body)) {
        std::uint64_t end = 1;
        for (const auto& range : ask->ranges) {
            require(end <= range.first && range.first <= range.last, "ranges ascend");
            end = range.last + 1;
        }
    } else if (const auto* welcome = std::get_if<frame::Welcome>(&body)) {
        require(canBeSent(welcome->session), "what came can be sent");
    } else if (const auto* part = std::get_if<frame::Part>(&body)) {
        require(!part->bytes.empty() && part->bytes.size() <= kPagePart, "a part is one");
    }
}

void checkPage(std::string_view bytes) {
    const auto files = readPage(bytes);
    if (!files) return;
    require(!files->empty() && files->size() <= kMostFiles, "a page has files");
    try {
        require(writePage(*files) == bytes, "a page is the same once more");
    } catch (const std::invalid_argument&) {
        for (const auto& file : *files)
            require(file.name != "/", "only the page itself is missing");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(data, data + size);
    const auto frame = readFrame(bytes);
    if (!frame) {
        checkPage(bytes);
        return 0;
    }
    require(frame->header.number < kEndOfNumbers, "a number can be counted with");
    check(frame->body);
    const auto written = writeFrame(frame->header, frame->body);
    const auto again = readFrame(written);
    require(again && again->body.index() == frame->body.index(), "what is written can be read");
    require(writeFrame(again->header, again->body) == written, "and is the same once more");
    return 0;
}
