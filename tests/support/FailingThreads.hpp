#pragma once

#include <cstddef>
#include <functional>

/// The program that links this has `pthread_create` and `pthread_join` interposed.
namespace support {

/// Runs `call`, which must not throw, while its thread cannot make threads: each gets EAGAIN.
void withoutThreads(const std::function<void()>& call);

/// How many of the process's threads have left their function, and how many were joined.
std::size_t endedThreads();
std::size_t joinedThreads();
/// Blocks until `endedThreads` answers `count` or more.
void awaitEndedThreads(std::size_t count);

}  // namespace support
