#include "EngineSession.hpp"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <stdexcept>
#include <utility>

#include "OptionsCheck.hpp"
#include "OwnOrigin.hpp"
#include "OwnPage.hpp"
#include "Traffic.hpp"
#include "WaitingPage.hpp"
#include "checked/Require.hpp"
#include "secret/Sha256.hpp"
#include "text/Hex.hpp"

namespace link_tool {
namespace {

using kirogateway::Site;
using kirogateway::Sites;
using kirogateway::wire::CloseCode;
using std::chrono::duration_cast;
using std::chrono::milliseconds;

constexpr std::chrono::seconds kTellAgain{1};
constexpr std::size_t kHashDigits = 64;
/// A page of its own may come slowly, but not for ever: nobody may be looking.
constexpr std::chrono::minutes kLongestFetch{9};

/// Runs `call` on a thread that must not be thrown at. Returns whether it ran to its end.
template <typename Call>
bool guarded(kirogateway::GuardedLog& log, const char* what, const Call& call) noexcept {
    try {
        call();
        return true;
    } catch (...) {
        log.writeCaught(what);
        return false;
    }
}

/// The files of a page that has come. Throws std::invalid_argument when it is not the one that was
/// offered, or cannot be served; takes long.
std::shared_ptr<const kirogateway::AssetTable> assetsOf(const kirolink::PageDigest& page,
                                                        std::string bytes) {
    if (secret::sha256Hex(bytes) != page.hash) {
        throw std::invalid_argument("it is not the one whose hash was told");
    }
    auto files = kirolink::readPage(bytes);
    if (!files || files->size() != page.files) throw std::invalid_argument("it cannot be read");
    bytes = {};
    kirogateway::Options options;
    options.assets = std::move(*files);
    auto all = kirogateway::checked(std::move(options)).assets;
    all.push_back(waitingScript());  // of two of one name the first is served
    return std::make_shared<const kirogateway::AssetTable>(std::move(all));
}

}  // namespace

EngineSession::EngineSession(const Common& common, std::string name, bool hasPage)
    : fCommon(common),
      fName(std::move(name)),
      fPrefix(std::string(kirogateway::kSites) + fName),
      fOrigin(hasPage ? ownOrigin(common.address, fName) : std::string()),
      fPlace(hasPage ? kirogateway::hostOf(fOrigin) : fPrefix),
      fLog("session " + fName + ": "),
      fIdleSince(common.surroundings.now()) {
    KIROWEB_REQUIRE(hasPage == !fOrigin.empty());
}

void EngineSession::begin() {
    KIROWEB_REQUIRE(fEnd == nullptr);
    if (!fOrigin.empty()) fRedirect = makeRedirect();
    fFollowed = makeSite(fCommon.options, nullptr, 0);
    // Pages come when it has joined, and that is told to the gateway's thread, which is this one.
    fEnd = std::make_unique<kirolink::GatewayEnd>(
        fCommon.cluster,
        kirolink::GatewayEnd::Identity{
            fName, fCommon.name, (fOrigin.empty() ? fCommon.address + fPrefix : fOrigin) + "/"},
        *this, fCommon.surroundings, fCommon.link);
    fBus.connect(*fEnd);
}

// --- Sites -------------------------------------------------------------------------------------

kirogateway::Options EngineSession::optionsOf(const kirolink::Description& session) const {
    auto options = fCommon.options;
    kirolink::copyTraffic(session, options);
    options.limits.connections = fCommon.pages;
    if (session.pieceSize > 0) options.limits.pieceSize = session.pieceSize;
    if (!text::isHex(session.tokenHash, kHashDigits))
        throw std::invalid_argument("its token's hash is none");
    if (session.page.isThere() == fOrigin.empty()) {
        throw std::invalid_argument("whether it brings a page is not what its beats have said");
    }
    options.limits.memory -= session.page.size;
    return kirogateway::checked(std::move(options));
}

std::shared_ptr<Site> EngineSession::makeSite(kirogateway::Options options,
                                              std::shared_ptr<kirogateway::Secrets> secrets,
                                              std::uint64_t views) {
    const bool isOwn = !fOrigin.empty();
    auto assets = isOwn ? fCommon.waiting : fCommon.assets;
    {
        const annotated::Lock lock(fMutex);
        if (fAssets != nullptr) assets = fAssets;
    }
    std::vector<std::string> others;
    std::vector<std::string> sockets;  // "wss://HOST:PORT/s/NAME/kiroweb" of "https://HOST:PORT"
    for (const auto& other : fCommon.others) {
        const auto origin = isOwn ? ownOrigin(other, fName) : other;
        if (origin.empty()) continue;
        others.push_back(origin);
        sockets.push_back(kirogateway::socketOf(origin) + (isOwn ? "" : fPrefix) +
                          std::string(kirogateway::kSocketPath));
    }
    auto context = std::make_shared<kirogateway::Context>(
        std::move(options), "session " + fName + ": ", fCommon.counters, std::move(sockets));
    auto site = std::make_shared<Site>(
        fPlace, context, fCommon.wakeup, [] {}, views);
    site->access = std::make_unique<kirogateway::AccessPolicy>(
        context->options, fCommon.server.port(),
        kirogateway::Entrance{
            std::move(assets), std::move(secrets), std::move(others), fOrigin, {}, !isOwn});
    site->inbound.connect(fBus);
    const annotated::Lock lock(fMutex);
    fSite = site;
    return site;
}

std::shared_ptr<Site> EngineSession::makeRedirect() const {
    auto context = std::make_shared<kirogateway::Context>(
        fCommon.options, "session " + fName + ": ", fCommon.counters);
    auto site = std::make_shared<Site>(fPrefix, context, fCommon.wakeup, [] {});
    kirogateway::Entrance entrance;
    entrance.movedTo = fOrigin + "/";
    site->access = std::make_unique<kirogateway::AccessPolicy>(
        context->options, fCommon.server.port(), std::move(entrance));
    return site;
}

void EngineSession::replace(std::shared_ptr<Site> site, const std::string& why, CloseCode code) {
    fCommon.server.post(
        [self = shared_from_this(), site = std::move(site), why, code](Sites& sites) {
            if (!self->fHasEnded) sites.put(site, why, code);
        });
}

bool EngineSession::end(Sites& sites, std::string_view why) noexcept {
    if (fHasEnded || fBus.pagesThere() > 0) return false;
    fHasEnded = true;
    sites.remove(fPlace, why);
    sites.remove(fPrefix, why);
    return true;
}

// --- What the engine does ----------------------------------------------------------------------

EngineSession::PageWanted EngineSession::pageOffered(const kirolink::PageDigest& page) noexcept {
    {
        const annotated::Lock lock(fMutex);
        if (fAssets != nullptr && page == fDigest) return PageWanted::kHere;
        fAssets = nullptr;
        fHeldCharge = {};
        ++fOffer;
    }
    fCharge = {};
    fPageSize = 0;
    fOfferedAt = fCommon.surroundings.now();
    const char* refusal = nullptr;
    if (fOrigin.empty()) {
        refusal = "it brings a page of its own, which its beats have not said";
    } else if (page.size > fCommon.pageSize) {
        refusal = "its page is larger than page-size";
    } else if (page.size >= fCommon.options.limits.memory) {
        refusal = "its page takes all that a session may hold";
    } else if (!guarded(fLog, "a page", [&] { fDigest = page; })) {
        refusal = "no memory for its page";
    }
    if (refusal == nullptr) return PageWanted::kFetch;
    refuse(refusal);
    return PageWanted::kRefused;
}

bool EngineSession::pageGrows(std::size_t bytes) noexcept {
    // Less than before, where there was no memory for what had been granted.
    if (bytes > fCharge.bytes() && !fCharge.grow(fCommon.ownPages, bytes - fCharge.bytes())) {
        refuse("pages that engines bring take all the room that there is for them");
        return false;
    }
    fPageSize = bytes;
    const auto now = fCommon.surroundings.now();
    if (now - fOfferedAt < kLongestFetch) fIdleSince = now;
    return true;
}

void EngineSession::pageCame(std::string bytes) noexcept {
    // Not here: beats of all sessions come on this thread.
    const bool isPosted = guarded(fLog, "no memory for its page", [&] {
        std::uint64_t offer = 0;
        {
            const annotated::Lock lock(fMutex);
            offer = fOffer;
        }
        boost::asio::post(fCommon.work,
                          [weak = weak_from_this(), offer, page = fDigest, bytes = std::move(bytes),
                           charge = std::move(fCharge)]() mutable {
                              const auto self = weak.lock();
                              if (self == nullptr) return;
                              self->openPage(offer, page, std::move(bytes), std::move(charge));
                          });
    });
    if (!isPosted) fHasFailed = true;
}

void EngineSession::openPage(std::uint64_t offer, const kirolink::PageDigest& page,
                             std::string bytes, kirogateway::Charge charge) noexcept {
    const auto isOutdated = [this, offer] {
        const annotated::Lock lock(fMutex);
        return offer != fOffer;
    };
    // One that keeps joining would have the work of others wait.
    if (isOutdated()) return;
    std::shared_ptr<const kirogateway::AssetTable> assets;
    const bool isRight = guarded(fLog, "refused, its page cannot be served",
                                 [&] { assets = assetsOf(page, std::move(bytes)); });
    if (!isRight) {
        // Asked between two joinings: the newer one may be another engine's.
        return fEnd->refuse([this, &isOutdated] {
            if (isOutdated()) return false;
            fHasFailed = true;
            return true;
        });
    }
    serve(offer, std::move(assets), std::move(charge));
}

void EngineSession::serve(std::uint64_t offer,
                          std::shared_ptr<const kirogateway::AssetTable> assets,
                          kirogateway::Charge charge) noexcept {
    std::shared_ptr<Site> site;
    {
        const annotated::Lock lock(fMutex);
        if (offer != fOffer) return;  // another one has been offered since
        fAssets = assets;
        fHeldCharge = std::move(charge);
        site = fSite;
    }
    const bool isPosted = guarded(fLog, "no memory to serve its page", [&] {
        fCommon.server.post([site = std::move(site), assets = std::move(assets)](Sites&) mutable {
            site->access->serveInstead(std::move(assets));
        });
    });
    if (isPosted) return;
    const annotated::Lock lock(fMutex);
    if (offer == fOffer) fHasFailed = true;
}

bool EngineSession::lacksPage() const noexcept {
    const annotated::Lock lock(fMutex);
    return fOffer > 0 && fAssets == nullptr;
}

void EngineSession::refuse(std::string_view why) noexcept {
    fHasFailed = true;
    fLog.write("refused", why);
}

void EngineSession::joined(const kirolink::Description& session) noexcept {
    bool isServed = false;
    guarded(fLog, "a session cannot be served", [&] {
        auto options = optionsOf(session);
        auto secrets = std::make_shared<kirogateway::Secrets>(
            secret::HashedToken{session.tokenHash, secret::sha256Hex});
        fFollowed = makeSite(std::move(options), std::move(secrets), session.views);
        fSilentSince = TimePoint{};
        replace(fFollowed, "the engine has begun anew", CloseCode::kRestarted);
        isServed = true;
        fLog.write("joined", {});
    });
    fHasFailed = !isServed;
}

void EngineSession::text(const std::string& channel, std::string_view text) noexcept {
    fFollowed->fanout->messagePublished(relay::Publication(channel, text));
}

void EngineSession::block(const std::string& channel, std::shared_ptr<const std::string> block,
                          std::unique_ptr<kirolink::BlockTicket> ticket) noexcept {
    guarded(fLog, "no memory for a block", [&] {
        fFollowed->fanout->offer(
            channel,
            std::make_shared<LinkTransfer>(std::move(block), std::move(ticket), fCommon.counters));
    });
}

void EngineSession::silent(TimePoint since) noexcept {
    fSilentSince = since;
    fLog.write("engine silent", {});
}

void EngineSession::heard() noexcept {
    fSilentSince = TimePoint{};
    fLog.write("engine heard again", {});
    guarded(fLog, "pages could not be told",
            [this] { tellPages(R"({"t":"engine","state":"heard"})"); });
}

void EngineSession::left(std::string_view why, Whose whose) noexcept {
    fSilentSince = TimePoint{};
    fLog.write("left", why);
    guarded(fLog, "a session could not be left", [&] {
        fFollowed = makeSite(fCommon.options, nullptr, 0);
        // Where no other gateway has the engine either, this one may be the first to have it again.
        replace(fFollowed, std::string(why),
                whose == Whose::kEngine ? CloseCode::kRestarted : CloseCode::kStopped);
    });
}

void EngineSession::tellPages(const std::string& control) {
    fCommon.server.post([place = fPlace, control](Sites& sites) {
        if (const auto site = sites.at(place)) site->views->tell(control);
    });
}

// --- Time --------------------------------------------------------------------------------------

void EngineSession::tick(TimePoint now) {
    fEnd->tick(now);
    fBus.letGo();
    if (fSilentSince.load() == TimePoint{} || now < fNextTelling) return;
    fNextTelling = now + kTellAgain;
    tellSilence(now);
}

void EngineSession::tellSilence(TimePoint now) {
    fCommon.server.post([self = shared_from_this(), now](Sites& sites) {
        const TimePoint since = self->fSilentSince;
        const auto site = sites.at(self->fPlace);
        if (since == TimePoint{} || site == nullptr) return;
        const auto silence = duration_cast<milliseconds>(now - since).count();
        site->views->tell(R"({"t":"engine","state":"silent","milliseconds":)" +
                          std::to_string(silence) + "}");
    });
}

void EngineSession::look(TimePoint now) noexcept {
    if (hasPages()) fIdleSince = now;
}

void EngineSession::holdAtMost(std::size_t bytes) {
    fCommon.server.post([place = fPlace, bytes](Sites& sites) {
        const auto site = sites.at(place);
        if (site == nullptr) return;
        auto& memory = *site->context->memory;
        static_cast<void>(memory.makeRoom(memory.limit() - std::min(memory.limit(), bytes)));
    });
}

std::shared_ptr<Site> EngineSession::siteAt(std::string_view place) const noexcept {
    if (place == fPlace) return site();
    return place == fPrefix ? fRedirect : nullptr;
}

std::shared_ptr<Site> EngineSession::site() const noexcept {
    const annotated::Lock lock(fMutex);
    return fSite;
}

EngineSession::Report EngineSession::report(TimePoint now) const {
    Report report;
    report.link = fEnd->statistics();
    report.pages = fBus.pagesThere();
    const TimePoint since = fSilentSince;
    if (since != TimePoint{}) report.silence = duration_cast<milliseconds>(now - since);
    report.held = held();
    return report;
}

}  // namespace link_tool
