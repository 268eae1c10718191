#include "engine/Recorder.hpp"

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace monitor::engine {

Recorder::Recorder(const std::filesystem::path& file)
    : fFile(file), fStream(file), fSender(std::make_shared<kiro::web::ExportCommandSender>()) {
    if (!fStream) {
        throw std::runtime_error(file.string() + ": cannot be written: " + std::strerror(errno));
    }
}

void Recorder::write() {
    for (const std::string& text : fSender->getCommandsAsStrings()) {
        fStream << text << '\n';
        ++fLines;
    }
    fSender->reset();
    if (!fStream.flush()) throw std::runtime_error(fFile.string() + ": cannot be written");
}

}  // namespace monitor::engine
