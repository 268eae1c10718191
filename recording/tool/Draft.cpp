#include "Draft.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <system_error>
#include <utility>

namespace recording_tool {

namespace {

[[noreturn]] void fail(const std::string& target) {
    throw std::system_error(errno, std::generic_category(), target + ": cannot be written");
}

/// Which of these permissions the user's new files have.
mode_t masked(mode_t mode) {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mode & ~mask;
}

/// Where what has that name lies: behind symbolic links, and without a "/" at its end.
std::string placeOf(const std::string& name) {
    auto place = std::filesystem::weakly_canonical(name);
    if (!place.has_filename()) place = place.parent_path();
    return place.string();
}

}  // namespace

Draft::Draft(std::string target, Kind kind)
    : fName(std::move(target)), fKind(kind), fTarget(placeOf(fName)), fPath(fTarget + ".XXXXXX") {
    if (kind == Kind::kFolder) {
        if (::mkdtemp(fPath.data()) == nullptr) fail(fName);
        return;
    }
    struct stat known {};
    if (::stat(fTarget.c_str(), &known) == 0 && !S_ISREG(known.st_mode)) {
        errno = S_ISDIR(known.st_mode) ? EISDIR : EINVAL;
        fail(fName);
    }
    const int file = ::mkostemp(fPath.data(), O_CLOEXEC);
    if (file < 0) fail(fName);
    ::close(file);
}

Draft::~Draft() {
    if (fPath.empty()) return;
    try {
        std::error_code ignored;
        std::filesystem::remove_all(fPath, ignored);
    } catch (const std::bad_alloc&) {
        std::remove(fPath.c_str());  // takes none; a folder that is not empty stays
    }
}

void Draft::keep(const std::string& like) {
    constexpr mode_t kFile = 0666;
    constexpr mode_t kFolder = 0777;
    struct stat known {};
    if (!like.empty() && ::stat(like.c_str(), &known) != 0) fail(like);
    const mode_t mode =
        like.empty() ? masked(fKind == Kind::kFile ? kFile : kFolder) : known.st_mode & kFolder;
    if (::chmod(fPath.c_str(), mode) != 0) fail(fName);
    if (std::rename(fPath.c_str(), fTarget.c_str()) != 0) fail(fName);
    fPath.clear();
}

}  // namespace recording_tool
