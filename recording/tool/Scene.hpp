#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "JsonText.hpp"

namespace recording_tool {

/// An object of a figure, with its elements.
struct Object {
    std::string type;
    std::uint64_t parent = 0;  ///< 0: none
    std::set<std::uint64_t> children;
    /// As JSON texts; one that is null is not there.
    std::map<std::string, std::string, std::less<>> properties;
    /// All of the same length.
    std::map<std::string, std::vector<double>, std::less<>> columns;
    /// Of columns that have been nothing wider: their values are 32-bit floats.
    std::map<std::string, bool, std::less<>> isSingle;
    std::uint64_t given = 0;  ///< elements since it was last set
};

/// The figures that a run's commands make, as docs/figures.md says.
class Scene {
  public:
    /// Of a "data" command the data of its block. Throws WrongText for what cannot be carried out.
    void apply(const Members& command, std::string_view data);
    /// By their numbers: the order of creation.
    [[nodiscard]] const std::map<std::uint64_t, Object>& objects() const noexcept {
        return fObjects;
    }

  private:
    Object& demandObject(const Members& command);
    void create(const Members& command);
    void remove(std::uint64_t id);
    void setData(Object& object, const Members& command, std::string_view data);

    std::map<std::uint64_t, Object> fObjects;
    std::uint64_t fNumbers = 0;  ///< in all columns
};

}  // namespace recording_tool
