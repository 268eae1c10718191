#pragma once

#include <functional>
#include <stdexcept>
#include <string>

/// What the programs for recordings have in common.
namespace recording_tool {

/// Exit statuses; each program's --help says what they mean.
enum Status { kGood = 0, kNotGood = 1, kWrongOption = 2, kNoOutput = 3 };

struct WrongOption : std::runtime_error {
    using std::runtime_error::runtime_error;
};
struct NoOutput : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// To standard output. Throws NoOutput.
void print(const std::string& text);

/// The program's status: what `run` returns, or what it throws stands for, which is said in a line
/// on standard error.
int runProgram(const char* name, const std::function<Status()>& run) noexcept;

}  // namespace recording_tool
