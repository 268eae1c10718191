#include "Service.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Beats.hpp"
#include "Log.hpp"
#include "OptionsCheck.hpp"
#include "PageFiles.hpp"
#include "Subjects.hpp"

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

std::string hostOf(const std::string& address) { return address.substr(address.find("//") + 2); }

kirogateway::Options optionsOf(const Settings& settings) {
    kirogateway::Options options;
    options.address = settings.address;
    options.port = settings.port;
    options.certificateFile = settings.certificateFile;
    options.keyFile = settings.keyFile;
    if (!settings.publicAddress.empty()) {
        options.extraHosts = {hostOf(settings.publicAddress)};
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

std::vector<kirogateway::Asset> pageFiles() {
    std::vector<kirogateway::Asset> assets;
    for (const auto& [path, type, body] : kiropage::files()) {
        assets.push_back({std::string(path), std::string(type), std::string(body)});
    }
    return assets;
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
        cluster, fServer, fWakeup, std::make_shared<const kirogateway::AssetTable>(pageFiles()),
        fContext->counters, fContext->options, settings.pagesOfOne(), settings.others,
        settings.name, address, std::move(surroundings)});
    fCommon->link.largest = settings.largest;
    fOffers.emplace(cluster, settings.name, [address](const std::string& session) {
        return address + std::string(kirogateway::kSites) + session + "/";
    });
    fBeats = cluster.subscribe(
        kirolink::subjects::beat("*"),
        [this](std::string_view subject, std::string_view bytes) { beat(subject, bytes); });
    fServer.start(Sites(
        root, [this](Sites& sites, std::string_view prefix) { return follow(sites, prefix); }));
}

Service::~Service() { stop(); }

void Service::stop() noexcept {
    fBeats.reset();
    fServer.stop();
    Sessions sessions;
    {
        const annotated::Lock lock(fMutex);
        sessions.swap(fSessions);
    }
    // What was posted in vain may keep them for longer.
    for (const auto& [name, session] : sessions) session->stop();
}

// --- Sessions come -----------------------------------------------------------------------------

void Service::beat(std::string_view subject, std::string_view bytes) {
    const auto rest = subject.substr(subject.find('.') + 1);
    const auto name = rest.substr(0, rest.find('.'));
    const auto now = fCommon->surroundings.now();
    if (!fOffers->beat(std::string(name), bytes, now)) return;
    const annotated::Lock lock(fMutex);
    if (const auto known = fHeard.find(name); known != fHeard.end()) {
        known->second = now;
    } else if (fHeard.size() < kMostHeard) {
        fHeard.emplace(name, now);
    }
}

bool Service::isHeard(std::string_view name) const {
    const annotated::Lock lock(fMutex);
    const auto found = fHeard.find(name);
    return found != fHeard.end() &&
           fCommon->surroundings.now() - found->second < kirolink::kSilenceIsEnd;
}

std::shared_ptr<Site> Service::follow(Sites& sites, std::string_view prefix) {
    const std::string name(prefix.substr(kirogateway::kSites.size()));
    if (!isHeard(name)) return nullptr;
    {
        // There may have been no memory to note its site.
        const annotated::Lock lock(fMutex);
        const auto known = fSessions.find(name);
        if (known != fSessions.end()) return known->second->site();
    }
    if (!makeRoom(sites)) {
        fContext->peerLog.write("too many sessions are followed", name);
        return nullptr;
    }
    // Once it has begun nothing may fail.
    Sessions one;
    const auto at = one.emplace(name, std::make_shared<EngineSession>(*fCommon, name)).first;
    auto site = at->second->begin();
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
    std::erase_if(
        fHeard, [now](const auto& heard) { return now - heard.second >= kirolink::kSilenceIsEnd; });
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
        const auto one = session->held();
        held += one;
        if (one <= most) continue;
        most = one;
        largest = session.get();
    }
    if (held > fMostMemory) largest->holdAtMost(most - std::min(most, held - fMostMemory));
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
                endLater(session, "no page for a minute");
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
