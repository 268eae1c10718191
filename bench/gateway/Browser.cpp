#include "Browser.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace bench {

namespace {

std::filesystem::path makeProfile() {
    auto name = (std::filesystem::temp_directory_path() / "kiroweb-bench-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("no folder for a profile");
    return name;
}

/// Without a word on the standard outputs.
pid_t start(std::vector<std::string> arguments) {
    std::vector<char*> pointers;
    for (auto& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t process = 0;
    const auto error =
        posix_spawnp(&process, pointers.front(), &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::system_error(error, std::generic_category(), arguments.front());
    return process;
}

}  // namespace

Browser::Browser(const std::string& link) : fProfile(makeProfile()) {
    std::vector<std::string> arguments{"chromium",
                                       "--headless",
                                       "--disable-gpu",
                                       "--disable-quic",
                                       "--no-first-run",
                                       "--disable-background-networking",
                                       "--disable-component-update",
                                       "--disable-sync",
                                       "--user-data-dir=" + fProfile.string(),
                                       link};
    // The sandbox wants a user who is not root.
    if (::geteuid() == 0) arguments.insert(arguments.begin() + 1, "--no-sandbox");
    fProcess = start(std::move(arguments));
}

Browser::~Browser() {
    ::kill(fProcess, SIGKILL);
    ::waitpid(fProcess, nullptr, 0);
    std::error_code ignored;
    std::filesystem::remove_all(fProfile, ignored);
}

}  // namespace bench
