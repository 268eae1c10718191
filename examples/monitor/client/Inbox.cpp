#include "client/Inbox.hpp"

#include <algorithm>
#include <boost/json/parse.hpp>
#include <cstring>
#include <utility>

#include "client/Base64.hpp"
#include "client/Fields.hpp"
#include "client/Findings.hpp"

namespace monitor::client {

using boost::json::object;

namespace {

constexpr std::size_t kHeader = 8;

/// Stands for the block that the engine had no memory for.
constexpr std::string_view kOutOfMemory = "2 0";

/// The text under `key`, empty when there is none.
std::string textOrNothing(const object& command, std::string_view key) {
    const auto* value = command.if_contains(key);
    return value != nullptr && value->is_string() ? text(command, key) : std::string();
}

}  // namespace

Inbox::Inbox(Checker& checker, Findings& findings) : fChecker(checker), fFindings(findings) {}

std::string Inbox::identifierOf(std::string_view block) {
    std::uint32_t halves[2] = {};
    std::memcpy(halves, block.data(), std::min(block.size(), sizeof halves));
    return std::to_string(halves[0]) + ' ' + std::to_string(halves[1]);
}

void Inbox::message(const std::string& text) {
    boost::system::error_code error;
    boost::json::value value = boost::json::parse(text, error);
    if (error || !value.is_object()) {
        fFindings.wrong("a message that is no JSON object");
        return;
    }
    object& command = value.get_object();
    const std::string name = textOrNothing(command, "cmd");
    if (name == "binarydata") {
        textBlocks(command);
        return;
    }
    ++fReceived.commands;
    fReceived.commandBytes += text.size();
    fCommands.push_back(std::move(command));
}

void Inbox::textBlocks(const object& message) {
    const auto* blocks = message.if_contains("data");
    if (blocks == nullptr || !blocks->is_object()) {
        fFindings.wrong("a message of blocks without blocks");
        return;
    }
    for (const auto& [key, value] : blocks->get_object()) {
        const std::string id(key);
        const auto bytes = value.is_string() ? decodeBase64(value.get_string()) : std::nullopt;
        if (id == kOutOfMemory || !bytes) {
            fFindings.missing("block " + id + ", which does not hold Base64 text of a block");
            continue;
        }
        ++fReceived.textBlocks;
        fReceived.blockBytes += kHeader + bytes->size();
        addBlock(id, {.bytes = *bytes});
    }
}

void Inbox::streamBlock(std::string_view block) {
    const std::string id = identifierOf(block);
    if (block.size() < kHeader || id == kOutOfMemory) {
        fFindings.missing("block " + id + ", which is too short or stands for a lost one");
        return;
    }
    ++fReceived.streamBlocks;
    fReceived.blockBytes += block.size();
    addBlock(id, {std::string(block.substr(kHeader)), ++fArrivals, true});
}

void Inbox::addBlock(const std::string& id, Block block) {
    if (!fBlocks.try_emplace(id, std::move(block)).second) {
        fFindings.wrong("block " + id + " comes twice");
    }
}

std::optional<Token> Inbox::next() {
    while (!fCommands.empty()) {
        const std::string id = textOrNothing(fCommands.front(), "data");
        if (!id.empty() && !fBlocks.contains(id)) return std::nullopt;
        const object command = std::move(fCommands.front());
        fCommands.pop_front();
        if (textOrNothing(command, "cmd") == "sendACT") return tokenOf(command);
        draw(command, id);
    }
    return std::nullopt;
}

void Inbox::draw(const object& command, const std::string& id) {
    if (id.empty()) {
        fChecker.apply(command, nullptr);
        return;
    }
    const auto found = fBlocks.find(id);
    const Block& block = found->second;
    if (block.fromStream) {
        if (block.arrival < fLastArrivalDrawn) fFindings.outOfOrder("block " + id);
        fLastArrivalDrawn = block.arrival;
    }
    fChecker.apply(command, &block.bytes);
    fBlocks.erase(found);
}

Token Inbox::tokenOf(const object& command) {
    Token token;
    token.frame = fChecker.endFrame();
    try {
        token.act = text(command, "ACT");
        token.returnChannel = text(command, "returnChannel");
        if (command.contains("serverSendTS")) token.serverSend = count(command, "serverSendTS");
    } catch (const FieldError& error) {
        fFindings.wrong(std::string("a token: ") + error.what());
    }
    return token;
}

void Inbox::finish() {
    for (const object& command : fCommands) {
        const std::string id = textOrNothing(command, "data");
        const bool waitsForBlock = !id.empty() && !fBlocks.contains(id);
        fFindings.missing(waitsForBlock ? "block " + id
                                        : textOrNothing(command, "cmd") + ", which was not drawn");
    }
    for (const auto& [id, block] : fBlocks) fFindings.missing("the command that names block " + id);
    fCommands.clear();
    fBlocks.clear();
}

}  // namespace monitor::client
