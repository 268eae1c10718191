#include "Scene.hpp"

#include <algorithm>
#include <cstring>

#include "Decoder.hpp"

namespace recording_tool {

namespace {

constexpr std::uint64_t kKeep = 1'000'000;
/// In all columns: 512 MiB.
constexpr std::uint64_t kMostNumbers = std::uint64_t{64} << 20U;
constexpr std::size_t kMostObjects = 100'000;  // as in the page

/// Columns by name, as a block has them.
struct Elements {
    std::map<std::string, std::vector<double>, std::less<>> columns;
    std::map<std::string, bool, std::less<>> isSingle;
};

template <typename Number>
std::vector<double> valuesOf(std::string_view bytes) {
    std::vector<double> values(bytes.size() / sizeof(Number));
    for (std::size_t i = 0; i < values.size(); ++i) {
        Number number;
        std::memcpy(&number, bytes.data() + i * sizeof number, sizeof number);
        values[i] = static_cast<double>(number);
    }
    return values;
}

Elements elementsIn(std::string_view data, std::uint64_t count, std::string_view columns) {
    constexpr std::size_t kDouble = 8;
    constexpr std::size_t kFloat = 4;
    // No count is larger than its bytes.
    if (count > data.size() && count > 0) throw WrongText{"a block is too short"};
    Elements elements;
    kirorecording::Decoder rest(data);
    for (const auto& column : elementsOf(columns)) {
        const auto pair = elementsOf(column);
        if (pair.size() != 2) throw WrongText{"a column without name or type"};
        const auto name = textOf(pair[0]);
        const auto type = textOf(pair[1]);
        auto& values = elements.columns[name];
        if (type == "f64") {
            values = valuesOf<double>(rest.raw(count * kDouble));
        } else if (type == "f32") {
            values = valuesOf<float>(rest.raw(count * kFloat));
        } else if (type == "u8") {
            values = valuesOf<std::uint8_t>(rest.raw(count));
        } else {
            throw WrongText{"a column of no type"};
        }
        elements.isSingle[name] = type != "f64";
    }
    if (!rest.isAtEnd()) throw WrongText{"a block is too long"};
    return elements;
}

bool haveSameNames(const Object& object, const Elements& elements) {
    return std::equal(object.columns.begin(), object.columns.end(), elements.columns.begin(),
                      elements.columns.end(),
                      [](const auto& one, const auto& other) { return one.first == other.first; });
}

std::uint64_t numbersOf(const Object& object) {
    std::uint64_t sum = 0;
    for (const auto& [name, values] : object.columns) sum += values.size();
    return sum;
}

void setProperties(Object& object, const Members& command) {
    for (const auto& [name, value] : command) {
        if (value == "null") {
            object.properties.erase(name);
        } else {
            object.properties.insert_or_assign(name, value);
        }
    }
}

/// An object keeps its newest elements; an image is one whole.
void forget(Object& object) {
    if (object.type == "image") return;
    const auto keep = object.properties.find("keep");
    const auto most = keep == object.properties.end() ? kKeep : countOf(keep->second);
    for (auto& [name, values] : object.columns) {
        if (values.size() <= most) continue;
        values.erase(values.begin(), values.end() - static_cast<std::ptrdiff_t>(most));
    }
}

}  // namespace

void Scene::apply(const Members& command, std::string_view data) try {
    const auto name = textOf(demand(command, "cmd"));
    if (name == "beginFrame") {
        const auto whole = find(command, "whole");
        if (whole != "true") return;
        fObjects.clear();
        fNumbers = 0;
    } else if (name == "create") {
        create(command);
    } else if (name == "set") {
        auto& object = demandObject(command);
        setProperties(object, command);
        fNumbers -= numbersOf(object);
        forget(object);
        fNumbers += numbersOf(object);
    } else if (name == "remove") {
        demandObject(command);
        remove(countOf(demand(command, "id")));
    } else if (name == "data") {
        setData(demandObject(command), command, data);
    } else {
        throw WrongText{"a command that there is not"};
    }
} catch (const kirorecording::WrongRecord&) {
    throw WrongText{"a block is too short"};
}

Object& Scene::demandObject(const Members& command) {
    const auto found = fObjects.find(countOf(demand(command, "id")));
    if (found == fObjects.end()) throw WrongText{"a command for an object that there is not"};
    return found->second;
}

void Scene::create(const Members& command) {
    Object object;
    object.type = textOf(demand(command, "type"));
    if (const auto parent = find(command, "parent")) {
        object.parent = countOf(*parent);
        if (fObjects.count(object.parent) == 0)
            throw WrongText{"an object in one that there is not"};
    }
    setProperties(object, command);
    const auto id = countOf(demand(command, "id"));
    if (fObjects.size() >= kMostObjects) throw WrongText{"more objects than there is room for"};
    const auto parent = object.parent;
    if (!fObjects.emplace(id, std::move(object)).second) throw WrongText{"an object that there is"};
    if (parent != 0) fObjects.at(parent).children.insert(id);
}

void Scene::remove(std::uint64_t id) {
    const auto parent = fObjects.at(id).parent;
    if (parent != 0) fObjects.at(parent).children.erase(id);
    std::vector<std::uint64_t> gone{id};
    while (!gone.empty()) {
        const auto found = fObjects.find(gone.back());
        gone.pop_back();
        const auto& object = found->second;
        fNumbers -= numbersOf(object);
        gone.insert(gone.end(), object.children.begin(), object.children.end());
        fObjects.erase(found);
    }
}

void Scene::setData(Object& object, const Members& command, std::string_view data) {
    const auto first = countOf(demand(command, "first"));
    const auto count = countOf(demand(command, "count"));
    const auto base = find(command, "base");
    auto added = elementsIn(data, count, demand(command, "columns"));
    if (first != 0 && first != object.given) throw WrongText{"elements that do not follow"};
    fNumbers -= numbersOf(object);
    if (first == 0 || object.columns.empty()) {
        object.columns = std::move(added.columns);
        object.isSingle = std::move(added.isSingle);
        object.given = first == 0 && base ? countOf(*base) : first;
    } else {
        if (!haveSameNames(object, added)) throw WrongText{"other columns than before"};
        for (auto& [name, values] : object.columns) {
            const auto& more = added.columns.at(name);
            values.insert(values.end(), more.begin(), more.end());
            if (!added.isSingle.at(name)) object.isSingle.at(name) = false;
        }
    }
    object.given += count;
    forget(object);
    fNumbers += numbersOf(object);
    if (fNumbers > kMostNumbers) throw WrongText{"more elements than there is room for"};
}

}  // namespace recording_tool
