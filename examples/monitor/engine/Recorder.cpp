#include "engine/Recorder.hpp"

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace monitor::engine {

namespace {

std::runtime_error notWritable(const std::filesystem::path& file) {
    return std::runtime_error(file.string() +
                              ": cannot be written: " + std::generic_category().message(errno));
}

}  // namespace

Recorder::Recorder(const std::filesystem::path& file)
    : fFile(file), fStream(file), fSender(std::make_shared<kiro::web::ExportCommandSender>()) {
    if (!fStream) throw notWritable(file);
}

void Recorder::write() {
    for (const std::string& text : fSender->getCommandsAsStrings()) {
        fStream << text << '\n';
        ++fLines;
    }
    fSender->reset();
    if (!fStream.flush()) throw notWritable(fFile);
}

}  // namespace monitor::engine
