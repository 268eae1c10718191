#include "Draft.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <new>
#include <set>
#include <system_error>
#include <utility>

namespace recording_tool {

namespace {

/// The drafts that there are. Whoever holds the lock neither adds one nor keeps one.
std::mutex mutex;
std::set<const std::string*> paths;

[[noreturn]] void fail(const std::string& target) {
    throw std::system_error(errno, std::generic_category(), target + ": cannot be written");
}

void remove(const std::string& path) noexcept {
    if (path.empty()) return;
    // A browser that was killed may still be making files in it.
    constexpr int kTries = 100;
    try {
        std::error_code error;
        for (int i = 0; i < kTries; ++i) {
            std::filesystem::remove_all(path, error);
            if (!error) return;
        }
    } catch (const std::bad_alloc&) {
        std::remove(path.c_str());  // takes none; a folder that is not empty stays
    }
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
    const std::lock_guard lock(mutex);
    const auto place = paths.insert(&fPath).first;
    try {
        make();
    } catch (...) {
        paths.erase(place);
        throw;
    }
}

void Draft::make() {
    if (fKind == Kind::kFolder) {
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
    const std::lock_guard lock(mutex);
    paths.erase(&fPath);
    remove(fPath);
}

void Draft::abandonAll() noexcept {
    const std::lock_guard lock(mutex);
    for (const auto* path : paths) remove(*path);
}

void Draft::keep(const std::string& like) {
    constexpr mode_t kFile = 0666;
    constexpr mode_t kFolder = 0777;
    struct stat known {};
    if (!like.empty() && ::stat(like.c_str(), &known) != 0) fail(like);
    const mode_t mode =
        like.empty() ? masked(fKind == Kind::kFile ? kFile : kFolder) : known.st_mode & kFolder;
    if (::chmod(fPath.c_str(), mode) != 0) fail(fName);
    const std::lock_guard lock(mutex);
    if (std::rename(fPath.c_str(), fTarget.c_str()) != 0) fail(fName);
    fPath.clear();
}

}  // namespace recording_tool
