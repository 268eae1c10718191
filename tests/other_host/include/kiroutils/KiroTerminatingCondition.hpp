#pragma once

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>

#include "bedrock/core/except/Exception.hpp"

namespace kiroutils {

class KIROHOST_VISIBLE TerminatingConditionException : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class KiroTerminatingCondition {
  public:
    KiroTerminatingCondition(const std::string& name, std::function<bool()> condition,
                             std::chrono::seconds timeout);
    virtual ~KiroTerminatingCondition();
    virtual bool shouldTerminate();
    virtual bool doThrowIfError();

    bool isLate() const { return fIsLate; }

  protected:
    template <typename Key>
    [[noreturn]] void respondToError(const std::string& what, const Key& key) {
        throw bedrock::core::except::Exception<Key, TerminatingConditionException>(key, {what});
    }

  private:
    std::string fName;
    std::function<bool()> fCondition;
    std::chrono::seconds fTimeout;
    std::chrono::steady_clock::time_point fStart = std::chrono::steady_clock::now();
    bool fIsLate = false;
};

}  // namespace kiroutils
