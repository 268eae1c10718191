#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "bedrock/core/except/Exception.hpp"
#include "kirohost/Export.hpp"

namespace kiroutils {

/// A blocking wait ended for another reason than its condition.
class KIROHOST_VISIBLE TerminatingConditionException : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// When a blocking wait ends: the condition holds, the time has passed, or an error turned up.
/// Used on the waiting thread only.
class KIROHOST_EXPORT KiroTerminatingCondition {
  public:
    /// The time starts now. `name` serves the error texts. `std::chrono::seconds::max()` means
    /// that the wait has no time-out. An empty condition never holds.
    KiroTerminatingCondition(const std::string& name, std::function<bool()> condition,
                             std::chrono::seconds timeout);
    KiroTerminatingCondition(const KiroTerminatingCondition&) = delete;
    KiroTerminatingCondition& operator=(const KiroTerminatingCondition&) = delete;
    virtual ~KiroTerminatingCondition();

    /// True when the condition holds or the time has passed. The condition is asked first.
    virtual bool shouldTerminate();
    /// Throws when an error has turned up that ends the wait; otherwise returns false.
    virtual bool doThrowIfError();

    [[nodiscard]] const std::string& name() const noexcept;
    /// True when the last `shouldTerminate()` answered true because the time had passed.
    [[nodiscard]] bool hasTimedOut() const noexcept;
    [[nodiscard]] std::chrono::seconds timeout() const noexcept;

  protected:
    /// Raises the catalogue error `Key` with the text argument `what`. Does not return.
    template <typename Key>
    [[noreturn]] void respondToError(const std::string& what, const Key& key) {
        throw bedrock::core::except::Exception<Key, TerminatingConditionException>(key, {what});
    }

  private:
    struct Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kiroutils
