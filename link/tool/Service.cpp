#include "Service.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Beats.hpp"
#include "Log.hpp"
#include "OptionsCheck.hpp"
#include "OwnOrigin.hpp"
#include "PageFiles.hpp"
#include "Subjects.hpp"
#include "WaitingPage.hpp"

namespace link_tool {
namespace {

using kirogateway::Site;
using kirogateway::Sites;

/// A session without a page is followed no more after so long.
constexpr std::chrono::seconds kIdle{60};
constexpr std::chrono::seconds kLook{1};
/// More than a cluster is meant to have: names that somebody makes up must not fill memory.
constexpr std::size_t kMostHeard = 20000;
constexpr std::size_t kFewest = 64;
constexpr std::size_t kMostLostViews = 10000;

kirogateway::Options optionsOf(const Settings& settings) {
    kirogateway::Options options;
    options.address = settings.address;
    options.port = settings.port;
    options.certificateFile = settings.certificateFile;
    options.keyFile = settings.keyFile;
    if (!settings.publicAddress.empty()) {
        options.extraHosts = {kirogateway::hostOf(settings.publicAddress)};
        options.extraOrigins = {settings.publicAddress};
    }
    // The pages of a gateway that has died come all at once, and lost views are as many when the
    // network was away.
    const auto atOnce = std::max(settings.pages, kFewest);
    options.limits.connections = settings.pages + atOnce;
    options.limits.unauthenticatedConnections = atOnce;
    options.limits.lostViews = std::min(atOnce, kMostLostViews);
    options.limits.memory = settings.memory;
    return kirogateway::checked(std::move(options));
}

}  // namespace

Service::Service(const Settings& settings, kirolink::Cluster& cluster,
                 kirolink::Surroundings surroundings)
    : fMostSessions(settings.sessions),
      fMostMemory(settings.allMemory),
      fCluster(cluster),
      fContext(std::make_shared<kirogateway::Context>(optionsOf(settings))),
      fWakeup(std::make_shared<kirogateway::Wakeup>()),
      fServer(fContext, fWakeup) {
    const auto root = std::make_shared<Site>(std::string(), fContext, fWakeup, [] {});
    root->access = std::make_unique<kirogateway::AccessPolicy>(
        fContext->options, fServer.port(),
        kirogateway::Entrance{
            std::make_shared<const kirogateway::AssetTable>(std::vector<kirogateway::Asset>()),
            nullptr});
    const auto address =
        settings.publicAddress.empty() ? root->access->address() : settings.publicAddress;
    fCommon = std::make_unique<Common>(Common{
        cluster, fServer, fWork, fWakeup,
        std::make_shared<const kirogateway::AssetTable>(kiropage::filesAs<kirogateway::Asset>()),
        std::make_shared<const kirogateway::AssetTable>(waitingPage()), fContext->counters,
        fContext->options, settings.pagesOfOne(), settings.others, settings.name, address,
        settings.pageSize, std::make_shared<kirogateway::Budget>(settings.allMemory / 2),
        std::move(surroundings)});
    fCommon->link.largest = settings.largest;
    fOffers.emplace(cluster, settings.name, [this](const std::string& session, bool hasPage) {
        return hear(session, hasPage);
    });
    fBeats = cluster.subscribe(
        kirolink::subjects::beat("*"), [this](std::string_view subject, std::string_view bytes) {
            const auto rest = subject.substr(subject.find('.') + 1);
            const std::string name(rest.substr(0, rest.find('.')));
            static_cast<void>(fOffers->beat(name, bytes, fCommon->surroundings.now()));
        });
    fServer.start(Sites(
        root, [this](Sites& sites, std::string_view place) { return find(sites, place); },
        kirogateway::hostOf(address)));
}

Service::~Service() { stop(); }

void Service::stop() noexcept {
    fBeats.reset();
    fServer.stop();
    fWork.stop();
    fWork.join();
    Sessions sessions;
    {
        const annotated::Lock lock(fMutex);
        sessions.swap(fSessions);
    }
    // What was posted in vain may keep them for longer.
    for (const auto& [name, session] : sessions) session->stop();
}

// --- Sessions come -----------------------------------------------------------------------------

std::string Service::hear(const std::string& name, bool hasPage) {
    const char* const refusal = hasPage ? refusalOf(name) : nullptr;
    bool isNews = false;
    {
        const annotated::Lock lock(fMutex);
        if (fHeard.size() >= kMostHeard && !fHeard.contains(name)) return {};
        auto& heard = fHeard[name];
        isNews = refusal != heard.refusal;
        heard = {fCommon->surroundings.now(), hasPage, refusal};
    }
    if (refusal != nullptr) {
        if (isNews) fContext->peerLog.write("refused the session " + name, refusal);
        return {};
    }
    if (hasPage) return ownOrigin(fCommon->address, name) + "/";
    return fCommon->address + std::string(kirogateway::kSites) + name + "/";
}

const char* Service::refusalOf(const std::string& name) const {
    if (fCommon->pageSize == 0) return "it brings a page of its own, and page-size is 0";
    if (!ownOrigin(fCommon->address, name).empty()) return nullptr;
    return "it brings a page of its own, and there is no host's name for it: public has none, or "
           "the session's name cannot be a part of one";
}

std::optional<Service::Heard> Service::heardOf(std::string_view name) const {
    const annotated::Lock lock(fMutex);
    const auto found = fHeard.find(name);
    if (found == fHeard.end() || found->second.refusal != nullptr) return {};
    const auto silence = fCommon->surroundings.now() - found->second.when;
    if (silence >= kirolink::kSilenceIsEnd) return {};
    return found->second;
}

std::shared_ptr<EngineSession> Service::sessionOf(std::string_view name) const {
    const annotated::Lock lock(fMutex);
    const auto known = fSessions.find(name);
    return known == fSessions.end() ? nullptr : known->second;
}

Sites::Found Service::find(Sites& sites, std::string_view place) {
    // "/s/NAME", or "NAME.HOST" of one with a page of its own.
    const bool isOwn = !place.starts_with(kirogateway::kSites);
    const std::string name(isOwn ? place.substr(0, place.find('.'))
                                 : place.substr(kirogateway::kSites.size()));
    const auto heard = heardOf(name);
    std::shared_ptr<Site> site;
    if (heard && (heard->hasPage || !isOwn)) site = follow(sites, name, heard->hasPage, place);
    if (site != nullptr) return {std::move(site)};
    // A host of its own says by itself that there is such a session.
    if (isOwn) return {};
    return {nobody(place), false};
}

std::shared_ptr<Site> Service::nobody(std::string_view place) const {
    auto site = std::make_shared<Site>(std::string(place), fContext, fWakeup, [] {});
    site->access = std::make_unique<kirogateway::AccessPolicy>(
        fContext->options, fServer.port(),
        kirogateway::Entrance{fCommon->assets, nullptr, fCommon->others});
    return site;
}

std::shared_ptr<Site> Service::follow(Sites& sites, const std::string& name, bool hasPage,
                                      std::string_view place) {
    // There may have been no memory to note its site, and one with a page has two places.
    if (const auto known = sessionOf(name)) return known->siteAt(place);
    if (!makeRoom(sites)) {
        fContext->peerLog.write("too many sessions are followed", name);
        return nullptr;
    }
    // Once it has begun nothing may fail.
    Sessions one;
    const auto session = std::make_shared<EngineSession>(*fCommon, name, hasPage);
    one.emplace(name, session);
    session->begin();
    auto site = session->siteAt(place);
    const annotated::Lock lock(fMutex);
    fSessions.merge(one);
    return site;
}

// --- Sessions go -------------------------------------------------------------------------------

bool Service::makeRoom(Sites& sites) {
    // Whoever knows names could fill all places otherwise, without being let in anywhere.
    const auto all = sessions();
    if (all.size() < fMostSessions) return true;
    std::shared_ptr<EngineSession> longest;
    for (const auto& session : all) {
        if (session->hasPages()) continue;
        if (longest == nullptr || session->idleSince() < longest->idleSince()) longest = session;
    }
    return longest != nullptr && end(sites, *longest, "another one is asked for");
}

bool Service::end(Sites& sites, EngineSession& session, std::string_view why) noexcept {
    if (!session.end(sites, "nobody looks")) return false;
    logLine("session left", session.name(), why);
    forget(session);
    return true;
}

void Service::endLater(const std::shared_ptr<EngineSession>& session, std::string why) {
    fServer.post([this, session, why = std::move(why)](Sites& sites) {
        static_cast<void>(end(sites, *session, why));
    });
}

void Service::forget(const EngineSession& session) noexcept {
    const auto last = session.report(TimePoint()).link;
    Sessions::node_type gone;  // its end is waited for with no lock held
    const annotated::Lock lock(fMutex);
    gone = fSessions.extract(session.name());
    fPast += last;
}

void Service::forgetSilent(TimePoint now) {
    const annotated::Lock lock(fMutex);
    std::erase_if(fHeard, [now](const auto& heard) {
        return now - heard.second.when >= kirolink::kSilenceIsEnd;
    });
}

// --- Time --------------------------------------------------------------------------------------

std::vector<std::shared_ptr<EngineSession>> Service::sessions() const {
    std::vector<std::shared_ptr<EngineSession>> sessions;
    const annotated::Lock lock(fMutex);
    sessions.reserve(fSessions.size());
    for (const auto& [name, session] : fSessions) sessions.push_back(session);
    return sessions;
}

void Service::boundMemory(const std::vector<std::shared_ptr<EngineSession>>& all) const {
    std::size_t held = 0;
    std::size_t most = 0;
    EngineSession* largest = nullptr;
    for (const auto& session : all) {
        held += session->held();
        const auto one = session->waiting();
        if (one <= most) continue;
        most = one;
        largest = session.get();
    }
    if (held <= fMostMemory || largest == nullptr) return;
    largest->holdAtMost(most - std::min(most, held - fMostMemory));
}

void Service::tick(TimePoint now) noexcept {
    try {
        const auto all = sessions();
        for (const auto& session : all) session->tick(now);
        boundMemory(all);
        if (now < fNextLook) return;
        fNextLook = now + kLook;
        forgetSilent(now);
        for (const auto& session : all) {
            session->look(now);
            if (session->hasFailed()) {
                endLater(session, "it cannot be served");  // a page that asks has it tried again
            } else if (now - session->idleSince() >= kIdle) {
                endLater(session, session->lacksPage() ? "the page that it brings has not come"
                                                       : "no page for a minute");
            }
        }
    } catch (...) {
        fContext->log.writeCaught("the sessions' time");
    }
}

ServiceReport Service::report(TimePoint now) const {
    ServiceReport all;
    all.isConnected = fCluster.isConnected();
    for (const auto& session : sessions()) {
        const auto one = session->report(now);
        ++all.followed;
        if (one.link.isJoined) ++all.joined;
        all.pages += one.pages;
        all.held += one.held;
        all.heldOfOne = std::max(all.heldOfOne, one.held);
        all.waiting += one.link.waiting;
        all.silence = std::max(all.silence, one.silence);
        all.clockOffset = std::max(all.clockOffset, std::chrono::abs(one.link.clockOffset));
        all.clockUncertainty = std::max(all.clockUncertainty, one.link.clockUncertainty);
        all.link += one.link;
    }
    for (const auto& figure : kirogateway::kFigures) {
        all.traffic.*figure.shown = *fContext->counters.*figure.counted;
    }
    const annotated::Lock lock(fMutex);
    all.known = fHeard.size();
    all.link += fPast;
    return all;
}

}  // namespace link_tool
