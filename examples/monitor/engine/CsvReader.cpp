#include "engine/CsvReader.hpp"

#include <cerrno>
#include <charconv>
#include <system_error>

namespace monitor::engine {

namespace {

/// Reads the whole of `text`; false when it is no number of this type.
template <typename Number>
bool readWhole(const std::string& text, Number& out) {
    const char* end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, out);
    return error == std::errc() && stopped == end;
}

}  // namespace

CsvReader::CsvReader(const std::filesystem::path& file, std::string_view header)
    : fName(file.string()), fStream(file) {
    if (!fStream)
        throw DataError(fName + ": cannot be opened: " + std::generic_category().message(errno) +
                        "; see --data");
    if (!nextLine()) throw DataError(fName + ": is empty");
    if (fLine != header) fail("the header row is not \"" + std::string(header) + '"');
}

bool CsvReader::nextRow(std::vector<std::string>& fields) {
    if (!nextLine()) return false;
    split(fields);
    return true;
}

bool CsvReader::nextLine() {
    if (!std::getline(fStream, fLine)) {
        if (fStream.bad()) throw DataError(fName + ": cannot be read");
        return false;
    }
    if (fLine.ends_with('\r')) fLine.pop_back();
    ++fLineNumber;
    return true;
}

void CsvReader::split(std::vector<std::string>& fields) const {
    fields.clear();
    if (fLine.empty()) return;
    fields.emplace_back();
    bool quoted = false;
    for (std::size_t i = 0; i < fLine.size(); ++i) {
        const char c = fLine[i];
        if (c == '"' && quoted && i + 1 < fLine.size() && fLine[i + 1] == '"') {
            fields.back() += '"';
            ++i;
        } else if (c == '"') {
            quoted = !quoted;
        } else if (c == ',' && !quoted) {
            fields.emplace_back();
        } else {
            fields.back() += c;
        }
    }
    if (quoted) fail("a quoted field does not end");
}

double CsvReader::number(const std::string& text, const char* what, double low, double high) const {
    double value = 0;
    if (!readWhole(text, value)) fail(std::string(what) + " is not a number: \"" + text + '"');
    // Written so that NaN, which the conversion accepts, is refused too.
    if (!(value >= low && value <= high)) fail(std::string(what) + " is out of range: " + text);
    return value;
}

std::int64_t CsvReader::integer(const std::string& text, const char* what) const {
    std::int64_t value = 0;
    if (!readWhole(text, value)) {
        fail(std::string(what) + " is not a whole number: \"" + text + '"');
    }
    return value;
}

void CsvReader::fail(const std::string& complaint) const {
    throw DataError(fName + ':' + std::to_string(fLineNumber) + ": " + complaint);
}

}  // namespace monitor::engine
