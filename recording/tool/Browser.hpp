#pragma once

#include <sys/types.h>

#include <boost/json/object.hpp>
#include <chrono>
#include <string>
#include <string_view>

namespace recording_tool {

/// Both ends of a pipe, as long as nobody closes one of them.
class Pipe {
  public:
    /// Throws std::system_error.
    Pipe();
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    [[nodiscard]] int reading() const noexcept { return fReading; }
    [[nodiscard]] int writing() const noexcept { return fWriting; }
    void closeReading() noexcept;
    void closeWriting() noexcept;

  private:
    int fReading = -1;
    int fWriting = -1;
};

/// A Chromium without a window, which is told what to do over pipes. One thread.
class Browser {
  public:
    /// Starts it; `folder`, which is there, is for what it keeps. All that it is asked for has to
    /// come about within `patience`. Throws std::system_error.
    Browser(const std::string& path, const std::string& folder, std::chrono::seconds patience);
    Browser(const Browser&) = delete;
    Browser& operator=(const Browser&) = delete;
    ~Browser();

    /// The result of a call. `session`: of a page; empty: the browser. Throws std::runtime_error
    /// when there is none.
    boost::json::object call(std::string_view method, boost::json::object parameters,
                             std::string_view session = {});

    /// Ends the one that runs, if any, with all that it has started. Any thread, since the program
    /// is to end.
    static void killAny() noexcept;

  private:
    void start(const std::string& path, const std::string& folder);
    void send(std::string_view text) const;
    /// The next message.
    boost::json::object receive();
    /// Waits until something can be read; false at the deadline.
    bool untilReadable() const;

    const std::chrono::steady_clock::time_point fDeadline;
    Pipe fHears;
    Pipe fSays;
    pid_t fProcess = -1;
    int fNumber = 0;
    std::string fRead;
};

}  // namespace recording_tool
