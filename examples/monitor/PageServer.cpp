#include "PageServer.hpp"

#include <spawn.h>
#include <unistd.h>

#include <array>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Contract.hpp"

namespace monitor {

using namespace contract;

namespace {

/// Files of packages that the page uses: their names in addresses, and below the client's folder.
constexpr std::array<std::pair<const char*, const char*>, 2> kOfPackages{{
    {"/uplot/uPlot.esm.js", "node_modules/uplot/dist/uPlot.esm.js"},
    {"/uplot/uPlot.min.css", "node_modules/uplot/dist/uPlot.min.css"},
}};

/// Whether a file beside the page belongs to it; others there are for those who work on it.
bool isOfPage(const std::filesystem::path& file) {
    const std::string ending = file.extension().string();
    if (file.stem().extension() == ".config") return false;
    return ending == ".mjs" || ending == ".css" || ending == ".svg";
}

/// Throws `std::runtime_error`.
std::vector<kirogateway::Asset> pageFiles(const std::filesystem::path& folder) {
    namespace fs = std::filesystem;
    std::vector<kirogateway::Asset> assets;
    try {
        assets.push_back(kirogateway::loadAsset("/", (folder / "index.html").string()));
        for (const auto& [name, file] : kOfPackages) {
            assets.push_back(kirogateway::loadAsset(name, (folder / file).string()));
        }
        for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
            if (!isOfPage(entry.path())) continue;
            const std::string name = "/" + entry.path().filename().string();
            assets.push_back(kirogateway::loadAsset(name, entry.path().string()));
        }
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(std::string(error.what()) +
                                 "; --client names the folder of the page's files, where " +
                                 "\"npm ci\" has been run");
    }
    return assets;
}

std::string configuration() {
    return boost::json::serialize(boost::json::object{{"commands", kCommandChannel},
                                                      {"blocks", kBlockChannel},
                                                      {"ready", kReadyChannel},
                                                      {"newView", kNewViewChannel},
                                                      {"picks", kPickChannel}});
}

/// `assignment` is a variable's name and "=".
bool isInEnvironment(std::string_view assignment) {
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (std::string_view(*entry).starts_with(assignment)) return true;
    }
    return false;
}

/// How a program begins that has nothing to do with this one: in a session of its own, to which the
/// terminal's signals do not go, and with no signal blocked or ignored.
class Separately {
  public:
    Separately() {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_init(&fAttributes);
        posix_spawnattr_setsigmask(&fAttributes, &none);
        posix_spawnattr_setsigdefault(&fAttributes, &all);
        posix_spawnattr_setflags(
            &fAttributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
    }
    ~Separately() { posix_spawnattr_destroy(&fAttributes); }
    Separately(const Separately&) = delete;
    Separately& operator=(const Separately&) = delete;

    [[nodiscard]] const posix_spawnattr_t* get() const { return &fAttributes; }

  private:
    posix_spawnattr_t fAttributes{};
};

}  // namespace

kirogateway::Options gatewayOptions(const Options& options) {
    kirogateway::Options gateway;
    gateway.port = options.port;
    gateway.assets = pageFiles(options.client);
    gateway.configuration = configuration();
    gateway.mayPublish = {kReadyChannel, kReturnChannel, kNewViewChannel, kPickChannel,
                          kErrorChannel};
    gateway.maySubscribe = {kCommandChannel, kBlockChannel};
    gateway.blockChannels = {kBlockChannel};
    // A command must not overtake the blocks that it names.
    gateway.lanes = {{kCommandChannel, kBlockChannel}};
    // A page announces a new view itself, once it hears the commands. After a return it heard
    // everything, but what it answered meanwhile may be lost: the frame is drawn again.
    gateway.reconnectChannel = kReconnectChannel;
    return gateway;
}

void openBrowser(const std::string& link) {
    if (!isInEnvironment("DISPLAY=") && !isInEnvironment("WAYLAND_DISPLAY=")) return;
    std::string program = "xdg-open";
    std::string argument = link;
    const std::array<char*, 3> arguments{program.data(), argument.data(), nullptr};
    // Nobody waits for it: the system clears away what is left of it.
    std::signal(SIGCHLD, SIG_IGN);
    const Separately separately;
    pid_t child = 0;
    static_cast<void>(posix_spawnp(&child, program.c_str(), nullptr, separately.get(),
                                   arguments.data(), environ));
}

}  // namespace monitor
