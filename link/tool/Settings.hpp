#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <stdexcept>
#include <string>
#include <vector>

#include "GatewayEnd.hpp"
#include "NatsCluster.hpp"
#include "OwnPage.hpp"

namespace link_tool {

/// A setting that cannot be meant; the text is one line that names it.
struct WrongSetting : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// What the program's configuration says.
struct Settings {
    std::string name;  ///< of this gateway in the cluster
    std::string address = "127.0.0.1";
    std::uint16_t port = 8443;
    std::string certificateFile;  ///< empty: no TLS
    std::string keyFile;
    std::string publicAddress;        ///< "https://HOST:PORT"; empty: address and port
    std::vector<std::string> others;  ///< public addresses of the other gateways

    kirolink::NatsOptions cluster;

    std::string statusAddress = "127.0.0.1";
    std::uint16_t statusPort = 0;  ///< 0: one that is free

    std::size_t sessions = 100;                     ///< followed at a time
    std::size_t pages = 1000;                       ///< connected at a time, over all sessions
    std::size_t sessionPages = 0;                   ///< of one session; 0: half of `pages`
    std::size_t memory = std::size_t{1024} << 20U;  ///< bytes that may wait for one session's pages
    /// Bytes that a text or block of an engine's may have.
    std::size_t largest = kirolink::GatewayEnd::kLargest;
    std::size_t allMemory = std::size_t{4096} << 20U;  ///< the same over all sessions
    std::size_t pageSize = kirolink::kMostOfPage;  ///< bytes of a page of a session's own; 0: none

    [[nodiscard]] std::size_t pagesOfOne() const noexcept {
        return sessionPages > 0 ? sessionPages : (pages + 1) / 2;
    }
};

/// Reads lines "key = value"; "#" begins a comment. `source` names them in complaints. Throws
/// WrongSetting.
[[nodiscard]] Settings readSettings(std::istream& lines, const std::string& source);
/// As above. Throws WrongSetting for a file that cannot be read, too.
[[nodiscard]] Settings readSettings(const std::string& file);

/// All keys, what they mean and what they are unless said, for the program's help.
[[nodiscard]] const char* settingsHelp() noexcept;

}  // namespace link_tool
