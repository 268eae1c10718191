#pragma once

#include <sys/types.h>

#include <string>

namespace kirofigures::detail {

/// A browser that was asked to open an address. Nothing is said of what does not work.
class Browser {
  public:
    /// Opens `link` in the user's browser if there is a graphical session.
    void open(const std::string& link);
    Browser() = default;
    /// Clears away what is left of the opener; the browser itself goes on.
    ~Browser();
    Browser(const Browser&) = delete;
    Browser& operator=(const Browser&) = delete;

  private:
    pid_t fOpener = 0;
};

}  // namespace kirofigures::detail
