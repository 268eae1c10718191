#include "Site.hpp"

#include <algorithm>
#include <utility>

#include "checked/Require.hpp"
#include "text/Name.hpp"

namespace kirogateway {

Site::Site(std::string thePrefix, std::shared_ptr<Context> theContext,
           const std::shared_ptr<Wakeup>& wakeup, std::function<void()> lastPageGone,
           std::uint64_t viewsBefore)
    : prefix(std::move(thePrefix)),
      context(std::move(theContext)),
      inbound(context),
      views(std::make_shared<ViewRegistry>(context, wakeup, inbound, std::move(lastPageGone),
                                           viewsBefore)),
      fanout(std::make_shared<Fanout>(context, views)),
      services{context, views, inbound} {}

Sites::Sites(std::shared_ptr<Site> root, Finder finder)
    : fRoot(std::move(root)), fFinder(std::move(finder)) {}

std::shared_ptr<Site> Sites::find(const Request& request) {
    const auto prefix = sitePrefix(request.target);
    if (prefix.empty() || (fNamed.empty() && !fFinder)) return fRoot;
    if (auto known = at(prefix)) return known;
    // The host first: a page from elsewhere must not have sites made.
    if (!fFinder || !fRoot->access->isForUs(request)) return fRoot;
    auto made = fFinder(*this, prefix);
    if (made == nullptr) return fRoot;
    KIROWEB_REQUIRE(made->prefix == prefix && made->access != nullptr);
    return fNamed.emplace(made->prefix, std::move(made)).first->second;
}

void Sites::put(std::shared_ptr<Site> site, std::string_view why) {
    KIROWEB_REQUIRE(!site->prefix.empty() && site->access != nullptr);
    auto& place = fNamed[site->prefix];
    const auto before = std::exchange(place, std::move(site));
    if (before != nullptr) before->views->shut(why);
}

void Sites::remove(std::string_view prefix, std::string_view why) noexcept {
    const auto found = fNamed.find(prefix);
    if (found == fNamed.end()) return;
    const auto site = std::move(found->second);
    fNamed.erase(found);
    site->views->shut(why);
}

std::shared_ptr<Site> Sites::at(std::string_view prefix) const noexcept {
    const auto found = fNamed.find(prefix);
    return found == fNamed.end() ? nullptr : found->second;
}

bool Sites::areViewsEmpty() const {
    const auto isEmpty = [](const auto& named) { return named.second->views->isEmpty(); };
    return fRoot->views->isEmpty() && std::ranges::all_of(fNamed, isEmpty);
}

void Sites::tick(TimePoint now) noexcept {
    fRoot->views->tick(now);
    for (const auto& [prefix, site] : fNamed) site->views->tick(now);
}

void Sites::shut() noexcept {
    fRoot->views->shut();
    for (const auto& [prefix, site] : fNamed) site->views->shut();
}

std::string_view sitePrefix(std::string_view target) noexcept {
    if (!target.starts_with(kSites)) return {};
    const auto prefix = target.substr(0, target.find_first_of("/?", kSites.size()));
    return text::isName(prefix.substr(kSites.size())) ? prefix : std::string_view();
}

}  // namespace kirogateway
