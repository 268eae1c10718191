#pragma once

#include <cstddef>
#include <functional>

/// The program that links this has `pthread_create` and `pthread_join` interposed.
namespace support {

/// Runs `call`, which must not throw, while its thread cannot make threads: each gets EAGAIN.
void withoutThreads(const std::function<void()>& call);

/// How many of the process's threads were joined.
std::size_t joinedThreads();

}  // namespace support
