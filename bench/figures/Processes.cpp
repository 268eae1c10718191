#include "Processes.hpp"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace bench {

namespace {

namespace fs = std::filesystem;

struct Process {
    pid_t id = 0;
    pid_t parent = 0;
    double processor = 0;  ///< seconds
};

std::string read(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Nothing: it has ended meanwhile.
std::optional<Process> processOf(pid_t id) {
    const auto text = read("/proc/" + std::to_string(id) + "/stat");
    // The name, in parentheses, may contain anything.
    const auto end = text.rfind(')');
    if (end == std::string::npos) return {};
    std::istringstream fields(text.substr(end + 1));
    std::string ignored;
    Process process{id};
    fields >> ignored >> process.parent;
    for (int i = 0; i < 9; ++i) fields >> ignored;
    double user = 0;
    double system = 0;
    if (!(fields >> user >> system)) return {};
    process.processor = (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    return process;
}

std::vector<Process> allProcesses() {
    std::vector<Process> all;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const auto name = entry.path().filename().string();
        pid_t id = 0;
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
        if (error != std::errc() || end != name.data() + name.size()) continue;
        if (const auto process = processOf(id)) all.push_back(*process);
    }
    return all;
}

/// The browser's own one, and those that it has started.
std::vector<Process> familyOf(pid_t browser) {
    const auto all = allProcesses();
    std::vector<Process> family;
    std::vector<pid_t> parents{browser};
    for (const auto& process : all) {
        if (process.id == browser) family.push_back(process);
    }
    while (!parents.empty()) {
        const auto parent = parents.back();
        parents.pop_back();
        for (const auto& process : all) {
            if (process.parent != parent) continue;
            family.push_back(process);
            parents.push_back(process.id);
        }
    }
    return family;
}

/// Whether its main thread is that of a page, and not of the browser's own surface.
bool showsPages(pid_t process) {
    const auto command = read("/proc/" + std::to_string(process) + "/cmdline");
    return command.find("--type=renderer") != std::string::npos &&
           command.find("--top-chrome-webui") == std::string::npos;
}

/// Seconds that the process' first thread has run.
double mainThreadTime(pid_t process) {
    const auto id = std::to_string(process);
    std::istringstream schedule(read("/proc/" + id + "/task/" + id + "/schedstat"));
    double nanoseconds = 0;
    schedule >> nanoseconds;
    return nanoseconds / 1e9;
}

double residentSize(pid_t process) {
    std::istringstream pages(read("/proc/" + std::to_string(process) + "/statm"));
    double all = 0;
    double resident = 0;
    pages >> all >> resident;
    return resident * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

}  // namespace

Usage usageOf(pid_t browser) {
    Usage usage;
    for (const auto& process : familyOf(browser)) {
        usage.processor += process.processor;
        if (!showsPages(process.id)) continue;
        usage.mainThread += mainThreadTime(process.id);
        usage.memory += residentSize(process.id);
    }
    return usage;
}

}  // namespace bench
