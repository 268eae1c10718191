#pragma once

#include <sys/types.h>

#include <array>
#include <string>
#include <vector>

namespace kirolink::test {

/// A cluster of this test's own on loopback, made of the files in deploy/, and its users. The
/// folder and all processes go with it.
class Nodes {
  public:
    explicit Nodes(std::size_t count);
    ~Nodes();
    Nodes(const Nodes&) = delete;
    Nodes& operator=(const Nodes&) = delete;

    void start(std::size_t node);
    void kill(std::size_t node);  ///< and waits for its end
    void hang(std::size_t node);
    /// Makes a folder with credentials for a user, before the nodes are started.
    void addUser(const std::string& kind, const std::string& name) const;
    [[nodiscard]] std::string server(std::size_t node) const;
    [[nodiscard]] const std::string& folder() const { return fFolder; }

  private:
    struct Node {
        std::string address;
        pid_t process = 0;
    };
    void makeFiles(const std::vector<std::string>& arguments) const;

    std::string fFolder;
    std::vector<Node> fNodes;
};

}  // namespace kirolink::test
