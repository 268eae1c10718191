#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "kirohost/Export.hpp"

namespace bedrock::log {

/// One record being written; it is handed on when it is destroyed. Made by
/// `basic_diagnostic_logger::record`.
class KIROHOST_EXPORT diagnostic_record {
  public:
    struct Impl;
    explicit diagnostic_record(std::unique_ptr<Impl> impl) noexcept;
    diagnostic_record(diagnostic_record&&) noexcept;
    diagnostic_record& operator=(diagnostic_record&&) = delete;
    diagnostic_record(const diagnostic_record&) = delete;
    diagnostic_record& operator=(const diagnostic_record&) = delete;
    ~diagnostic_record();

    diagnostic_record& operator<<(std::string_view text);
    diagnostic_record& operator<<(unsigned long number);

  private:
    std::unique_ptr<Impl> fImpl;
};

/// A named diagnostic logger with levels from 0 (gravest) to 10 (finest). A record is written
/// when logging is enabled at all and its level is at most the logger's; a logger starts at 4.
/// Loggers of one name share their level. All operations on any thread.
class KIROHOST_EXPORT basic_diagnostic_logger {
  public:
    explicit basic_diagnostic_logger(std::string name);
    ~basic_diagnostic_logger();
    basic_diagnostic_logger(const basic_diagnostic_logger&) = delete;
    basic_diagnostic_logger& operator=(const basic_diagnostic_logger&) = delete;

    /// Whether a record of `level` would be written. Ask before formatting; it costs two loads.
    [[nodiscard]] bool enabled(int level) const noexcept;
    /// Starts a record. It is written whatever `enabled(level)` says.
    [[nodiscard]] diagnostic_record record(int level) const;

  private:
    struct Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace bedrock::log
