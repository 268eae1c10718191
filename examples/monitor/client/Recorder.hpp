#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace monitor::client {

/// Writes commands and blocks to a file, one JSON text per line.
class Recorder {
  public:
    /// Opens the file. Throws `std::runtime_error`.
    explicit Recorder(const std::filesystem::path& file);

    // Of one thread.
    void command(std::string_view text) { write(text); }
    /// `id` is the block's as text, `bytes` are its data.
    void block(const std::string& id, std::string_view bytes);

    /// Throws `std::runtime_error` if something could not be written. Any thread.
    void check() const;
    [[nodiscard]] std::uint64_t lines() const { return fLines; }

  private:
    void write(std::string_view line);

    const std::filesystem::path fFile;
    std::ofstream fStream;
    std::atomic<std::uint64_t> fLines = 0;
    std::atomic<int> fError = 0;
};

}  // namespace monitor::client
