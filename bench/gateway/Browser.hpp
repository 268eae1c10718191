#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace bench {

/// A Chromium without a window that shows one page. It ends with this object.
class Browser {
  public:
    /// Throws `std::runtime_error` when there is none.
    explicit Browser(const std::string& link);
    ~Browser();
    Browser(const Browser&) = delete;
    Browser& operator=(const Browser&) = delete;

  private:
    std::filesystem::path fProfile;
    pid_t fProcess = 0;
};

}  // namespace bench
