#include "History.hpp"

#include <array>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <ctime>
#include <utility>

#include "kiroutils/Logger.hpp"
#include "records/EventRecord.hpp"

namespace monitor {

namespace json = boost::json;

namespace {

/// At most so many bytes of `text`, no character of it halved; what is cut off is marked.
std::string cut(std::string_view text, std::size_t most) {
    if (text.size() <= most) return std::string(text);
    const auto continues = [](char byte) { return (static_cast<unsigned char>(byte) >> 6U) == 2; };
    while (most > 0 && continues(text[most])) --most;
    return std::string(text.substr(0, most)) + "...";
}

/// None if `text` is not the text of a JSON object.
json::value objectOf(std::string_view text) {
    boost::system::error_code error;
    json::value value = json::parse(text, error);
    return !error && value.is_object() ? value : json::value();
}

json::value recordOf(const std::string& time, const std::string& text) {
    const json::value parsed = objectOf(text);
    if (!parsed.is_object()) return json::value(text);
    json::object record{{"Time", time}};
    for (const auto& [key, value] : parsed.get_object()) record.emplace(key, value);
    // What a client reports is an object's text most of the time.
    if (auto* data = record.if_contains(records::kEventData);
        data != nullptr && data->is_string()) {
        if (auto inner = objectOf(data->get_string()); inner.is_object()) *data = std::move(inner);
    }
    return record;
}

}  // namespace

std::string timeText(std::chrono::system_clock::time_point time) {
    using namespace std::chrono;
    const auto whole = floor<seconds>(time);
    const std::time_t seconds1970 = system_clock::to_time_t(whole);
    std::tm parts{};
    gmtime_r(&seconds1970, &parts);
    std::array<char, sizeof "2026-01-31T23:59:59"> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    const auto thousandths = duration_cast<milliseconds>(time - whole).count();
    const std::string digits = std::to_string(1000 + thousandths).substr(1);
    return std::string(text.data()) + '.' + digits + 'Z';
}

History::History(std::function<Clock::time_point()> now) : fNow(std::move(now)) {
    // Enabled already, it is not given its usual length when somebody begins to record.
    kiroutils::Logger::instance().setHistoryEnabled(records::kDrawnowTimeoutLog, true, 1, false);
    fObserver = kirohost::observeLog([this](const kirohost::LogRecord& record) {
        if (record.logger == records::kDrawnowTimeoutLog) add(record.text);
    });
}

void History::add(std::string_view record) noexcept {
    const annotated::Lock lock(fMutex);
    try {
        fRecords.push_back({fNow(), cut(record, kMostBytesOfOne)});
        fBytes += fRecords.back().text.size();
    } catch (...) {  // the thread that logs may hold locks, and cannot help
        ++fLeftOut;
    }
    while (fRecords.size() > kMostRecords || fBytes > kMostBytes) {
        fBytes -= fRecords.front().text.size();
        fRecords.pop_front();
        ++fLeftOut;
    }
}

json::array History::records() const {
    std::deque<Record> records;
    {
        const annotated::Lock lock(fMutex);
        records = fRecords;
    }
    json::array all;
    for (const auto& [time, text] : records) all.push_back(recordOf(timeText(time), text));
    return all;
}

std::uint64_t History::leftOut() const {
    const annotated::Lock lock(fMutex);
    return fLeftOut;
}

}  // namespace monitor
