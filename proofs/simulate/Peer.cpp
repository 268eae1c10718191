#include "Peer.hpp"

#include <openssl/evp.h>

#include <algorithm>
#include <boost/json.hpp>
#include <charconv>

namespace simulate {
namespace {

namespace json = boost::json;
using Part = Item::Part;

std::uint64_t little(std::string_view bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = bytes.size(); i-- > 0;) {
        value = value << 8U | static_cast<unsigned char>(bytes[i]);
    }
    return value;
}

std::string fromBase64(std::string_view text) {
    std::string bytes(text.size() / 4 * 3 + 1, '\0');
    const auto size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                      reinterpret_cast<const unsigned char*>(text.data()),
                                      static_cast<int>(text.size()));
    const auto padding =
        std::ranges::count(text.substr(text.size() - std::min<std::size_t>(text.size(), 2)), '=');
    bytes.resize(size < 0 ? 0 : static_cast<std::size_t>(size - padding));
    return bytes;
}

template <typename Set>
Set textsOf(const json::value& list) {
    Set texts;
    for (const auto& text : list.as_array()) texts.insert(json::value_to<std::string>(text));
    return texts;
}

}  // namespace

void Peer::accept(std::string_view bytes) {
    if (bytes.empty()) return;
    model.expect(!isLetGo, "bytes for a descriptor that was let go");
    model.expect(!isShut && closeCode == 0, "bytes behind the end of a connection");
    if (view == nullptr) bind(*this);
    written += bytes.size();
    tookAt = model.now;
    partial += bytes;
    std::size_t at = 0;
    while (partial.size() - at >= 2 && model.failure.empty()) {
        const std::string_view rest = std::string_view(partial).substr(at);
        const auto byte = [rest](std::size_t i) { return static_cast<unsigned char>(rest[i]); };
        std::size_t head = 2;
        std::size_t size = byte(1);
        const std::size_t width = size == 126 ? 2 : size == 127 ? 8 : 0;
        if (rest.size() < head + width) break;
        if (width > 0) size = 0;
        for (std::size_t i = 0; i < width; ++i) size = size << 8U | byte(head++);
        const bool isShortest = width == 0 || (width == 2 ? size > 125 : size > 0xffff);
        model.expect((byte(0) & 0xf0U) == 0x80U && byte(1) < 128 && isShortest, "a broken frame");
        if (rest.size() < head + size) break;
        at += head + size;
        // Where the frame ends, in the stream.
        const auto end = written - (partial.size() - at);
        inbox.push_back({end, 0});
        onFrame(byte(0) & 0xfU, rest.substr(head, size));
    }
    partial.erase(0, at);
    wasWithinFrame = wasWithinFrame || isWithinFrame();
}

void Peer::onFrame(unsigned opcode, std::string_view payload) {
    auto& arrived = inbox.back();
    if (opcode == 8) {
        arrived.isClose = true;
    } else if (opcode == 9) {
        arrived.isPing = true;
    } else if (view == nullptr) {
        model.fail("a frame for a page without a view");
    } else if (opcode == 2) {
        onBlock(payload, arrived);
    } else if (payload.starts_with('{')) {
        onControl(payload, arrived);
    } else {
        onBatch(payload);
    }
    arrived.upTo = upTo();
}

Item* Peer::number(std::uint64_t number) {
    while (next != 0 && withdrawn.erase(next) > 0) ++next;
    if (!isGreeted) model.fail("a message before the hello");
    if (next == 0 ? number > greeting.last + 1 || number == 0 : number != next) {
        model.fail("page " + std::to_string(index) + " gets message " + std::to_string(number) +
                   " instead of " + std::to_string(next == 0 ? greeting.last + 1 : next));
    }
    next = number + 1;
    if (number > view->written) {
        model.expect(number == view->written + 1, "a number was left out");
        view->written = number;
        return nullptr;
    }
    const auto found = view->numbered.find(number);
    if (found != view->numbered.end() && found->second != nullptr) return found->second;
    model.fail("message " + std::to_string(number) + " comes though it was withdrawn");
    return nullptr;
}

void Peer::onBatch(std::string_view payload) {
    const auto isFull = [this](std::size_t size) {
        return size > model.options.limits.batchSize + 24;  // the number stands before it
    };
    const auto fullSize = payload.size();
    const auto take = [&payload] {
        const auto end = payload.find('\x1e');
        const auto part = payload.substr(0, end);
        payload = end == std::string_view::npos ? std::string_view() : payload.substr(end + 1);
        return part;
    };
    const auto first = take();
    std::uint64_t count = 0;
    const auto parsed = std::from_chars(first.data(), first.data() + first.size(), count);
    model.expect(parsed.ptr == first.data() + first.size() && fullSize > first.size(), "no batch");
    std::string channel;
    while (!payload.empty() && model.failure.empty()) {
        const auto before = fullSize - payload.size();
        model.expect(!isFull(before), "a batch goes on though it is full");
        const auto record = take();
        const auto unit = record.find('\x1f');
        if (unit == std::string_view::npos) return model.fail("a record without a text");
        if (unit > 0) channel = record.substr(0, unit);
        auto text = record.substr(unit + 1);
        const bool isPlain = !text.starts_with('\x1f');
        const auto content = isPlain ? std::string(text) : fromBase64(text.substr(1));
        if (const auto* item = number(count)) {
            model.expect(item->channel == channel && item->content == content && !item->isBlock,
                         "a message comes again as another");
        } else if (model.failure.empty()) {
            view->numbered[count] = model.takeText(*view, channel, content, isPlain);
        }
        ++count;
    }
}

void Peer::onBlock(std::string_view payload, Arrived& arrived) {
    static constexpr std::size_t kHead = 16;
    if (payload.size() < kHead || payload[0] != 1) return model.fail("no block");
    const bool isLast = (static_cast<unsigned char>(payload[1]) & 1U) != 0;
    const auto channel = little(payload.substr(2, 2));
    const auto transfer = static_cast<std::uint32_t>(little(payload.substr(4, 4)));
    const auto tail = little(payload.substr(8, 8));
    payload.remove_prefix(kHead);
    auto& done = sent[transfer];
    Item*& item = view->transfers[transfer];
    if (item == nullptr) {
        const auto id = done == 0 && payload.size() >= 8 ? little(payload.substr(0, 8)) : 0;
        if (id == 0 || id > model.items.size()) return model.fail("a block that nobody sent");
        item = &model.items[id - 1];
    }
    if (done == 0) countUnderWay(*item);
    const auto& whole = item->content;
    model.expect(channel >= 1 && channel <= blockChannels.size() &&
                     blockChannels[channel - 1] == item->channel,
                 "a block on another channel");
    model.expect(
        payload == std::string_view(whole).substr(std::min(done, whole.size()), payload.size()),
        "a block with other bytes");
    done += payload.size();
    model.expect(payload.size() <= model.options.limits.pieceSize, "a piece that is too large");
    if (!isLast) return model.expect(tail == whole.size() && done < whole.size(), "a wrong piece");
    model.expect(done == whole.size(), "a block that is not whole");
    arrived.block = item;
    arrived.transfer = transfer;
    if (const auto* before = number(tail)) {
        return model.expect(before == item, "a message comes again as another block");
    }
    if (!model.failure.empty()) return;
    model.take(*view, *item);
    view->numbered[tail] = item;
}

void Peer::countUnderWay(Item& begun) const {
    const auto& limits = model.options.limits;
    std::size_t blocks = 1;
    std::size_t bytes = begun.content.size();
    for (const auto& [transfer, done] : sent) {
        auto* item = view->transfers[transfer];
        if (item == nullptr || item == &begun || item->completions > 0) continue;
        const auto part = item->parts.find(view);
        if (done == 0 || part == item->parts.end() || part->second != Part::kPending) continue;
        ++blocks;
        bytes += item->content.size();
    }
    const bool fits = blocks <= limits.blocksUnderWay && bytes <= limits.bytesUnderWay;
    model.expect(fits || blocks == 1, "too much is under way");
}

void Peer::onControl(std::string_view payload, Arrived& arrived) {
    const auto object = json::parse(json::string_view(payload.data(), payload.size())).as_object();
    const std::string what(object.at("t").as_string());
    if (what == "hello") {
        arrived.isHello = true;
        return onHello(payload);
    }
    if (what == "channel") {
        blockChannels.emplace_back(object.at("name").as_string());
        const auto number = object.at("number").to_number<std::size_t>();
        return model.expect(number == blockChannels.size(), "a channel with a wrong number");
    }
    if (what == "withdrawn") {
        const auto* number = object.if_contains("number");
        return onWithdrawn(object.at("transfer").to_number<std::uint32_t>(),
                           number == nullptr ? 0 : number->to_number<std::uint64_t>());
    }
    std::string said = what;
    if (what == "echo") said += " " + json::serialize(object.at("id"));
    if (what == "refused") {
        said += " " + json::value_to<std::string>(object.at("what")) + " " +
                json::value_to<std::string>(object.at("channel"));
    }
    if (isControlVague) return;
    if (expectedControls.empty() || expectedControls.front() != said) {
        return model.fail("an answer that was not due: " + said);
    }
    expectedControls.pop_front();
}

void Peer::onHello(std::string_view payload) {
    const auto hello = json::parse(json::string_view(payload.data(), payload.size())).as_object();
    model.expect(!isGreeted && written - partial.size() == 0, "a hello that is not first");
    isGreeted = true;
    const auto text = [&hello](const char* member) {
        return json::value_to<std::string>(hello.at(member));
    };
    view->name = text("view");
    const auto kind = text("kind");
    if ((kind == "return") != greeting.isReturn) {
        model.fail("a hello of kind " + kind + (greeting.isReturn ? ", but it can return" : "") +
                   (hello.contains("ended") ? ": " + text("ended") : ""));
    }
    model.expect(kind == "return" || (kind == "first") == (view->index == 0), "a wrong kind");
    model.expect(hello.at("next").to_number<std::uint64_t>() == greeting.last + 1, "a wrong next");
    const auto subscribed = textsOf<std::set<std::string>>(hello.at("subscribed"));
    if (!greeting.isVague) {
        model.expect(subscribed == greeting.subscribed, "other subscriptions than asked for");
        model.expect(textsOf<std::multiset<std::string>>(hello.at("refused")) == greeting.refused,
                     "other refusals than due");
    } else if (!isReplaced) {
        view->subscriptions.clear();
        for (const auto& name : subscribed) view->subscriptions[name] = true;
        for (const auto& change : behindHello) change();
    }
    for (const auto& name : hello.at("blockChannels").as_array()) {
        blockChannels.emplace_back(name.as_string());
    }
    const auto& known = view->blockChannels;
    model.expect(blockChannels.size() >= known.size() &&
                     std::equal(known.begin(), known.end(), blockChannels.begin()),
                 "block channels changed their numbers");
}

void Peer::onWithdrawn(std::uint32_t transfer, std::uint64_t count) {
    auto* item = view->transfers[transfer];
    if (item != nullptr) {
        const auto part = item->parts.find(view);
        const bool mayGo =
            part == item->parts.end() || part->second != Part::kPending || item->isVague;
        model.expect(mayGo, "a block is withdrawn without a reason");
        Model::settle(*view, *item, Part::kLeft);
    }
    if (count == 0) return;
    auto& at = view->numbered[count];
    model.expect(at == nullptr || at == item, "another message is withdrawn");
    at = nullptr;
    view->written = std::max(view->written, count);
    if (next != 0 ? count == next : count <= greeting.last + 1) {
        next = count + 1;
    } else {
        withdrawn.insert(count);
    }
}

}  // namespace simulate
