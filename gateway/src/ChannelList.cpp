#include "ChannelList.hpp"

#include "text/ChannelPattern.hpp"

namespace kirogateway {

using channels::isWildcard;
using channels::prefixOf;

namespace {

constexpr std::size_t kNodeBytes = 96;  // of a set, beside the name

}  // namespace

ChannelList::ChannelList(const std::vector<std::string>& channels) {
    for (const auto& channel : channels) add(channel);
}

void ChannelList::add(std::string_view channel) {
    if (!isWildcard(channel)) {
        if (fNames.emplace(channel).second) fBytes += channel.size() + kNodeBytes;
        return;
    }
    const auto prefix = prefixOf(channel);
    auto& count = fLengths[prefix.size()];
    if (!fPrefixes.emplace(prefix).second) return;
    ++count;
    fBytes += channel.size() + kNodeBytes;
}

bool ChannelList::addUpTo(std::size_t most, std::string_view channel) {
    if (size() >= most && !contains(channel)) return false;
    add(channel);
    return true;
}

void ChannelList::remove(std::string_view channel) {
    if (!isWildcard(channel)) {
        const auto found = fNames.find(channel);
        if (found == fNames.end()) return;
        fNames.erase(found);
        fBytes -= channel.size() + kNodeBytes;
        return;
    }
    const auto found = fPrefixes.find(prefixOf(channel));
    if (found == fPrefixes.end()) return;
    if (--fLengths[found->size()] == 0) fLengths.erase(found->size());
    fPrefixes.erase(found);
    fBytes -= channel.size() + kNodeBytes;
}

bool ChannelList::contains(std::string_view channel) const {
    return isWildcard(channel) ? fPrefixes.contains(prefixOf(channel)) : fNames.contains(channel);
}

bool ChannelList::hasPrefixOf(std::string_view text) const {
    for (const auto& [length, count] : fLengths) {
        if (length > text.size()) return false;
        // A prefix ends with a slash, so most lengths are ruled out by one character.
        if (text[length - 1] == '/' && fPrefixes.contains(text.substr(0, length))) return true;
    }
    return false;
}

bool ChannelList::matches(std::string_view channel) const {
    return fNames.contains(channel) || hasPrefixOf(channel);
}

bool ChannelList::covers(std::string_view request) const {
    return isWildcard(request) ? hasPrefixOf(prefixOf(request)) : matches(request);
}

std::vector<std::string> ChannelList::channels() const {
    std::vector<std::string> all(fNames.begin(), fNames.end());
    for (const auto& prefix : fPrefixes) all.push_back(prefix + "*");
    return all;
}

}  // namespace kirogateway
