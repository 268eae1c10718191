// Blocks, ready-made and built: in, out, and as text in a message.
#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Binary.hpp"
#include "Fuzz.hpp"
#include "kiro/web/JSONObject.hpp"
#include "kiro/web/JSONPayload.hpp"

namespace {

using fuzz::require;
using kiro::web::JSONObject;
using kiro::web::binary::BinaryDataPayload;
using kiro::web::binary::DataID;

constexpr std::size_t kHeader = 8;

/// What a payload should hold: whole blocks in their order.
using Model = std::vector<std::pair<DataID, std::string>>;

void add(BinaryDataPayload& payload, Model& model, FuzzedDataProvider& input) {
    const auto number = input.ConsumeIntegral<std::uint64_t>();
    const auto data = input.ConsumeRandomLengthString(64);
    auto bytes = support::blockBytes(number, data);
    if (input.ConsumeBool()) {
        payload.addDataToPayloadInternalWithID(data.data(), data.size(), DataID(number));
        return model.emplace_back(number, bytes), void();
    }
    bytes.resize(std::min(bytes.size(), input.ConsumeIntegralInRange<std::size_t>(0, 72)));
    auto block = support::bufferOf(bytes);
    try {
        payload.addDataToPayload(std::move(block));
        require(bytes.size() >= kHeader, "a block without a header is refused");
        model.emplace_back(number, bytes);
    } catch (const std::invalid_argument&) {
        require(bytes.size() < kHeader, "only a block without a header is refused");
        require(support::bytesOf(block) == bytes, "a refused block is untouched");
    }
}

void extract(BinaryDataPayload& payload, Model& model, DataID id) {
    const auto found = std::ranges::find(model, id, &Model::value_type::first);
    const auto block = support::bytesOf(payload.testExtract(id));
    require(block == (found == model.end() ? "" : found->second), "the first one comes out whole");
    if (found != model.end()) model.erase(found);
}

void convert(BinaryDataPayload& payload, const Model& model) {
    kiro::web::JSONPayload out;
    payload.convertToJSONPayload(out);
    require(payload.isEmpty(), "the blocks are handed over");
    const auto data = JSONObject(out.convertToString()).getObject("data");
    std::vector<std::string> expectedNames;
    for (const auto& [id, block] : model) {
        const auto name = id.convert_to_string();
        if (std::ranges::count(expectedNames, name) != 0) continue;
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
        if (input.ConsumeIntegralInRange(0, 7) > 0) {
            add(payload, model, input);
        } else {
            extract(payload, model, model.empty() ? DataID(4) : model.back().first);
        }
        std::size_t total = 0;
        for (const auto& [id, block] : model) total += block.size();
        require(payload.size() == total, "the size is the sum of the blocks'");
    }
    convert(payload, model);
    return 0;
}
