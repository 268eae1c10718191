#include "Recordings.hpp"

#include <algorithm>
#include <filesystem>
#include <utility>

#include "PageFiles.hpp"
#include "Program.hpp"
#include "kirorecording/Reader.hpp"

namespace recording_tool {

using kirorecording::FileSource;
using kirorecording::FormatError;
using kirorecording::Reader;

namespace {

bool isPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.';
}

/// A name that means nothing in an address, in a page or on a terminal.
std::string plainName(const std::filesystem::path& file) {
    std::string name = file.filename().string();
    std::ranges::replace_if(
        name, [](char c) { return !isPlain(c); }, '_');
    if (name.starts_with('.')) name.front() = '_';
    return name;
}

bool isTaken(const std::string& name, const std::vector<ServedFile>& recordings) {
    return std::ranges::find(recordings, name, &ServedFile::name) != recordings.end() ||
           std::ranges::find(kiropage::files(), '/' + name, &kiropage::File::path) !=
               kiropage::files().end();
}

std::string freeName(const std::string& file, const std::vector<ServedFile>& recordings) {
    const std::string plain = plainName(file);
    const std::size_t ending = std::min(plain.rfind('.'), plain.size());
    std::string name = plain;
    for (int i = 2; isTaken(name, recordings); ++i) {
        name = plain.substr(0, ending) + '-' + std::to_string(i) + plain.substr(ending);
    }
    return name;
}

void check(const FileSource& source) {
    const Reader reader(source);
    if (!reader.isOurs()) throw FormatError(source.name(), 0, "not a recording of kiroweb");
    if (const auto& damage = reader.damage()) {
        complain(std::string(damage->what()) + "; it is shown up to there, " +
                 (source.isBeingWritten() ? "as it is still being written"
                                          : "and \"kiroweb-record repair\" closes it"));
    }
}

}  // namespace

std::vector<ServedFile> openRecordings(const std::vector<std::string>& files) {
    std::vector<ServedFile> recordings;
    for (const auto& file : files) {
        auto source = std::make_unique<const FileSource>(file);
        check(*source);
        recordings.push_back({freeName(file, recordings), std::move(source)});
    }
    return recordings;
}

}  // namespace recording_tool
