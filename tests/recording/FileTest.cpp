#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>

#include "FailingNew.hpp"
#include "Memory.hpp"
#include "kirorecording/Repair.hpp"

namespace recording_test {
namespace {

using namespace kirorecording;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

class File : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Compressed, File, testing::Bool());

/// The bytes of the example, each line of which ends with words.
std::string documented() {
    std::ifstream page(KIROWEB_RECORDING_PAGE);
    std::string bytes;
    std::string line;
    while (std::getline(page, line) && line != "### Worked example") continue;
    while (std::getline(page, line) && line != "```") continue;
    while (std::getline(page, line) && line != "```") {
        std::istringstream words(line.substr(0, line.find("   ")));
        for (unsigned byte = 0; words >> std::hex >> byte;) bytes += static_cast<char>(byte);
    }
    return bytes;
}

TEST(Documentation, ShowsAChunkAsItIs) {
    MemorySink sink;
    Writer writer(sink, {false});
    const auto begin = writer.size();
    writer.write(writer.add({"t", "raw"}), 5, "hi");
    writer.flush();
    EXPECT_EQ(documented(), sink.bytes.substr(begin));
}

TEST(Reader, KnowsWhatIsWhere) {
    const auto file = sample(true);
    const MemorySource source(file);
    const Reader reader(source);
    EXPECT_EQ(messagesOf(reader), kSaid);
    const auto& second = reader.chunks().at(1);
    EXPECT_THAT((std::vector{second.first, second.last}), ElementsAre(20, 30));
    EXPECT_THAT(second.indexes, ElementsAre(Pair(1, testing::_), Pair(2, testing::_)));
    EXPECT_EQ(reader.find("bytes"), 2);
    EXPECT_EQ(reader.find("nobody"), std::nullopt);
}

/// Another number in place of the one at `offset`.
template <typename Number>
std::string with(std::string file, std::size_t offset, Number number) {
    std::memcpy(file.data() + offset, &number, sizeof number);
    return file;
}

/// With a footer whose checksum is right, as whoever means harm makes it.
std::string sealed(std::string file) {
    std::uint64_t begin = 0;
    std::memcpy(&begin, file.data() + file.size() - 28, sizeof begin);
    const auto covered = std::string_view(file).substr(begin, file.size() - 12 - begin);
    const auto* const bytes = reinterpret_cast<const Bytef*>(covered.data());
    const auto crc = static_cast<std::uint32_t>(crc32_z(0, bytes, covered.size()));
    const std::size_t place = file.size() - 12;
    return with(std::move(file), place, crc);
}

/// What `operation` says when it fails; "" if it does not.
std::string failureOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return {};
}

/// The first thing that is found to be wrong.
std::string complaintAbout(const std::string& file) {
    return failureOf([&file] {
        const MemorySource source(file);
        const Reader reader(source);
        if (reader.damage()) throw FormatError(*reader.damage());
        static_cast<void>(messagesOf(reader));
    });
}

TEST(HostileFile, IsRefusedBeforeItTakesMemory) {
    const auto file = sample(true, false);
    const MemorySource source(file);
    const auto chunks = Reader(source).chunks();
    const auto first = chunks[0].offset;
    constexpr std::uint64_t kHuge = std::uint64_t{1} << 62U;
    const auto gap = file.substr(0, chunks[1].offset) + file.substr(chunks[2].offset);
    const auto whole = sample(true);
    // In the index, where it names the second chunk.
    const auto placeOf = [&whole](std::uint64_t offset) {
        return whole.rfind(std::string(reinterpret_cast<const char*>(&offset), sizeof offset));
    };
    const std::size_t index = placeOf(chunks[1].offset);
    const struct {
        const char* what;
        std::string file;
    } kCases[]{
        {"offset 0: this is no recording", "PNG, say"},
        {"offset 0: this is no recording", ""},
        {"the chunk's checksum is wrong", with(sample(false, false), chunks[0].offset + 60, '!')},
        {"offset 8: a field is longer", with(file, 9, kHuge)},
        {"the file ends within a record", with(file, first + 1, kHuge)},
        {"the chunk is larger than", with(file, first + 25, kHuge)},
        {"the chunk cannot be decompressed", with(file, first + 25, std::uint64_t{99})},
        {"messages are missing before this chunk", gap},
        {"a message does not fit its chunk",
         file.substr(0, first) + file.substr(chunks[1].offset)},  // its channel was in the first
        {"the chunk has no checksum", with(file, first + 33, std::uint32_t{0})},
        {"the index's checksum is wrong", with(whole, index, kHuge)},
        {"the index has no checksum", with(whole, whole.size() - 12, std::uint32_t{0})},
        {"the footer is damaged", with(whole, whole.size() - 37, 'x')},
        {"the index names a chunk that is not there", sealed(with(whole, index, kHuge))},
        {"the index names a chunk that is not there", sealed(with(whole, index + 8, kHuge))},
        {"chunks that lie in each other", sealed(with(whole, index, first + 1))},
        {"no chunk is there", sealed(with(whole, placeOf(chunks[2].offset), chunks[2].offset + 1))},
        {"the chunk is not as the index says", sealed(with(whole, index - 8, kHuge))},
    };
    EXPECT_EQ(complaintAbout(sealed(whole)), "");
    for (const auto& [what, given] : kCases) EXPECT_THAT(complaintAbout(given), HasSubstr(what));
}

TEST_P(File, IsRepairedUpToItsLastWholeChunk) {
    const auto file = sample(GetParam());
    const MemorySource whole(file);
    const auto chunks = Reader(whole).chunks();
    // Its message indexes are not what makes a chunk whole.
    const std::size_t end = chunks[2].offset + chunks[2].length;
    auto damaged = file;
    damaged[chunks[1].offset + chunks[1].length - 1] ^= 1;
    const struct {
        std::string file;
        std::size_t messages;
        std::uint64_t damage;  // its offset, 0: none
    } kCases[]{{file, 6, 0},
               {file.substr(0, end), 6, end},
               {file.substr(0, end - 1), 4, chunks[2].offset},
               {file.substr(0, chunks[2].offset + 3), 4, chunks[2].offset},
               {damaged, 2, chunks[1].offset},
               {file.substr(0, chunks[0].offset), 0, chunks[0].offset}};
    for (const auto& [given, messages, damage] : kCases) {
        const MemorySource source(given);
        MemorySink sink;
        const auto repaired = repair(source, sink);
        EXPECT_EQ(repaired.messages, messages);
        EXPECT_EQ(repaired.damage ? repaired.damage->offset() : 0, damage);
        EXPECT_TRUE(sink.isClosed);
        const MemorySource mended(sink.bytes);
        const Reader reader(mended);
        EXPECT_FALSE(reader.damage());
        const auto said = messagesOf(reader);
        EXPECT_EQ(said.size(), messages);
        EXPECT_TRUE(std::equal(said.begin(), said.end(), kSaid.begin()));
    }
}

TEST(Writer, EndsAChunkBehindTheMessageThatFillsIt) {
    MemorySink sink;
    Writer writer(sink, {false, 100});
    const auto channel = writer.add({"bytes", "raw"});
    for (const std::size_t size : {60U, 60U, 500U, 1U})
        writer.write(channel, 1, std::string(size, 'z'));
    EXPECT_EQ(writer.waitsSince(), 1U);
    writer.close();
    const MemorySource source(sink.bytes);
    EXPECT_EQ(Reader(source).chunks().size(), 3U);
}

/// What was written before the disk was full is a whole file if there is room for its end, and one
/// that can be read otherwise.
TEST(Writer, LeavesAGoodFileOnAFullDisk) {
    const std::string message(3000, 'z');
    std::set<bool> wholeOrNot;
    for (std::size_t room = 100; room < 8 * message.size(); room += 77) {
        MemorySink sink;
        sink.room = room;
        Writer writer(sink, {false, 1});
        const auto channel = writer.add({"bytes", "raw"});
        std::uint64_t written = 0;
        const auto fill = [&] {
            for (; written < 9; ++written) writer.write(channel, written, message);
        };
        EXPECT_THAT(failureOf(fill), HasSubstr("No space left on device"));
        const bool isWhole = failureOf([&] { writer.closeEarly(); }).empty();
        wholeOrNot.insert(isWhole);
        EXPECT_EQ(sink.isClosed, isWhole);
        const MemorySource source(sink.bytes);
        const Reader reader(source);
        EXPECT_EQ(reader.damage().has_value(), !isWhole);
        EXPECT_EQ(messagesOf(reader).size(), written);
    }
    EXPECT_EQ(wholeOrNot.size(), 2U);
}

TEST(Writer, LeavesAGoodFileWhereverMemoryRunsOut) {
    const auto failures = support::failEachNew([](std::size_t n) {
        MemorySink sink;
        Writer writer(sink, {false});
        const auto channel = writer.add({"bytes", "raw"});
        const auto outcome = support::failingNew(n, [&] {
            writer.write(channel, 1, "x");
            writer.flush();
        });
        writer.closeEarly();
        const MemorySource source(sink.bytes);
        const Reader reader(source);
        EXPECT_FALSE(reader.damage()) << "allocation " << n;
        EXPECT_EQ(messagesOf(reader).size(), reader.chunks().size()) << "allocation " << n;
        return outcome.failed;
    });
    EXPECT_GT(failures, 5U);
}

TEST(FileSink, SaysWhereAndWhyItFails) {
    EXPECT_EQ(failureOf([] { FileSink("/no/such/folder"); }),
              "/no/such/folder: cannot be written: No such file or directory");
    EXPECT_EQ(failureOf([] { FileSink("/dev/full").write("x"); }),
              "/dev/full: cannot be written: No space left on device");
    EXPECT_EQ(failureOf([] { FileSource("/dev/null"); }),
              "/dev/null: cannot be read: Invalid argument");
    const auto path = testing::TempDir() + "kirorecording_file_" + std::to_string(::getpid());
    FileSink sink(path);
    sink.write("abcd");
    sink.truncate(2);
    sink.write("e");
    sink.close();
    EXPECT_EQ(FileSource(path).read(1, 2), "be");
    std::filesystem::remove(path);
}

}  // namespace
}  // namespace recording_test
