#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "engine/CsvReader.hpp"
#include "engine/DataSet.hpp"

namespace {

namespace fs = std::filesystem;
using namespace monitor;

/// The complaint about the data files when `file` holds `text`.
std::string complaint(const char* file, const std::string& text) {
    const auto directory = fs::path(testing::TempDir()) / "kiroweb-data-files";
    fs::remove_all(directory);
    fs::copy(MONITOR_DATA_DIR, directory);
    std::ofstream(directory / file, std::ios::binary) << text;
    try {
        static_cast<void>(engine::readDataSet(directory));
    } catch (const engine::DataError& error) {
        return error.what();
    }
    return "none";
}

TEST(DataFiles, TellTheFileTheLineAndTheFault) {
    const std::string header = "time_ms_utc,longitude_deg,latitude_deg,depth_km,magnitude,place\n";
    const std::pair<std::string, const char*> table[] = {
        {"", "csv: is empty"},
        {header, "there is no earthquake"},
        {header + "1,2,3,4,5\n", "csv:2: the row does not have 6 fields"},
        {header + "1,2,3,4,5,a\n1,2,3,4,5,\"a\n", "csv:3: a quoted field does not end"},
        {header + "1,x,3,4,5,a\n", "csv:2: the longitude is not a number: \"x\""},
        {header + "1,2,91,4,5,a\n", "csv:2: the latitude is out of range: 91"},
        {header + "2,2,3,4,5,a\n1,2,3,4,5,a\n", "csv:3: the time is before that of the row above"},
        {header + "1,2,3,4,5,\"a, \"\"b\"\"\"\r\n", "none"},
    };
    for (const auto& [text, expected] : table) {
        EXPECT_NE(complaint("earthquakes.csv", text).find(expected), std::string::npos)
            << complaint("earthquakes.csv", text) << " instead of " << expected;
    }
    EXPECT_NE(complaint("ecg_u16le_360hz.raw", "abc").find("whole number of 16-bit samples"),
              std::string::npos);
}

}  // namespace
