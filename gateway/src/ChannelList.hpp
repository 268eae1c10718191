#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace kirogateway {

/// A set of channel names and wildcards (a final "/*"). Not synchronised.
class ChannelList {
  public:
    ChannelList() = default;
    explicit ChannelList(const std::vector<std::string>& channels);

    /// Nothing happens if it is there already.
    void add(std::string_view channel);
    /// As `add`, unless there would be more than `most`. Returns whether it is there now.
    [[nodiscard]] bool addUpTo(std::size_t most, std::string_view channel);
    /// Takes back exactly that name.
    void remove(std::string_view channel);

    /// Whether exactly that name is there.
    [[nodiscard]] bool contains(std::string_view channel) const;
    /// Its cost grows with the number of different lengths that the wildcards have, not with
    /// theirs.
    [[nodiscard]] bool matches(std::string_view channel) const;
    /// Whether every channel that `request`, a name or a wildcard, stands for is matched.
    [[nodiscard]] bool covers(std::string_view request) const;

    [[nodiscard]] std::size_t size() const noexcept { return fNames.size() + fPrefixes.size(); }
    /// What the names take, about.
    [[nodiscard]] std::size_t bytes() const noexcept { return fBytes; }
    /// As they were added, in no particular order.
    [[nodiscard]] std::vector<std::string> channels() const;

  private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const noexcept {
            return std::hash<std::string_view>{}(text);
        }
    };

    using Set = std::unordered_set<std::string, Hash, std::equal_to<>>;

    [[nodiscard]] bool hasPrefixOf(std::string_view text) const;

    Set fNames;
    Set fPrefixes;  ///< of the wildcards, the slash included
    std::size_t fBytes = 0;
    std::map<std::size_t, std::size_t> fLengths;  ///< of prefixes, and how many have each
};

}  // namespace kirogateway
