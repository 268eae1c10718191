#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "Node.hpp"

namespace kirofigures::detail {

/// All figures of a window, and what of them pages do not have yet.
class Scene {
  public:
    Scene() : fRoot(*this) {}
    ~Scene() = default;
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    [[nodiscard]] Node& root() noexcept { return fRoot; }
    /// The object with this number; null if there is none.
    [[nodiscard]] Object* find(std::uint64_t id) const noexcept;

    /// Sends what has changed, or everything. When it throws, pages may have had a part: the next
    /// one has to send everything.
    void send(Outlet& outlet, bool isWhole);
    /// Everything, to somebody who is no page. REQUIRES: pages lack nothing.
    void sendSnapshot(Outlet& outlet) const { fRoot.sendSnapshot(outlet); }

    // For the nodes.
    std::uint64_t enter(Node& node);
    void leave(Node& node) noexcept;
    void touched(Node& node) { fTouched.push_back(&node); }
    void removed(const Node& node);

  private:
    std::unordered_map<std::uint64_t, Node*> fNodes;
    std::uint64_t fLastID = 0;
    /// In the order of their first change, so that an object is created after what it is in.
    std::vector<Node*> fTouched;
    std::vector<std::uint64_t> fRemoved;
    /// Last, for its nodes leave the lists above.
    Node fRoot;
};

}  // namespace kirofigures::detail
