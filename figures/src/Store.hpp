#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Column.hpp"
#include "kirofigures/Numbers.hpp"

namespace kirofigures::detail {

/// Columns of one block, and which elements they are.
struct Delta {
    struct Part {
        const char* name;
        Slice numbers;
        bool asFloats;  ///< of 64-bit numbers: they travel as 32-bit ones
    };
    std::uint64_t first = 0;  ///< 0: these are all
    std::size_t count = 0;
    std::uint64_t base = 0;   ///< of a snapshot: how many were before these
    std::vector<Part> parts;  ///< views, good until the store changes
};

/// The elements of one series: its newest ones, which of them pages have, and how pages count them.
class Store {
  public:
    struct Input {
        const char* name;
        Slice numbers;
    };
    using Inputs = std::vector<Input>;

    static constexpr std::size_t kDefaultKeep = 1'000'000;

    /// Returns what speaks against `append` or `set`; "" if nothing does.
    [[nodiscard]] std::string complaint(const Inputs& inputs, bool isSet,
                                        const std::optional<Regular>& x) const;
    /// REQUIRES: no complaint.
    void append(const Inputs& inputs);
    /// Instead of what is there; none: forgets everything. REQUIRES: no complaint.
    void set(const Inputs& inputs, const std::optional<Regular>& x);

    void keep(std::size_t elements);
    void keepWidth(double width);
    /// How many elements pages are to keep.
    [[nodiscard]] std::size_t kept() const noexcept;

    [[nodiscard]] std::size_t size() const noexcept { return fGiven - fDropped; }
    /// Whether `delta` of changes would say something.
    [[nodiscard]] bool hasNews() const noexcept { return fIsReset || fSent != fGiven; }
    /// What pages lack, or everything (`whole`); nothing if that is nothing.
    [[nodiscard]] std::optional<Delta> delta(bool whole) const;
    /// Everything, for whoever goes on with what pages are sent next. REQUIRES: pages lack nothing.
    [[nodiscard]] std::optional<Delta> snapshot() const;
    /// Pages have had that delta.
    void sent(const Delta& delta) noexcept;

    /// The regular x of what pages count as element 0.
    [[nodiscard]] std::optional<Regular> regular() const noexcept;
    /// The number, among all that was given since the last set, of what pages call `index`;
    /// nothing if it is not kept.
    [[nodiscard]] std::optional<std::uint64_t> given(std::uint64_t index) const noexcept;

  private:
    struct Named {
        const char* name = nullptr;
        Column column;
    };

    [[nodiscard]] bool isFresh() const noexcept { return fColumns.empty(); }
    void start(const Inputs& inputs);
    void take(const Inputs& inputs);
    void drop(std::size_t count) noexcept;
    void dropOld() noexcept;

    std::vector<Named> fColumns;
    std::optional<Regular> fRegular;  ///< of the first element given since the last set
    // All of these count elements since the last set.
    std::uint64_t fGiven = 0;
    std::uint64_t fDropped = 0;
    std::uint64_t fSent = 0;
    std::uint64_t fBase = 0;  ///< what pages count as element 0
    bool fIsReset = false;    ///< pages have other elements, which are to go
    std::size_t fKeep = kDefaultKeep;
    std::optional<double> fWidth;
};

}  // namespace kirofigures::detail
