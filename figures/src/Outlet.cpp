#include "Outlet.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "kiro/web/CommandSenderInterface.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"
#include "relay/common/DataBuffer.hpp"

namespace kirofigures::detail {

namespace json = boost::json;
using kiro::web::JSONPayload;
using kiro::web::binary::BinaryDataPayload;
using kiro::web::binary::DataID;

namespace {

static_assert(std::endian::native == std::endian::little, "blocks are little-endian");

constexpr std::size_t kHeader = 8;

enum class Type : std::size_t { kF64, kF32, kU8 };
constexpr std::array<const char*, 3> kTypeNames{"f64", "f32", "u8"};
constexpr std::array<std::size_t, 3> kSizes{8, 4, 1};

Type typeOf(const Delta::Part& part) {
    if (part.asFloats) return Type::kF32;
    return static_cast<Type>(part.numbers.index());
}

std::size_t sizeOf(Type type) { return kSizes[static_cast<std::size_t>(type)]; }

/// A payload can be given this without a detour over text.
bool isPlain(const json::value& value) {
    return value.is_bool() || value.is_double() || value.is_int64() || value.is_string();
}

void addPlain(JSONPayload& payload, const char* key, const json::value& value) {
    switch (value.kind()) {
        case json::kind::bool_:
            payload.addDataToPayload(key, value.get_bool());
            break;
        case json::kind::double_:
            payload.addDataToPayload(key, value.get_double());
            break;
        case json::kind::int64:
            payload.addDataToPayload(key, long{value.get_int64()});
            break;
        default:
            payload.addDataToPayload(key, std::string(value.get_string()));
    }
}

/// Those properties that `isWanted` names.
template <typename Wanted>
JSONPayload payloadOf(std::span<const Property> properties, Wanted isWanted) {
    json::object others;
    for (const auto& property : properties) {
        if (isWanted(property) && !isPlain(property.value)) {
            others.emplace(property.key, property.value);
        }
    }
    JSONPayload payload = others.empty() ? JSONPayload() : JSONPayload(json::serialize(others));
    for (const auto& property : properties) {
        if (isWanted(property) && isPlain(property.value)) {
            addPlain(payload, property.key, property.value);
        }
    }
    return payload;
}

char* write(char* to, const Delta::Part& part) {
    return std::visit(
        [to, &part](const auto& numbers) {
            using Number = typename std::decay_t<decltype(numbers)>::value_type;
            if constexpr (std::is_same_v<Number, double>) {
                if (part.asFloats) {
                    // The header is 8 bytes and wider columns stand first, so this is aligned.
                    auto* const floats = reinterpret_cast<float*>(to);
                    std::transform(numbers.begin(), numbers.end(), floats,
                                   [](double value) { return static_cast<float>(value); });
                    return to + numbers.size() * sizeof(float);
                }
            }
            if (!numbers.empty()) std::memcpy(to, numbers.data(), numbers.size_bytes());
            return to + numbers.size_bytes();
        },
        part.numbers);
}

relay::common::DataBuffer blockOf(DataID id, const Delta& delta) {
    std::size_t size = kHeader;
    for (const auto& part : delta.parts) size += delta.count * sizeOf(typeOf(part));
    auto* const bytes = static_cast<char*>(std::malloc(size));
    if (bytes == nullptr) throw std::bad_alloc();
    relay::common::DataBuffer block(bytes, size, size);
    const std::uint64_t number = id.value();
    std::memcpy(bytes, &number, kHeader);
    char* to = bytes + kHeader;
    for (const auto& part : delta.parts) to = write(to, part);
    return block;
}

std::vector<std::vector<std::string>> columnsOf(const Delta& delta) {
    std::vector<std::vector<std::string>> columns;
    for (const auto& part : delta.parts) {
        columns.push_back({part.name, kTypeNames[static_cast<std::size_t>(typeOf(part))]});
    }
    return columns;
}

}  // namespace

void Outlet::send(const char* command, JSONPayload&& payload) {
    payload.addDataToPayload("seq", static_cast<unsigned long>(fSequence + 1));
    // As the sender does, which leaves it as it is then: a tap gets the same text.
    payload.addDataToPayload("cmd", command);
    const bool isTapped = fTap.isOpen();
    std::string text = isTapped ? payload.convertToString() : std::string();
    if (fSender != nullptr) fSender->sendCommand(command, std::move(payload));
    ++fSequence;
    // What could not be sent is not recorded.
    if (isTapped) fTap.command(std::move(text));
}

void Outlet::beginFrame(std::uint64_t frame, std::uint64_t attempt, bool isWhole) {
    JSONPayload payload;
    payload.addDataToPayload("frame", static_cast<unsigned long>(frame));
    payload.addDataToPayload("attempt", static_cast<unsigned long>(attempt));
    payload.addDataToPayload("whole", isWhole);
    if (engineListensToKeys) payload.addDataToPayload("keys", true);
    send("beginFrame", std::move(payload));
}

void Outlet::create(std::uint64_t id, const char* type, std::uint64_t parent,
                    std::span<const Property> properties) {
    JSONPayload payload =
        payloadOf(properties, [](const Property& property) { return !property.value.is_null(); });
    payload.addDataToPayload("id", static_cast<unsigned long>(id));
    payload.addDataToPayload("type", type);
    if (parent != 0) payload.addDataToPayload("parent", static_cast<unsigned long>(parent));
    send("create", std::move(payload));
}

void Outlet::set(std::uint64_t id, std::span<const Property> properties) {
    JSONPayload payload =
        payloadOf(properties, [](const Property& property) { return !property.isSent; });
    payload.addDataToPayload("id", static_cast<unsigned long>(id));
    send("set", std::move(payload));
}

void Outlet::remove(std::uint64_t id) {
    JSONPayload payload;
    payload.addDataToPayload("id", static_cast<unsigned long>(id));
    send("remove", std::move(payload));
}

void Outlet::data(std::uint64_t id, const Delta& delta) {
    if (fSender == nullptr && !fTap.isOpen()) return;
    Delta ordered = delta;
    std::ranges::stable_sort(ordered.parts, {}, &typeOf);
    const DataID block = BinaryDataPayload::createID();
    auto bytes = blockOf(block, ordered);
    if (fTap.isOpen()) fTap.block({bytes.data(), bytes.size()});
    if (fSender != nullptr) {
        BinaryDataPayload blocks;
        blocks.addDataToPayload(std::move(bytes));
        fSender->sendBinaryData(std::move(blocks));
    }
    JSONPayload payload;
    payload.addDataToPayload("id", static_cast<unsigned long>(id));
    payload.addDataToPayload("data", block);
    payload.addDataToPayload("first", static_cast<unsigned long>(ordered.first));
    payload.addDataToPayload("count", static_cast<unsigned long>(ordered.count));
    payload.addDataToPayload("columns", columnsOf(ordered));
    if (ordered.base != 0) {
        payload.addDataToPayload("base", static_cast<unsigned long>(ordered.base));
    }
    send("data", std::move(payload));
}

}  // namespace kirofigures::detail
