#pragma once

#include <string>

namespace kiroutils {

class UniqueIDGenerator {
  public:
    std::string nextID();
};

}  // namespace kiroutils
