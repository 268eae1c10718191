#pragma once

#include <boost/json/value.hpp>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Outlet.hpp"
#include "Store.hpp"
#include "kirofigures/Object.hpp"

namespace kirofigures::detail {

class Scene;

/// What stands behind an object: its place, its properties, its data, and what of that pages have.
class Node {
  public:
    /// Of the root, which pages know nothing of.
    explicit Node(Scene& scene) noexcept : fScene(scene) {}
    Node(Scene& scene, Node& parent, const char* type);
    ~Node();
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    [[nodiscard]] std::uint64_t id() const noexcept { return fID; }
    [[nodiscard]] std::string_view type() const noexcept { return fType; }
    [[nodiscard]] Node* parent() const noexcept { return fParent; }
    [[nodiscard]] Object* object() const noexcept { return fObject.get(); }

    [[nodiscard]] static Node& of(const Object& object) noexcept { return object.fNode; }

    /// Makes an object in this one, of which there is nothing when `setUp` throws. `Kind` is
    /// constructed from its node.
    template <typename Kind, typename SetUp>
    Kind& make(const char* type, const SetUp& setUp) {
        auto node = std::make_unique<Node>(fScene, *this, type);
        auto object = std::make_unique<Kind>(*node);
        Kind& made = *object;
        node->fObject = std::move(object);
        setUp(made);
        adopt(std::move(node));
        return made;
    }
    /// Ends this and all in it. REQUIRES: not the root.
    void remove();

    /// Null: the default.
    void put(const char* key, boost::json::value value);
    /// Several numbers: all of them, or none when it throws.
    void putAll(std::initializer_list<std::pair<const char*, std::int64_t>> numbers);
    /// Null if it was never put.
    [[nodiscard]] const boost::json::value* find(std::string_view key) const noexcept;

    [[nodiscard]] const Store* store() const noexcept { return fStore.get(); }
    /// For a change: made when there is none yet.
    Store& changeStore();

    /// Where this is, for people: 'figure "Map", axes 2, line "coast"'.
    [[nodiscard]] std::string path() const;
    /// Throws std::invalid_argument: where this is, and `what`.
    [[noreturn]] void refuse(const std::string& what) const;

    /// What has changed, or everything.
    void send(Outlet& outlet, bool isWhole);
    void sendWhole(Outlet& outlet);
    /// See `Scene::sendSnapshot`.
    void sendSnapshot(Outlet& outlet) const;
    void touch();
    [[nodiscard]] bool isKnown() const noexcept { return fIsKnown; }

  private:
    friend class Scene;

    void adopt(std::unique_ptr<Node> node);
    Property& property(const char* key);
    [[nodiscard]] std::string name() const;
    void prepareData(const Delta& delta);

    Scene& fScene;
    Node* const fParent = nullptr;
    const char* const fType = "";
    const std::uint64_t fID = 0;
    bool fIsKnown = false;    ///< to pages
    bool fIsTouched = false;  ///< the scene has it in its list
    std::vector<Property> fProperties;
    std::unique_ptr<Store> fStore;
    std::vector<std::unique_ptr<Node>> fChildren;
    std::unique_ptr<Object> fObject;
};

}  // namespace kirofigures::detail
