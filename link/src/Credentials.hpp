#pragma once

#include <string>

namespace kirolink {

/// Who somebody is for a cluster.
struct Credentials {
    std::string user;
    std::string password;
    std::string natsFile;  ///< a file of NATS' own, in place of the two
};

/// Reads `file`: a user's name in the first line and the password in the second, or a file of NATS
/// that ends in ".creds". Throws std::runtime_error, with a text of one line, when it cannot be
/// read, is something else, or is not this user's alone.
[[nodiscard]] Credentials readCredentials(const std::string& file);

}  // namespace kirolink
