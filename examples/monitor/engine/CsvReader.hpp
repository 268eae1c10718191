#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace monitor::engine {

/// A data file is missing or malformed. The text names the file and, if there is one, the line.
class DataError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Reads a comma-separated text file with one header row. A field in double quotes may hold
/// commas; two double quotes in it stand for one. Lines end in LF or CR LF.
class CsvReader {
  public:
    /// Opens the file and checks that its first row is `header`. Throws `DataError`.
    CsvReader(const std::filesystem::path& file, std::string_view header);

    /// Reads the next row into `fields`; a blank line is a row without fields. Answers false at
    /// the end of the file. Throws `DataError`.
    bool nextRow(std::vector<std::string>& fields);

    /// The number in `text`, between `low` and `high`. Throws `DataError`, which calls it `what`.
    [[nodiscard]] double number(const std::string& text, const char* what, double low,
                                double high) const;
    [[nodiscard]] std::int64_t integer(const std::string& text, const char* what) const;

    /// Throws a `DataError` about the current row.
    [[noreturn]] void fail(const std::string& complaint) const;

  private:
    bool nextLine();
    void split(std::vector<std::string>& fields) const;

    std::string fName;
    std::ifstream fStream;
    std::string fLine;
    std::uint64_t fLineNumber = 0;
};

}  // namespace monitor::engine
