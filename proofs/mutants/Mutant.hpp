// Included before everything else of a build with mutants: switches one of them on.
#pragma once
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kiroweb_mutants {

// Constant-initialized, so that it may be asked by any other initialization.
struct State {
    unsigned active = 0;               // the number that is on; 0: none
    unsigned char* reached = nullptr;  // a byte for each number, in a file; or null
    unsigned size = 0;                 // of it
    bool begun = false;
};
inline State state;

// Part of every file, the first one does it. The file of what was reached is shared memory: what a
// process that is killed or forked has reached is in it as well.
__attribute__((constructor(101))) static void begin() {
    if (state.begun) return;
    state.begun = true;
    const char* number = getenv("KIROWEB_MUTANT");
    state.active = static_cast<unsigned>(number ? atoi(number) : 0);
    const char* path = getenv("KIROWEB_MUTANT_REACH");
    const int file = path ? open(path, O_RDWR | O_CLOEXEC) : -1;
    struct stat found {};
    if (file < 0 || fstat(file, &found) != 0) return;
    const auto size = static_cast<unsigned>(found.st_size);
    void* bytes = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (bytes == MAP_FAILED) return;
    state.reached = static_cast<unsigned char*>(bytes);
    state.size = size;
}

}  // namespace kiroweb_mutants

/// Returns whether the mutant `number` is on.
inline bool kiroweb_mutant(unsigned number) {
    const kiroweb_mutants::State& state = kiroweb_mutants::state;
    if (number < state.size) __atomic_store_n(state.reached + number, 1, __ATOMIC_RELAXED);
    return number == state.active;
}
