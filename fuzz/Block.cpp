// Blocks, ready-made and built: in, out, and as text in a message.
#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Buffers.hpp"
#include "Fuzz.hpp"
#include "kiro/web/JSONObject.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"

namespace {

using fuzz::require;
using kiro::web::JSONObject;
using kiro::web::binary::BinaryDataPayload;
using kiro::web::binary::DataID;

constexpr std::size_t kHeader = 8;

/// What a payload should hold: whole blocks in their order.
using Model = std::vector<std::string>;

DataID idOf(std::string_view block) {
    std::uint64_t value = 0;
    for (std::size_t i = kHeader; i-- > 0;) {
        value = (value << 8U) | static_cast<unsigned char>(block[i]);
    }
    return DataID(value);
}

void add(BinaryDataPayload& payload, Model& model, FuzzedDataProvider& input) {
    const auto bytes = input.ConsumeRandomLengthString(64);
    if (bytes.size() >= kHeader && input.ConsumeBool()) {
        payload.addDataToPayloadInternalWithID(bytes.data() + kHeader, bytes.size() - kHeader,
                                               idOf(bytes));
        model.push_back(bytes);
        return;
    }
    auto block = support::bufferOf(bytes);
    try {
        payload.addDataToPayload(std::move(block));
        require(bytes.size() >= kHeader, "a block without a header is refused");
        model.push_back(bytes);
    } catch (const std::invalid_argument&) {
        require(bytes.size() < kHeader, "only a block without a header is refused");
        require(support::bytesOf(block) == bytes, "a refused block is untouched");
    }
}

void extract(BinaryDataPayload& payload, Model& model, DataID id) {
    const auto found = std::find_if(model.begin(), model.end(),
                                    [id](const auto& block) { return idOf(block) == id; });
    const auto block = payload.testExtract(id);
    require(block.empty() == (found == model.end()), "a block is there or not");
    if (block.empty()) return;
    require(support::bytesOf(block) == *found, "the first block comes out whole");
    model.erase(found);
}

void convert(BinaryDataPayload& payload, const Model& model) {
    kiro::web::JSONPayload out;
    payload.convertToJSONPayload(out);
    require(payload.isEmpty(), "the blocks are handed over");
    require(out.isEmpty() == model.empty(), "no block, no message");
    const auto data = JSONObject(out.convertToString()).getObject("data");
    std::vector<std::string> expectedNames;
    for (const auto& block : model) {
        const auto name = idOf(block).convert_to_string();
        if (std::count(expectedNames.begin(), expectedNames.end(), name) != 0) continue;
        expectedNames.push_back(name);
        std::string text;
        require(data.getValue(name, text), "each identifier has its data");
        require(text.size() == (block.size() - kHeader + 2) / 3 * 4, "all data are in the text");
    }
    require(data.getNames() == expectedNames, "each identifier once, in its order");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    BinaryDataPayload payload;
    Model model;
    while (input.remaining_bytes() > 0) {
        const auto operation = input.ConsumeIntegralInRange(0, 7);
        if (operation == 0) {
            extract(payload, model, DataID(input.ConsumeIntegral<std::uint64_t>()));
        } else if (operation == 1 && !model.empty()) {
            extract(payload, model,
                    idOf(model[input.ConsumeIntegral<std::size_t>() % model.size()]));
        } else {
            add(payload, model, input);
        }
        std::size_t total = 0;
        for (const auto& block : model) total += block.size();
        require(payload.size() == total, "the size is the sum of the blocks'");
        require(payload.isEmpty() == model.empty(), "empty means no block");
    }
    convert(payload, model);
    return 0;
}
