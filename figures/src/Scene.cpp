#include "Scene.hpp"

#include <algorithm>

namespace kirofigures::detail {

Object* Scene::find(std::uint64_t id) const noexcept {
    const auto found = fNodes.find(id);
    return found == fNodes.end() ? nullptr : found->second->object();
}

std::uint64_t Scene::enter(Node& node) {
    fNodes.emplace(fLastID + 1, &node);
    return ++fLastID;
}

void Scene::leave(Node& node) noexcept {
    fNodes.erase(node.id());
    if (node.fIsTouched) std::erase(fTouched, &node);
}

void Scene::removed(const Node& node) {
    if (node.isKnown()) fRemoved.push_back(node.id());
}

void Scene::send(Outlet& outlet, bool isWhole) {
    if (isWhole) {
        fRoot.sendWhole(outlet);
    } else {
        for (const auto id : fRemoved) outlet.remove(id);
        // By index: preparing its data changes a node, which is in the list already.
        std::size_t i = 0;
        while (i < fTouched.size()) fTouched[i++]->send(outlet, false);
    }
    fTouched.clear();
    fRemoved.clear();
}

}  // namespace kirofigures::detail
