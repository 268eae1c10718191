#include "client/ReferenceData.hpp"

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <stdexcept>

namespace monitor::client {

namespace {

/// The whole file as text.
std::string slurp(const std::string& path) {
    const auto close = [](std::FILE* file) { std::fclose(file); };
    const std::unique_ptr<std::FILE, decltype(close)> file(std::fopen(path.c_str(), "rb"), close);
    if (file == nullptr) throw std::runtime_error(path + ": the client cannot open it");
    std::string text;
    char piece[4096];
    while (const std::size_t n = std::fread(piece, 1, sizeof piece, file.get())) {
        text.append(piece, n);
    }
    return text;
}

/// The text behind the header row.
const char* body(const std::string& text) {
    const std::size_t end = text.find('\n');
    return text.c_str() + (end == std::string::npos ? text.size() : end + 1);
}

/// Takes a number and the comma behind it, if there is one.
float takeFloat(const char*& at) {
    char* end = nullptr;
    const double value = std::strtod(at, &end);
    at = *end == ',' ? end + 1 : end;
    return static_cast<float>(value);
}

/// Takes the rest of the line: a text that may stand in double quotes.
std::string takeText(const char*& at) {
    std::string text;
    for (; *at != '\0' && *at != '\n'; ++at) {
        if (*at == '\r') continue;
        if (*at != '"') {
            text += *at;
        } else if (at[1] == '"') {
            text += *at++;
        }
    }
    if (*at == '\n') ++at;
    return text;
}

std::vector<float> readMillivolts(const std::string& path) {
    const std::string bytes = slurp(path);
    std::vector<float> values(bytes.size() / 2);
    for (std::size_t i = 0; i < values.size(); ++i) {
        const unsigned sample = static_cast<unsigned char>(bytes[2 * i]) |
                                static_cast<unsigned>(static_cast<unsigned char>(bytes[2 * i + 1]))
                                    << 8U;
        values[i] = static_cast<float>((static_cast<double>(sample) - 1024) / 200);
    }
    return values;
}

std::vector<ReferenceData::Quake> readQuakes(const std::string& path) {
    const std::string text = slurp(path);
    std::vector<ReferenceData::Quake> quakes;
    for (const char* at = body(text); *at != '\0';) {
        ReferenceData::Quake quake;
        char* end = nullptr;
        quake.timeMs = std::strtoll(at, &end, 10);
        at = *end == ',' ? end + 1 : end;
        for (float* const number :
             {&quake.longitude, &quake.latitude, &quake.depth, &quake.magnitude}) {
            *number = takeFloat(at);
        }
        char magnitude[32];
        std::snprintf(magnitude, sizeof magnitude, "M %.1f, ", double{quake.magnitude});
        quake.caption = magnitude + takeText(at);
        quakes.push_back(std::move(quake));
    }
    return quakes;
}

void readCoastline(const std::string& path, ReferenceData& data) {
    constexpr float kEnd = std::numeric_limits<float>::quiet_NaN();
    const std::string text = slurp(path);
    for (const char* at = body(text); *at != '\0'; ++at) {
        const bool isEnd = *at == '\n';
        data.coastLongitudes.push_back(isEnd ? kEnd : takeFloat(at));
        data.coastLatitudes.push_back(isEnd ? kEnd : takeFloat(at));
        if (*at == '\0') break;
    }
}

}  // namespace

ReferenceData readReferenceData(const std::string& directory) {
    ReferenceData data{readMillivolts(directory + "/ecg_u16le_360hz.raw"),
                       readQuakes(directory + "/earthquakes.csv"),
                       {},
                       {}};
    readCoastline(directory + "/coastline.csv", data);
    if (data.millivolts.empty() || data.quakes.empty() || data.coastLongitudes.empty()) {
        throw std::runtime_error(directory + ": the client finds a file without data");
    }
    return data;
}

}  // namespace monitor::client
