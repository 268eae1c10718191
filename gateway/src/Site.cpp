#include "Site.hpp"

#include <algorithm>
#include <utility>

#include "checked/Require.hpp"
#include "text/Name.hpp"

namespace kirogateway {

Site::Site(std::string thePlace, std::shared_ptr<Context> theContext,
           const std::shared_ptr<Wakeup>& wakeup, std::function<void()> lastPageGone,
           std::uint64_t viewsBefore)
    : place(std::move(thePlace)),
      prefix(place.starts_with('/') ? place : std::string()),
      context(std::move(theContext)),
      inbound(context),
      views(std::make_shared<ViewRegistry>(context, wakeup, inbound, std::move(lastPageGone),
                                           viewsBefore)),
      fanout(std::make_shared<Fanout>(context, views)),
      services{context, views, inbound} {}

Sites::Sites(std::shared_ptr<Site> root, Finder finder, const std::string& host)
    : fRoot(std::move(root)),
      fFinder(std::move(finder)),
      fBelow(host.empty() ? host : "." + host) {}

std::shared_ptr<Site> Sites::find(const Request& request) {
    const bool isOwn = request.hosts.size() == 1 && isOwnHost(request.hosts.front());
    const auto place = isOwn ? request.hosts.front() : sitePrefix(request.target);
    if (place.empty() || (fNamed.empty() && !fFinder)) return fRoot;
    // The host first: a page from elsewhere must not have sites made, nor see which there are.
    if (!isOwn && !fRoot->access->isForUs(request)) return fRoot;
    if (auto known = at(place)) return known;
    if (!fFinder) return fRoot;
    auto made = fFinder(*this, place);
    if (made.site == nullptr) return fRoot;
    KIROWEB_REQUIRE(made.site->place == place && made.site->access != nullptr);
    if (!made.stays) return std::move(made.site);
    return fNamed.emplace(made.site->place, std::move(made.site)).first->second;
}

bool Sites::isOwnHost(std::string_view host) const {
    if (fBelow.empty() || !host.ends_with(fBelow)) return false;
    const auto label = host.substr(0, host.size() - fBelow.size());
    return text::isName(label) && text::hostLabel(label) == label;
}

void Sites::put(std::shared_ptr<Site> site, std::string_view why, wire::CloseCode code) {
    KIROWEB_REQUIRE(!site->place.empty() && site->access != nullptr);
    auto& now = fNamed[site->place];
    const auto before = std::exchange(now, std::move(site));
    if (before != nullptr) before->views->shut(why, code);
}

void Sites::remove(std::string_view place, std::string_view why) noexcept {
    const auto found = fNamed.find(place);
    if (found == fNamed.end()) return;
    const auto site = std::move(found->second);
    fNamed.erase(found);
    site->views->shut(why);
}

std::shared_ptr<Site> Sites::at(std::string_view place) const noexcept {
    const auto found = fNamed.find(place);
    return found == fNamed.end() ? nullptr : found->second;
}

bool Sites::areViewsEmpty() const {
    const auto isEmpty = [](const auto& named) { return named.second->views->isEmpty(); };
    return fRoot->views->isEmpty() && std::ranges::all_of(fNamed, isEmpty);
}

void Sites::tick(TimePoint now) noexcept {
    fRoot->views->tick(now);
    for (const auto& [place, site] : fNamed) site->views->tick(now);
}

void Sites::shut() noexcept {
    fRoot->views->shut();
    for (const auto& [place, site] : fNamed) site->views->shut();
}

std::string_view sitePrefix(std::string_view target) noexcept {
    if (!target.starts_with(kSites)) return {};
    const auto prefix = target.substr(0, target.find_first_of("/?", kSites.size()));
    return text::isName(prefix.substr(kSites.size())) ? prefix : std::string_view();
}

}  // namespace kirogateway
