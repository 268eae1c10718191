// Pages of a load, all on one thread, that check whatever they get. The argument is a JSON object
// with their settings; each command on the input is answered by a line of JSON, and what is found
// comes as a line of its own.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <boost/json.hpp>
#include <cerrno>
#include <chrono>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "Client.hpp"
#include "Content.hpp"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using Settings = boost::json::object;

constexpr milliseconds kAcknowledgeEvery{100};
constexpr milliseconds kConnectWithin{2000};
constexpr milliseconds kRetry{200};
constexpr std::size_t kReadAtOnce = 64UL * 1024;
/// Small, so that what a stalled page does not read waits in the gateway.
constexpr int kReceiveBuffer = 128 * 1024;
constexpr std::size_t kBlockHeader = 16;
constexpr std::chrono::microseconds kDelayUnit{10};

std::uint64_t readBigEndian(std::string_view bytes) {
    std::uint64_t number = 0;
    for (const char c : bytes) number = number << 8U | static_cast<unsigned char>(c);
    return number;
}

std::uint64_t readLittleEndian(std::string_view bytes) {
    return readBigEndian(std::string(bytes.rbegin(), bytes.rend()));
}

std::string_view takeUntil(std::string_view& from, char end) {
    const auto part = from.substr(0, from.find(end));
    from.remove_prefix(std::min(part.size() + 1, from.size()));
    return part;
}

/// What all pages together have seen.
struct Tally {
    std::map<std::string, std::uint64_t> counts;
    std::string phase;
    /// Of each phase: how many texts took so many units of time.
    std::map<std::string, std::map<std::int64_t, std::uint64_t>> delays;

    /// Says what is not as it should be.
    void found(const std::string& what) {
        static constexpr std::uint64_t kMostLines = 20;
        if (++counts["findings"] > kMostLines) return;
        std::cout << boost::json::object{{"finding", what}} << std::endl;
    }
};

/// Numbers of which each has to be one more than the one before.
struct Order {
    std::uint64_t last = 0;  ///< 0: the next one may be any
    std::set<std::uint64_t> missing;

    /// Returns what is wrong with `number`: nothing (""), "lost", "doubled" or "reordered".
    const char* take(std::uint64_t number) {
        static constexpr std::uint64_t kRemembered = 100'000;
        const auto expected = std::exchange(last, std::max(last, number)) + 1;
        if (number == expected || expected == 1) return "";
        if (number < expected) return missing.erase(number) > 0 ? "reordered" : "doubled";
        for (auto i = expected; i < number && missing.size() < kRemembered; ++i) missing.insert(i);
        return "lost";
    }
};

/// A page on a socket of its own. When its connection is lost it returns. Nothing here blocks.
class Page {
  public:
    Page(const Settings& settings, Tally& tally, unsigned number)
        : fSettings(settings),
          fTally(tally),
          fName(std::string(settings.at("name").as_string()) + std::to_string(number)),
          fRandom(settings.at("seed").to_number<unsigned>() + number),
          fIsWild(is("isWild")),
          fDue(fNow + random(milliseconds(0), milliseconds(500))) {}

    /// What to wait for.
    [[nodiscard]] pollfd polled() const {
        if (fState == State::kStalled || fSocket < 0) return {-1, 0, 0};
        const bool writes = fState == State::kConnecting || !fOut.empty();
        return {fSocket, static_cast<short>(POLLIN | (writes ? POLLOUT : 0)), 0};
    }

    void ready(short events) {
        fNow = Clock::now();
        if (events == 0 || fSocket < 0) return;
        if (fState == State::kConnecting && (events & POLLOUT) != 0) upgrade();
        if (!fOut.empty()) flush();
        if ((events & ~POLLOUT) == 0) return;
        const auto size = fIn.size();
        fIn.resize(size + kReadAtOnce);
        const auto got = ::recv(fSocket, fIn.data() + size, kReadAtOnce, 0);
        fIn.resize(size + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (got < 0 && errno == EAGAIN) return;
        if (got <= 0) return lost(got == 0 ? "it was ended" : "it was reset");
        fHeard = fNow;
        parse();
    }

    /// To be called every few milliseconds.
    void tick() {
        fNow = Clock::now();
        if (fState == State::kStalled) {
            if (fNow >= fDue) wake();
        } else if (fState == State::kAway) {
            if (fNow >= fDue) connect();
        } else if (fState != State::kOpen) {
            if (fNow >= fDue) lost("no answer in time");
        } else if (fNow - fHeard > time("silence")) {
            lost("silence");
        } else if (fIsWild && fNow >= fActs) {
            misbehave();
        } else if (fNow >= fAcknowledges && fNumbers.last > fAcknowledged) {
            fAcknowledged = fNumbers.last;
            fAcknowledges = fNow + kAcknowledgeEvery;
            send(R"({"t":"ack","last":)" + std::to_string(fAcknowledged) + "}");
        }
    }

    /// From now on it does nothing by itself, and comes if it stays away.
    void calm() {
        fIsWild = false;
        if (fState == State::kStalled || fState == State::kAway) fDue = fNow;
    }
    /// Its gateway ends, within so long: connection and view are lost once without a fault.
    void forgive(milliseconds within) {
        fForgiven = Clock::time_point::max();
        fGatewayEnds = fNow + within;
    }

    void found(const std::string& what) { fTally.found(fName + ": " + what); }
    /// Whether it has a view and reads.
    [[nodiscard]] bool isOpen() const { return fState == State::kOpen; }
    /// Whether it has all texts up to this one that there were since its view began.
    [[nodiscard]] bool has(std::uint64_t text) const {
        return isOpen() && (fTexts.last == 0 || fTexts.last >= text);
    }

  private:
    enum class State { kAway, kConnecting, kUpgrading, kGreeting, kOpen, kStalled };

    [[nodiscard]] bool is(const char* setting) const { return fSettings.at(setting).as_bool(); }
    [[nodiscard]] milliseconds time(const char* setting) const {
        return milliseconds(fSettings.at(setting).to_number<int>());
    }
    /// What the gateway said in its hello.
    [[nodiscard]] milliseconds limit(const char* name) const {
        return milliseconds(fLimits.at(name).to_number<int>());
    }
    milliseconds random(milliseconds from, milliseconds to) {
        return milliseconds(std::uniform_int_distribution(from.count(), to.count())(fRandom));
    }

    // --- The connection ---

    void connect() {
        fSocket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        ::setsockopt(fSocket, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(fSettings.at("port").to_number<std::uint16_t>());
        ::inet_pton(AF_INET, fSettings.at("address").as_string().c_str(), &address.sin_addr);
        fState = State::kConnecting;
        fDue = fNow + kConnectWithin;
        const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
        const auto done = ::connect(fSocket, generic, sizeof address);
        if (done != 0 && errno != EINPROGRESS) lost("cannot connect");
    }

    void upgrade() {
        const std::string link(fSettings.at("link").as_string());  // http://HOST/S/#token=TOKEN
        const auto host = link.substr(7, link.find('/', 7) - 7);
        const auto path = link.substr(7 + host.size(), link.find('#') - 7 - host.size());
        fOut = "GET " + path + "kiroweb HTTP/1.1\r\nHost: " + host + "\r\nOrigin: http://" + host +
               "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
               "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
               "Sec-WebSocket-Protocol: kiroweb.v1, kiroweb.token." +
               link.substr(link.find('=') + 1) + "\r\n\r\n";
        fState = State::kUpgrading;
    }

    void lose(Clock::duration away) {
        ::close(std::exchange(fSocket, -1));
        // The gateway may have learned of it earlier, but not before it was last heard.
        if (fState >= State::kOpen) fLost = fHeard;
        if (fNow < fForgiven) fForgiven = Clock::time_point::max();  // until it is greeted
        fState = State::kAway;
        fDue = fNow + away;
        fIn.clear();
        fOut.clear();
        fPieces.clear();
    }

    /// The other side has ended the connection, or nothing is heard from it.
    void lost(const std::string& why) {
        if (!is("mayLose") && fNow > fForgiven) found("the connection was lost: " + why);
        ++fTally.counts["connections lost"];
        lose(kRetry);
    }

    void send(std::string_view payload, unsigned opcode = 1) {
        auto frame = bench::clientFrame(payload);
        frame.front() = static_cast<char>(0x80U | opcode);
        fOut += frame;
        flush();
    }

    void flush() {
        const auto sent = ::send(fSocket, fOut.data(), fOut.size(), MSG_NOSIGNAL);
        if (sent > 0) fOut.erase(0, static_cast<std::size_t>(sent));
        if (sent < 0 && errno != EAGAIN) fOut.clear();  // whoever reads learns why
    }

    // --- What it does by itself ---

    void misbehave() {
        // Mostly it is back before it counts as gone, seldom too late to return.
        const auto how = fRandom() % 100;
        const auto late = limit("returnMilliseconds");
        const auto away = how % 10 < 7   ? random(milliseconds(0), time("gone") / 2)
                          : how % 10 < 9 ? random(time("gone"), late / 2)
                                         : late * 5 / 4;
        if (how < 40) {
            const linger reset{1, 0};
            ::setsockopt(fSocket, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
            ++fTally.counts["kills"];
            lose(away);
        } else if (how < 55) {
            ++fTally.counts["given up"];
            leave(4900);
            lose(away);
        } else if (how < 70) {
            ++fTally.counts["reloads"];
            if (how % 2 == 0) leave(1001);
            forget();
            lose(kRetry);
        } else {
            stall(how < 71);
        }
    }

    void leave(unsigned code) {
        send(std::string{static_cast<char>(code >> 8U), static_cast<char>(code & 0xffU)}, 8);
    }

    void stall(bool isLong) {
        const auto queue = limit("queueMilliseconds");
        ++fTally.counts[isLong ? "long stalls" : "stalls"];
        fState = State::kStalled;
        fDue = fNow + (isLong ? 2 * queue : random(milliseconds(50), queue / 2));
        if (isLong) fForgiven = std::max(fForgiven, fDue + queue);
    }

    void wake() {
        fState = State::kOpen;
        fHeard = fNow;
        if (fForgiven > fNow) fAwayUntil = fNow;
    }

    // --- What comes ---

    /// Whether the answer to the upgrade is there; takes it off `left`, and says hello.
    bool isUpgraded(std::string_view& left) {
        const auto end = left.find("\r\n\r\n");
        if (end == std::string_view::npos) return false;
        if (!left.starts_with("HTTP/1.1 101")) {
            // The session's engine is not there, or its gateway has only just begun.
            if (!is("mayEnd") && fNow > fForgiven) found(fIn.substr(0, fIn.find('\r')));
            lose(kRetry);
            return false;
        }
        left.remove_prefix(end + 4);
        boost::json::object hello{{"t", "hello"}, {"version", 1}, {"client", fName}};
        hello["subscribe"] = {load::kTexts, load::kBlocks};
        if (!fView.empty()) hello["view"] = fView;
        if (!fView.empty()) hello["last"] = fNumbers.last;
        send(boost::json::serialize(hello));
        fState = State::kGreeting;
        return true;
    }

    void parse() {
        std::string_view left = fIn;
        if (fState == State::kUpgrading && !isUpgraded(left)) return;
        while (left.size() >= 2) {
            const auto shortSize = static_cast<unsigned char>(left[1]);
            const std::size_t width = shortSize == 126 ? 2 : shortSize == 127 ? 8 : 0;
            const auto head = 2 + width;
            if (left.size() < head) break;
            const auto size = width == 0 ? shortSize : readBigEndian(left.substr(2, width));
            if (left.size() < head + size) break;
            frame(static_cast<unsigned char>(left[0]), left.substr(head, size));
            if (fSocket < 0) return;  // and what was read is void
            left.remove_prefix(head + size);
        }
        fIn.erase(0, fIn.size() - left.size());
    }

    void frame(unsigned first, std::string_view payload) {
        if (first == 0x89) return send(payload, 10);
        if (first == 0x88) return closed(payload);
        if (first == 0x82 && payload.size() > kBlockHeader) return piece(payload);
        if (first != 0x81 || payload.empty()) return found("a strange frame");
        payload.front() == '{' ? control(payload) : batch(payload);
    }

    void closed(std::string_view payload) {
        const auto code = readBigEndian(payload.substr(0, 2));
        const bool isSilent = code == 4004;
        const bool isEnd = (code == 1001 || code == 1012) && is("mayEnd");
        const bool mayBe = fNow < fForgiven || is(isSilent ? "mayLose" : "mayBeSlow");
        if (!isEnd && (!mayBe || (!isSilent && code != 4003))) {
            found("closed, " + std::to_string(code) + std::string(payload.substr(2)));
        }
        ++fTally.counts["cut off"];
        if (!isSilent) forget();
        lose(kRetry);
    }

    void control(std::string_view text) {
        const auto said = boost::json::parse(text).as_object();
        const auto& kind = said.at("t").as_string();
        if (kind == "hello") return greeted(said);
        if (kind == "channel") return;
        if (kind == "engine") {
            ++fTally.counts["engine " + std::string(said.at("state").as_string())];
            return;
        }
        if (kind != "withdrawn") return found(std::string(text));
        ++fTally.counts["withdrawn"];
        fPieces.erase(said.at("transfer").to_number<std::uint64_t>());
        if (!said.contains("number")) return;
        fWithdrawn.insert(said.at("number").to_number<std::uint64_t>());
    }

    void forget() {
        fView.clear();
        fNumbers = fTexts = {};
        fBlock = {};
        fAcknowledged = 0;
        fWithdrawn.clear();
    }

    void greeted(const boost::json::object& hello) {
        fLimits = hello.at("limits").as_object();
        // Nine tenths, since page and gateway do not learn of a loss at the same time.
        const auto away = (fNow - fLost) * 10 / 9;
        if (hello.at("kind") == "return") {
            ++fTally.counts["returns"];
            if (away > time("gone") || is("mayBeSlow")) fAwayUntil = fNow;
        } else {
            const bool mayBe = fNow < fForgiven || is("mayBeSlow") || is("mayEnd");
            if (!fView.empty() && !mayBe && away < limit("returnMilliseconds")) {
                found("its view has ended: " + serialize(hello));
            }
            forget();
            fView = hello.at("view").as_string();
        }
        if (hello.at("next") != fNumbers.last + 1) found(serialize(hello));
        fReturned = fNumbers.last;
        fState = State::kOpen;
        fForgiven = fNow < fGatewayEnds ? Clock::time_point::max() : Clock::time_point();
        fActs = fNow + random(milliseconds(500), milliseconds(5500));
    }

    // --- Messages ---

    void check(const char* how, const char* what, std::uint64_t number, std::uint64_t before) {
        if (*how == '\0') return;
        ++fTally.counts[how];
        const std::chrono::duration<double> since = fNow - fLost;
        found(std::string(how) + ": " + what + ' ' + std::to_string(number) + " after " +
              std::to_string(before) + ", " + std::to_string(since.count()) + " s after a loss");
    }

    /// Whether the message with this number is to be handled.
    bool isDue(std::uint64_t number) {
        if (number <= fReturned) return false;
        while (fWithdrawn.erase(fNumbers.last + 1) > 0) ++fNumbers.last;
        const auto before = fNumbers.last;
        if (before == 0 && number != 1) check("lost", "message", number, before);
        check(fNumbers.take(number), "message", number, before);
        return true;
    }

    void batch(std::string_view records) {
        auto number = std::stoull(std::string(takeUntil(records, '\x1e')));
        for (bool isFirst = true; !records.empty(); isFirst = false, ++number) {
            auto record = takeUntil(records, '\x1e');
            const auto channel = takeUntil(record, '\x1f');
            if (channel != load::kTexts && (isFirst || !channel.empty()))
                found("a strange channel");
            if (isDue(number)) text(record);
        }
    }

    void text(std::string_view record) {
        const auto text = load::readText(record);
        if (!text) return check("damaged", "text", fTexts.last + 1, fTexts.last);
        ++fTally.counts["texts"];
        const auto before = fTexts.last;
        check(fTexts.take(text->number), "text", text->number, before);
        const auto delay = fNow - atOf(*text);
        ++fTally.delays[fTally.phase][delay / kDelayUnit];
        // On a machine that is too slow for all this a block's time may be over before it is read.
        if (delay > limit("blockMilliseconds") / 2) fAwayUntil = fNow;
    }

    static Clock::time_point atOf(const load::Message& message) {
        return Clock::time_point(std::chrono::nanoseconds(message.at));
    }

    void piece(std::string_view frame) {
        const auto transfer = readLittleEndian(frame.substr(4, 4));
        auto& bytes = fPieces[transfer];
        bytes += frame.substr(kBlockHeader);
        if (frame[0] != 1) found("a strange block");
        if (frame[1] == 0) return;
        if (isDue(readLittleEndian(frame.substr(8, 8)))) block(bytes);
        fPieces.erase(transfer);
        send(R"({"t":"block","transfer":)" + std::to_string(transfer) + R"(,"ok":true})");
    }

    void block(std::string_view bytes) {
        const auto block = load::readBlock(bytes);
        const auto before = std::exchange(fBlock, block.value_or(fBlock));
        if (!block) return check("damaged", "block", before.number + 1, before.number);
        ++fTally.counts["blocks"];
        if (fTexts.last > 0 && block->texts != fTexts.last) {
            check("reordered", "block with text", block->texts, fTexts.last);
        }
        if (before.number == 0 || block->number == before.number + 1) return;
        const bool isLater = block->number > before.number;
        if (isLater && atOf(before) < fAwayUntil) {  // what was sent meanwhile was not meant for it
            fTally.counts["blocks missed while away"] += block->number - before.number - 1;
        } else {
            check(isLater ? "lost" : "doubled", "block", block->number, before.number);
        }
    }

    const Settings& fSettings;
    Tally& fTally;
    const std::string fName;
    std::mt19937 fRandom;

    int fSocket = -1;
    State fState = State::kAway;
    bool fIsWild;
    Clock::time_point fNow = Clock::now();
    Clock::time_point fDue;   ///< connects, gives up connecting, or ends its stall
    Clock::time_point fActs;  ///< misbehaves
    Clock::time_point fAcknowledges;
    Clock::time_point fHeard;
    Clock::time_point fLost;
    Clock::time_point fForgiven;     ///< until then the gateway may end connection and view
    Clock::time_point fGatewayEnds;  ///< until then greetings leave what is forgiven as it is
    std::string fIn;
    std::string fOut;

    std::string fView;  ///< empty: none to return to
    boost::json::object fLimits;
    Order fNumbers;
    std::uint64_t fReturned = 0;  ///< up to this number messages may come again
    std::uint64_t fAcknowledged = 0;
    std::set<std::uint64_t> fWithdrawn;
    std::map<std::uint64_t, std::string> fPieces;
    Order fTexts;
    load::Message fBlock;          ///< the last one
    Clock::time_point fAwayUntil;  ///< blocks that were sent before this need not have come
};

class Pages {
  public:
    explicit Pages(Settings settings) : fSettings(std::move(settings)) {
        for (unsigned i = 0; i < fSettings.at("pages").to_number<unsigned>(); ++i) {
            fPages.push_back(std::make_unique<Page>(fSettings, fTally, i));
        }
    }

    /// Until the input ends.
    void run() {
        std::vector<pollfd> polled;
        auto ticked = Clock::now();
        for (std::string command; std::cin;) {
            polled.assign(1, {fAwaits ? -1 : STDIN_FILENO, POLLIN, 0});
            for (const auto& page : fPages) polled.push_back(page->polled());
            ::poll(polled.data(), polled.size(), kTick.count());
            for (std::size_t i = 0; i < fPages.size(); ++i) fPages[i]->ready(polled[i + 1].revents);
            if (Clock::now() - ticked >= kTick) {
                for (const auto& page : fPages) page->tick();
                ticked = Clock::now();
            }
            if (polled[0].revents != 0 && std::getline(std::cin, command)) obey(command);
            if (fAwaits && (std::ranges::all_of(fPages, fAwaits) || Clock::now() > fUntil))
                answer();
        }
    }

  private:
    static constexpr std::chrono::duration<int, std::milli> kTick{5};
    static constexpr std::chrono::seconds kPatience{30};
    using PagePointer = std::unique_ptr<Page>;

    /// "phase NAME", "calm" and "forgive MILLISECONDS" are answered at once, "settle" when all are
    /// open, and "until TEXT" when all have that.
    void obey(const std::string& command) {
        const auto argument = command.substr(command.find(' ') + 1);
        fUntil = Clock::now() + kPatience;
        fAwaits = [](const PagePointer&) { return true; };
        if (command.starts_with("phase ")) fTally.phase = argument;
        if (command == "settle") fAwaits = [](const PagePointer& page) { return page->isOpen(); };
        if (command.starts_with("until ")) {
            fAwaits = [text = std::stoull(argument)](const auto& page) { return page->has(text); };
        }
        for (const auto& page : fPages) {
            if (command == "calm") page->calm();
            if (command.starts_with("forgive ")) page->forgive(milliseconds(std::stoi(argument)));
        }
    }

    void answer() {
        for (const auto& page : fPages) {
            if (!fAwaits(page)) page->found("it waited in vain");
        }
        fAwaits = nullptr;
        std::cout << boost::json::object{{"counts", boost::json::value_from(fTally.counts)},
                                         {"delays", boost::json::value_from(fTally.delays)}}
                  << std::endl;
    }

    const Settings fSettings;
    Tally fTally;
    std::vector<PagePointer> fPages;
    std::function<bool(const PagePointer&)> fAwaits;  ///< by the answer to the command; or none
    Clock::time_point fUntil;
};

}  // namespace

int main(int /*count*/, char** arguments) try {
    Pages(boost::json::parse(arguments[1]).as_object()).run();
} catch (const std::exception& error) {
    std::cerr << "pages: " << error.what() << '\n';
    return EXIT_FAILURE;
}
