#include "Program.hpp"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <system_error>

namespace recording_tool {

void print(const std::string& text) {
    if (std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0) return;
    throw NoOutput("standard output cannot be written: " + std::generic_category().message(errno));
}

int runProgram(const char* name, const std::function<Status()>& run) noexcept {
    const auto say = [name](Status status, const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", name, error.what());
        return status;
    };
    try {
        return run();
    } catch (const WrongOption& error) {
        return say(kWrongOption, error);
    } catch (const NoOutput& error) {
        return say(kNoOutput, error);
    } catch (const std::exception& error) {
        return say(kNotGood, error);
    }
}

}  // namespace recording_tool
