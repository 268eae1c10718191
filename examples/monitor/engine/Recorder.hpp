#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>

#include "kiro/web/ExportCommandSender.hpp"

namespace monitor::engine {

/// Writes the commands and blocks of an export sender to a file, one JSON text per line.
class Recorder {
  public:
    /// Opens the file. Throws `std::runtime_error`.
    explicit Recorder(const std::filesystem::path& file);

    [[nodiscard]] const std::shared_ptr<kiro::web::ExportCommandSender>& sender() const {
        return fSender;
    }

    /// Writes what the sender holds and makes it forget. Throws `std::runtime_error`.
    void write();

    [[nodiscard]] std::uint64_t lines() const { return fLines; }

  private:
    std::filesystem::path fFile;
    std::ofstream fStream;
    std::shared_ptr<kiro::web::ExportCommandSender> fSender;
    std::uint64_t fLines = 0;
};

}  // namespace monitor::engine
