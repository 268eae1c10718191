#pragma once

#include <string>

#include "kirohost/Export.hpp"

namespace kiroutils {

/// Makes identifiers that no other generator, in this process or another, makes.
class KIROHOST_EXPORT UniqueIDGenerator {
  public:
    UniqueIDGenerator();

    /// A fresh identifier on each call, printable ASCII without blanks. One thread at a time.
    [[nodiscard]] std::string nextID();

  private:
    std::string fPrefix;
    unsigned long fNext = 1;
};

}  // namespace kiroutils
