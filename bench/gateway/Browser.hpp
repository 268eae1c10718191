#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace bench {

/// A Chromium without a window that shows one page, and others when it is told to. Nobody watches
/// it from within, which would slow down what it draws. It ends with this object.
class Browser {
  public:
    /// Throws `std::runtime_error` when there is none.
    explicit Browser(const std::string& link);
    ~Browser();
    Browser(const Browser&) = delete;
    Browser& operator=(const Browser&) = delete;

    /// Opens a page in a tab of its own. Throws `std::runtime_error` when the browser does not
    /// answer. Answers the tab's name.
    std::string open(const std::string& link);
    void close(const std::string& tab);
    /// Runs `expression` in a tab and answers what it, or its promise, comes to, as JSON. Throws
    /// `std::runtime_error` with what it throws. Any thread.
    std::string evaluate(const std::string& tab, const std::string& expression);

    [[nodiscard]] pid_t process() const noexcept { return fProcess; }

  private:
    /// What the browser answers to a request of its own interface.
    std::string ask(const std::string& request);

    std::filesystem::path fProfile;
    pid_t fProcess = 0;
};

}  // namespace bench
