#include "ChannelList.hpp"

#include <algorithm>

namespace kirogateway {
namespace {

bool isWildcard(std::string_view channel) { return channel.ends_with("/*"); }

std::string_view prefixOf(std::string_view wildcard) {
    return wildcard.substr(0, wildcard.size() - 1);
}

}  // namespace

ChannelList::ChannelList(const std::vector<std::string>& channels) {
    for (const auto& channel : channels) add(channel);
}

void ChannelList::add(std::string_view channel) {
    if (!isWildcard(channel)) {
        fNames.emplace(channel);
    } else if (std::ranges::find(fPrefixes, prefixOf(channel)) == fPrefixes.end()) {
        fPrefixes.emplace_back(prefixOf(channel));
    }
}

void ChannelList::remove(std::string_view channel) {
    if (isWildcard(channel)) {
        std::erase(fPrefixes, prefixOf(channel));
    } else if (const auto found = fNames.find(channel); found != fNames.end()) {
        fNames.erase(found);
    }
}

bool ChannelList::matches(std::string_view channel) const {
    if (fNames.contains(channel)) return true;
    return std::ranges::any_of(
        fPrefixes, [channel](const std::string& prefix) { return channel.starts_with(prefix); });
}

bool ChannelList::covers(std::string_view request) const {
    if (!isWildcard(request)) return matches(request);
    const auto asked = prefixOf(request);
    return std::ranges::any_of(
        fPrefixes, [asked](const std::string& prefix) { return asked.starts_with(prefix); });
}

std::vector<std::string> ChannelList::channels() const {
    std::vector<std::string> all(fNames.begin(), fNames.end());
    for (const auto& prefix : fPrefixes) all.push_back(prefix + "*");
    return all;
}

}  // namespace kirogateway
