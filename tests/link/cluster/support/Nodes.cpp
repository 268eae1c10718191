#include "Nodes.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace kirolink::test {
namespace {

/// Returns a port that is free now; nobody else takes it soon, since the system goes round.
std::string freePort() {
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    const bool isBound =
        bind(descriptor, plain, size) == 0 && getsockname(descriptor, plain, &size) == 0;
    close(descriptor);
    if (!isBound) throw std::runtime_error("no free port");
    return std::to_string(ntohs(address.sin_port));
}

pid_t spawn(std::vector<std::string> arguments) {
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (auto& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    pid_t process = 0;
    if (posix_spawnp(&process, pointers[0], nullptr, nullptr, pointers.data(), environ) != 0) {
        throw std::runtime_error("cannot start " + arguments[0]);
    }
    return process;
}

int waitFor(pid_t process) {
    int status = 0;
    waitpid(process, &status, 0);
    return status;
}

}  // namespace

Nodes::Nodes(std::size_t count) : fNodes(count) {
    std::string name = (std::filesystem::temp_directory_path() / "nodes-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no folder " + name);
    fFolder = name;
    std::vector<std::string> arguments{"nodes"};
    for (auto& node : fNodes) {
        const auto clients = freePort();
        node.address = "127.0.0.1:" + clients;
        arguments.push_back(node.address + ":" + freePort());
    }
    makeFiles(arguments);
}

Nodes::~Nodes() {
    for (std::size_t i = 0; i < fNodes.size(); ++i) kill(i);
    std::error_code ignored;
    std::filesystem::remove_all(fFolder, ignored);
}

void Nodes::makeFiles(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command{KIROWEB_CLUSTER_FILES, fFolder};
    command.insert(command.end(), arguments.begin(), arguments.end());
    if (waitFor(spawn(command)) != 0) throw std::runtime_error("no files for the nodes");
}

void Nodes::addUser(const std::string& kind, const std::string& name) const {
    makeFiles({kind, name});
}

std::string Nodes::server(std::size_t node) const { return fNodes.at(node).address; }

void Nodes::start(std::size_t node) {
    const auto folder = fFolder + "/node-" + std::to_string(node + 1);
    // Its files name each other within their folder. It is not to be left over.
    fNodes.at(node).process = spawn({"env", "--chdir=" + folder, "setpriv", "--pdeathsig", "KILL",
                                     KIROWEB_NATS_SERVER, "-c", "node.conf", "-l", "log"});
}

void Nodes::kill(std::size_t node) {
    auto& process = fNodes.at(node).process;
    if (process == 0) return;
    ::kill(process, SIGKILL);
    waitFor(process);
    process = 0;
}

void Nodes::hang(std::size_t node) { ::kill(fNodes.at(node).process, SIGSTOP); }

}  // namespace kirolink::test
