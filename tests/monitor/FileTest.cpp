#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "client/Base64.hpp"
#include "engine/CsvReader.hpp"
#include "engine/DataSet.hpp"

namespace {

namespace fs = std::filesystem;
using namespace monitor;

/// A copy of the data files in which a test spoils one.
class DataFiles : public testing::Test {
  protected:
    void SetUp() override {
        const auto* test = testing::UnitTest::GetInstance()->current_test_info();
        fDirectory = fs::path(testing::TempDir()) / (std::string("kiroweb-") + test->name());
        fs::remove_all(fDirectory);
        fs::copy(MONITOR_DATA_DIR, fDirectory);
    }
    void TearDown() override { fs::remove_all(fDirectory); }

    /// The complaint about the files when `file` holds `text`.
    std::string complaint(const char* file, const std::string& text) {
        fs::remove(fDirectory / file);
        std::ofstream(fDirectory / file, std::ios::binary) << text;
        try {
            static_cast<void>(engine::readDataSet(fDirectory));
        } catch (const engine::DataError& error) {
            return error.what();
        }
        return "none";
    }

    fs::path fDirectory;
};

TEST_F(DataFiles, TellTheFileTheLineAndTheFault) {
    const std::string header = "time_ms_utc,longitude_deg,latitude_deg,depth_km,magnitude,place\n";
    const std::pair<std::string, const char*> table[] = {
        {"", "csv: is empty"},
        {"time\n", "csv:1: the header row is not"},
        {header, "there is no earthquake"},
        {header + "1,2,3,4,5\n", "csv:2: the row does not have 6 fields"},
        {header + "1,2,3,4,5,a\n1,2,3,4,5,\"a\n", "csv:3: a quoted field does not end"},
        {header + "1.5,2,3,4,5,a\n", "csv:2: the time is not a whole number: \"1.5\""},
        {header + "1,x,3,4,5,a\n", "csv:2: the longitude is not a number: \"x\""},
        {header + "1,2,91,4,5,a\n", "csv:2: the latitude is out of range: 91"},
        {header + "1,2,3,nan,5,a\n", "csv:2: the depth is out of range: nan"},
        {header + "1,2,3,4,,a\n", "csv:2: the magnitude is not a number: \"\""},
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

TEST(Base64, DecodesTheStandardFormOnly) {
    const std::pair<const char*, const char*> good[] = {
        {"", ""}, {"Zg==", "f"}, {"Zm8=", "fo"}, {"Zm9v", "foo"}, {"+/+/", "\xfb\xff\xbf"}};
    for (const auto& [text, bytes] : good) EXPECT_EQ(client::decodeBase64(text), bytes) << text;
    // Cut short, broken, of another alphabet, with bits left over, with padding inside.
    for (const char* text : {"Zg=", "Zm9\n", "-_-_", "Zh==", "Zg==Zg==", "====", "Z==="}) {
        EXPECT_EQ(client::decodeBase64(text), std::nullopt) << text;
    }
}

}  // namespace
