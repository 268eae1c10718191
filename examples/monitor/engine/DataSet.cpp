#include "engine/DataSet.hpp"

#include <cerrno>
#include <fstream>
#include <limits>
#include <sstream>
#include <system_error>

#include "engine/CsvReader.hpp"

namespace monitor::engine {

namespace {

constexpr double kDeepestKm = 1000;
constexpr double kHighestKm = -10;

EcgRecording readEcg(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream)
        throw DataError(file.string() + ": cannot be opened: " +
                        std::generic_category().message(errno) + "; see --data");
    std::ostringstream content;
    content << stream.rdbuf();
    if (content.bad()) throw DataError(file.string() + ": cannot be read");
    const std::string bytes = content.str();
    if (bytes.empty() || bytes.size() % 2 != 0) {
        throw DataError(file.string() + ": does not hold a whole number of 16-bit samples");
    }
    EcgRecording recording;
    recording.millivolts.reserve(bytes.size() / 2);
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        const int low = static_cast<unsigned char>(bytes[i]);
        const int high = static_cast<unsigned char>(bytes[i + 1]);
        recording.millivolts.push_back(static_cast<float>((high * 256 + low - 1024) / 200.0));
    }
    return recording;
}

std::vector<Earthquake> readEarthquakes(const std::filesystem::path& file) {
    CsvReader reader(file, "time_ms_utc,longitude_deg,latitude_deg,depth_km,magnitude,place");
    std::vector<Earthquake> earthquakes;
    std::vector<std::string> row;
    while (reader.nextRow(row)) {
        if (row.size() != 6) reader.fail("the row does not have 6 fields");
        Earthquake quake;
        quake.timeMs = reader.integer(row[0], "the time");
        quake.longitude = static_cast<float>(reader.number(row[1], "the longitude", -180, 180));
        quake.latitude = static_cast<float>(reader.number(row[2], "the latitude", -90, 90));
        quake.depth =
            static_cast<float>(reader.number(row[3], "the depth", kHighestKm, kDeepestKm));
        quake.magnitude = static_cast<float>(reader.number(row[4], "the magnitude", -5, 10));
        quake.place = row[5];
        if (!earthquakes.empty() && quake.timeMs < earthquakes.back().timeMs) {
            reader.fail("the time is before that of the row above");
        }
        earthquakes.push_back(std::move(quake));
    }
    if (earthquakes.empty()) reader.fail("there is no earthquake");
    return earthquakes;
}

void readCoastline(const std::filesystem::path& file, DataSet& data) {
    constexpr float kEnd = std::numeric_limits<float>::quiet_NaN();
    CsvReader reader(file, "longitude_deg,latitude_deg");
    std::vector<std::string> row;
    while (reader.nextRow(row)) {
        const bool isEnd = row.empty();
        if (!isEnd && row.size() != 2) reader.fail("the row does not have 2 fields");
        data.coastLongitudes.push_back(
            isEnd ? kEnd : static_cast<float>(reader.number(row[0], "the longitude", -180, 180)));
        data.coastLatitudes.push_back(
            isEnd ? kEnd : static_cast<float>(reader.number(row[1], "the latitude", -90, 90)));
    }
    if (data.coastLongitudes.empty()) reader.fail("there is no coastline");
}

}  // namespace

DataSet readDataSet(const std::filesystem::path& directory) {
    DataSet data{readEcg(directory / "ecg_u16le_360hz.raw"),
                 readEarthquakes(directory / "earthquakes.csv"),
                 {},
                 {}};
    readCoastline(directory / "coastline.csv", data);
    return data;
}

}  // namespace monitor::engine
