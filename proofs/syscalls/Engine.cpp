// An engine that keeps its token in a file and records: Engine TOKENFILE RECORDING.
#include <chrono>
#include <cstdio>
#include <stdexcept>

#include "kirofigures/Window.hpp"

int main(int /*argc*/, char** argv) {
    try {
        kirofigures::WindowOptions options;
        options.opensBrowser = options.printsLink = false;
        options.tokenFile = argv[1];
        options.recording = argv[2];
        kirofigures::Window window(options);
        if (std::puts(window.link().c_str()) < 0 || std::fflush(stdout) != 0) {
            throw std::runtime_error("standard output cannot be written");
        }
        auto& line = window.figure("Engine").axes().line("samples");
        for (double t = 0; window.isOpen(); ++t) {
            line.append(t, t);
            if (window.draw().outcome != kirofigures::Outcome::kNoPage) continue;
            // A page that comes meanwhile gets what was drawn, which ends no longer wait.
            window.wait(std::chrono::duration<double>(0.1));
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "engine: %s\n", error.what());
        return 1;
    }
}
