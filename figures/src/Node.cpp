#include "Node.hpp"

#include <algorithm>
#include <array>
#include <boost/json/array.hpp>
#include <boost/json/string.hpp>
#include <stdexcept>
#include <utility>

#include "Scene.hpp"
#include "checked/Require.hpp"
#include "text/Escape.hpp"

namespace kirofigures::detail {

namespace json = boost::json;

Node::Node(Scene& scene, Node& parent, const char* type)
    : fScene(scene),
      fParent(parent.fID == 0 ? nullptr : &parent),
      fType(type),
      fID(scene.enter(*this)) {}

Node::~Node() {
    // From the leaves to the root, and each object before its node.
    fObject.reset();
    fChildren.clear();
    if (fID != 0) fScene.leave(*this);
}

void Node::adopt(std::unique_ptr<Node> node) {
    // Where there is no room for it, nothing of it stays.
    node->touch();
    fChildren.push_back(std::move(node));
}

void Node::remove() {
    KIROWEB_REQUIRE(fID != 0);
    fScene.removed(*this);
    auto& siblings = fParent == nullptr ? fScene.root().fChildren : fParent->fChildren;
    const auto place = std::ranges::find(siblings, this, &std::unique_ptr<Node>::get);
    const auto self = std::move(*place);
    siblings.erase(place);
}

Property& Node::property(const char* key) {
    const auto found = std::ranges::find(fProperties, std::string_view(key),
                                         [](const Property& one) { return one.key; });
    if (found != fProperties.end()) return *found;
    // Null is what pages take an absent one for.
    return fProperties.emplace_back(Property{key, nullptr, true});
}

void Node::put(const char* key, json::value value) {
    Property& known = property(key);
    if (known.value == value) return;
    touch();  // may fail, and before anything has changed
    known.value = std::move(value);
    known.isSent = false;
}

void Node::putAll(std::initializer_list<std::pair<const char*, std::int64_t>> numbers) {
    for (const auto& [key, number] : numbers) property(key);
    touch();
    // From here on nothing is allocated.
    for (const auto& [key, number] : numbers) put(key, number);
}

const json::value* Node::find(std::string_view key) const noexcept {
    const auto found =
        std::ranges::find(fProperties, key, [](const Property& one) { return one.key; });
    return found == fProperties.end() ? nullptr : &found->value;
}

Store& Node::changeStore() {
    if (fStore == nullptr) fStore = std::make_unique<Store>();
    touch();
    return *fStore;
}

std::string Node::name() const {
    for (const char* key : {"title", "name", "label"}) {
        const auto* const given = find(key);
        if (given == nullptr || !given->is_string() || given->get_string().empty()) continue;
        const auto& text = given->get_string();
        return std::string(fType) + " \"" + text::escaped({text.data(), text.size()}) + '"';
    }
    const auto& siblings = fParent == nullptr ? fScene.root().fChildren : fParent->fChildren;
    std::size_t number = 1;
    for (const auto& sibling : siblings) {
        if (sibling.get() == this) break;
        if (sibling->type() == fType) ++number;
    }
    return std::string(fType) + ' ' + std::to_string(number);
}

std::string Node::path() const {
    return fParent == nullptr ? name() : fParent->path() + ", " + name();
}

void Node::refuse(const std::string& what) const {
    throw std::invalid_argument(path() + ": " + what);
}

void Node::touch() {
    if (fIsTouched) return;
    fScene.touched(*this);
    fIsTouched = true;
}

void Node::prepareData(const Delta& delta) {
    fStore->sent(delta);
    if (delta.first != 0) return;
    json::value regular;
    if (const auto x = fStore->regular()) regular = json::array{x->start, x->step};
    put("regular", std::move(regular));
}

void Node::send(Outlet& outlet, bool isWhole) {
    const auto delta = fStore == nullptr ? std::nullopt : fStore->delta(isWhole);
    if (delta) prepareData(*delta);
    if (fStore != nullptr && (fStore->kept() != Store::kDefaultKeep || find("keep") != nullptr)) {
        put("keep", static_cast<std::int64_t>(fStore->kept()));
    }
    fIsTouched = false;
    const auto isSent = [](const Property& property) { return property.isSent; };
    if (isWhole || !fIsKnown) {
        outlet.create(fID, fType, fParent == nullptr ? 0 : fParent->fID, fProperties);
    } else if (!std::ranges::all_of(fProperties, isSent)) {
        outlet.set(fID, fProperties);
    }
    fIsKnown = true;
    for (auto& property : fProperties) property.isSent = true;
    if (delta) outlet.data(fID, *delta);
}

void Node::sendWhole(Outlet& outlet) {
    if (fID != 0) send(outlet, true);
    for (const auto& child : fChildren) child->sendWhole(outlet);
}

void Node::sendSnapshot(Outlet& outlet) const {
    if (fID != 0) {
        const auto delta = fStore == nullptr ? std::nullopt : fStore->snapshot();
        outlet.create(fID, fType, fParent == nullptr ? 0 : fParent->fID, fProperties);
        if (delta) outlet.data(fID, *delta);
    }
    for (const auto& child : fChildren) child->sendSnapshot(outlet);
}

}  // namespace kirofigures::detail
