#pragma once

#include <boost/program_options/options_description.hpp>
#include <boost/program_options/variables_map.hpp>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

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

/// Prints at once. Throws NoOutput.
void print(const std::string& text);
/// A line on standard error.
void complain(const std::string& text) noexcept;

/// The options given, and under "words" what is none. Throws WrongOption.
[[nodiscard]] boost::program_options::variables_map parse(
    boost::program_options::options_description options, int argc, const char* const* argv);
[[nodiscard]] std::vector<std::string> wordsOf(const boost::program_options::variables_map& given);

/// The program's status: what `run` returns, or what it throws stands for, which is complained of.
/// `name` stands before each complaint.
int runProgram(const char* name, const std::function<Status()>& run) noexcept;

}  // namespace recording_tool
