#include "Csv.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <ctime>
#include <functional>
#include <optional>
#include <utility>

#include "Decoder.hpp"
#include "KeyFrames.hpp"
#include "Scene.hpp"

namespace recording_tool {

using namespace kirorecording;

namespace {

/// Bytes of blocks that wait for their command.
constexpr std::size_t kMostWaiting = std::size_t{128} << 20U;
/// What each block takes besides its bytes.
constexpr std::size_t kBlockCost = 128;

/// Makes commands with their data of messages.
class Following {
  public:
    void follow(Topic topic, std::string_view data) try {
        if (topic == Topic::kBlocks) keep(data);
        if (topic == Topic::kCommands) hand(membersOf(data));
        if (topic == Topic::kFrames) forget();
    } catch (const WrongRecord& wrong) {
        throw WrongText{wrong.what};
    }
    void begin(const KeyFrame& key) {
        for (const auto& [topic, data] : key.parts) follow(topic, data);
    }
    [[nodiscard]] bool isWhole() const noexcept { return fIsWhole; }

    Scene scene;

  private:
    void keep(std::string_view block) {
        Decoder rest(block);
        const auto low = rest.number<std::uint32_t>();
        const auto name = std::to_string(low) + ' ' + std::to_string(rest.number<std::uint32_t>());
        fWaiting += block.size() + kBlockCost;
        if (fWaiting > kMostWaiting) throw WrongText{"too many blocks without a command"};
        fBlocks.insert_or_assign(name, std::string(rest.rest()));
    }
    void hand(const Members& command) {
        const auto name = textOf(demand(command, "cmd"));
        if (name == "beginFrame" && find(command, "whole") == "true") fIsWhole = true;
        if (!fIsWhole) return;
        if (name != "data") return scene.apply(command, {});
        const auto block = fBlocks.extract(textOf(demand(command, "data")));
        if (block.empty()) throw WrongText{"a block is missing"};
        scene.apply(command, block.mapped());
    }
    void forget() {
        fBlocks.clear();
        fWaiting = 0;
    }

    std::map<std::string, std::string, std::less<>> fBlocks;
    std::size_t fWaiting = 0;
    bool fIsWhole = false;
};

std::string numberText(double value, bool isSingle) {
    if (std::isnan(value)) return {};
    if (std::isinf(value)) return value < 0 ? "-Infinity" : "Infinity";
    std::array<char, 64> text{};
    char* const end = text.data() + text.size();
    // As few digits as tell it from its neighbours.
    const auto stop = isSingle ? std::to_chars(text.data(), end, static_cast<float>(value)).ptr
                               : std::to_chars(text.data(), end, value).ptr;
    return {text.data(), stop};
}

/// Seconds since 1970 as a date. What no calendar has is a number.
std::string dateText(double value) {
    constexpr double kMost = 253402300799.0;  // the last second of the year 9999
    if (!(std::abs(value) <= kMost)) return numberText(value, false);
    constexpr std::int64_t kMicro = 1'000'000;
    const auto micros = static_cast<std::int64_t>(std::llround(value * kMicro));
    const auto fraction = (micros % kMicro + kMicro) % kMicro;
    const auto seconds = static_cast<std::time_t>((micros - fraction) / kMicro);
    std::tm parts{};
    if (::gmtime_r(&seconds, &parts) == nullptr) return numberText(value, false);
    std::array<char, 64> date{};
    std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::string text = date.data();
    if (fraction != 0) text += '.' + std::to_string(kMicro + fraction).substr(1);
    return text + 'Z';
}

/// A column of a table.
struct Column {
    std::string name;
    std::function<std::string(std::size_t)> cell;
};

std::optional<Members> objectIn(const Object& object, std::string_view name) {
    const auto found = object.properties.find(name);
    if (found == object.properties.end()) return std::nullopt;
    return membersOf(found->second);
}

std::string textIn(const Object& object, std::string_view name, const std::string& other) {
    const auto found = object.properties.find(name);
    const auto text = found == object.properties.end() ? std::string() : textOf(found->second);
    return text.empty() ? other : text;
}

bool isTime(const Object& axes, const std::string& axis) {
    const auto properties = objectIn(axes, axis);
    const auto scale = properties ? find(*properties, "scale") : std::nullopt;
    return scale && textOf(*scale) == "time";
}

/// [a, b] of a property, or these.
std::pair<double, double> pairIn(const Object& object, std::string_view name,
                                 std::pair<double, double> other) {
    const auto found = object.properties.find(name);
    if (found == object.properties.end()) return other;
    const auto pair = elementsOf(found->second);
    if (pair.size() != 2) throw WrongText{"what is to be two numbers is not"};
    return {numberOf(pair[0]), numberOf(pair[1])};
}

std::string cellText(double value, bool isDate, bool isSingle) {
    return isDate && !std::isnan(value) ? dateText(value) : numberText(value, isSingle);
}

/// The middles of an image's pixels, row by row from below.
void addPixels(const Object& image, bool isTimeX, bool isTimeY, std::vector<Column>& table) {
    const auto size = [&](std::string_view name) {
        const auto found = image.properties.find(name);
        const auto count = found == image.properties.end() ? 0 : countOf(found->second);
        if (count == 0) throw WrongText{"an image without rows or columns"};
        return count;
    };
    const auto across = size("columns");
    const auto up = size("rows");
    const auto middle = [](std::pair<double, double> edges, double index, double count) {
        return edges.first + (edges.second - edges.first) * (index + 0.5) / count;
    };
    const auto x = pairIn(image, "x", {0, static_cast<double>(across)});
    const auto y = pairIn(image, "y", {0, static_cast<double>(up)});
    table.push_back({"x", [=](std::size_t i) {
                         return cellText(middle(x, static_cast<double>(i % across),
                                                static_cast<double>(across)),
                                         isTimeX, false);
                     }});
    table.push_back({"y", [=](std::size_t i) {
                         const auto row = i / across;
                         return cellText(
                             middle(y, static_cast<double>(row), static_cast<double>(up)), isTimeY,
                             false);
                     }});
}

std::string tableOf(const Object& series, const Object& axes) {
    const bool isTimeX = isTime(axes, "x");
    const bool isTimeY = isTime(axes, textIn(series, "axis", "y"));
    const auto count = series.columns.begin()->second.size();
    std::vector<Column> table;
    if (series.type == "image") {
        addPixels(series, isTimeX, isTimeY, table);
    } else if (series.properties.count("regular") != 0) {
        const auto [start, step] = pairIn(series, "regular", {});
        const auto before = static_cast<double>(series.given - count);
        table.push_back({"x", [=, start = start, step = step](std::size_t i) {
                             return cellText(start + (before + static_cast<double>(i)) * step,
                                             isTimeX, false);
                         }});
    }
    for (const auto* name : {"x", "y", "z", "low", "high", "minus", "plus", "size", "value"}) {
        const auto found = series.columns.find(name);
        if (found == series.columns.end()) continue;
        const std::string_view text = name;
        const bool isDate =
            text == "x" ? isTimeX : isTimeY && (text == "y" || text == "low" || text == "high");
        table.push_back(
            {name, [&values = found->second, isDate, isSingle = series.isSingle.at(found->first)](
                       std::size_t i) { return cellText(values[i], isDate, isSingle); }});
    }
    std::string csv;
    const auto addRow = [&](const auto& cell) {
        for (std::size_t i = 0; i < table.size(); ++i) csv += (i == 0 ? "" : ",") + cell(table[i]);
        csv += "\r\n";
    };
    addRow([](const Column& column) { return column.name; });
    for (std::size_t i = 0; i < count; ++i)
        addRow([i](const Column& column) { return column.cell(i); });
    return csv;
}

/// A copy without characters that show nothing but change how others are shown: a file's name must
/// not look like another one.
std::string visible(std::string_view text) {
    // Marks and embeddings of direction, joiners, the byte order mark, in UTF-8.
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 4> kRanges{
        {{"\u200B", "\u200F"}, {"\u2028", "\u202E"}, {"\u2060", "\u206F"}, {"\uFEFF", "\uFEFF"}}};
    constexpr std::size_t kSize = 3;
    std::string rest;
    for (std::size_t i = 0; i < text.size();) {
        const auto one = text.substr(i, kSize);
        const bool isHidden = std::ranges::any_of(kRanges, [one](const auto& range) {
            return one >= range.first && one <= range.second;
        });
        if (!isHidden) rest += text[i];
        i += isHidden ? kSize : 1;
    }
    return rest;
}

/// For a file's name: letters and digits, and what is not ASCII.
std::string plain(const std::string& text) {
    constexpr std::size_t kLongest = 60;
    std::string name;
    for (const char one : visible(text)) {
        const auto byte = static_cast<unsigned char>(one);
        const bool isLetter =
            (one >= 'a' && one <= 'z') || (one >= '0' && one <= '9') || byte >= 0x80;
        if (isLetter)
            name += one;
        else if (one >= 'A' && one <= 'Z')
            name += static_cast<char>(one - 'A' + 'a');
        else if (!name.empty() && name.back() != '-')
            name += '-';
    }
    if (name.size() > kLongest) {
        // Not within a character of several bytes.
        auto end = kLongest;
        while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0U) == 0x80U) --end;
        name.resize(end);
    }
    while (!name.empty() && name.back() == '-') name.pop_back();
    return name;
}

using Tables = std::vector<std::pair<std::string, std::string>>;

Tables tablesOf(const Scene& scene) {
    Tables tables;
    for (const auto& [id, object] : scene.objects()) {
        const auto axes = scene.objects().find(object.parent);
        if (object.columns.empty() || axes == scene.objects().end()) continue;
        const auto name = plain(textIn(object, "name", object.type + ' ' + std::to_string(id)));
        auto file = std::to_string(tables.size() + 1);
        file.append("-").append(name).append(".csv");
        tables.emplace_back(std::move(file), tableOf(object, axes->second));
    }
    return tables;
}

}  // namespace

Tables tablesAt(const Recording& run, std::uint64_t time) {
    Following following;
    const auto key = run.keyBefore(time);
    auto chunk = key.chunk;
    bool isFirst = true;
    run.forEach(key, [&](const Entry& entry) {
        if (entry.time > time) return false;
        chunk = entry.place.chunk;
        if (std::exchange(isFirst, false) && entry.topic == Topic::kSnapshots) {
            following.begin(keyFrameOf(entry.data, entry.time));
        } else {
            following.follow(entry.topic, entry.data);
        }
        return true;
    });
    if (!following.isWhole()) run.fail(key.chunk, "nothing whole is before that frame");
    try {
        return tablesOf(following.scene);
    } catch (const WrongText& wrong) {
        run.fail(chunk, std::string("of what is shown here: ") + wrong.what);
    }
}

}  // namespace recording_tool
