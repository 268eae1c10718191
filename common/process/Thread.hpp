#pragma once

#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace process {

/// A thread for `purpose`, such as "the gateway". Throws std::system_error, which says so: the
/// system's own text does not even say that it was about a thread.
template <typename Thread = std::thread, typename Function>
Thread makeThread(const char* purpose, Function&& function) {
    try {
        return Thread(std::forward<Function>(function));
    } catch (const std::system_error& error) {
        throw std::system_error(error.code(), std::string("no thread for ") + purpose);
    }
}

}  // namespace process
