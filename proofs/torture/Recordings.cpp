// Recordings: written, read, repaired, exported.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <optional>
#include <thread>

#include "Csv.hpp"
#include "Cut.hpp"
#include "Draft.hpp"
#include "Memory.hpp"
#include "Scenario.hpp"
#include "SingleFile.hpp"
#include "kirorecording/Recorder.hpp"
#include "kirorecording/Repair.hpp"
#include "kirorecording/Run.hpp"

namespace torture {
namespace {

using namespace kirorecording;
using recording_test::MemorySink;
using recording_test::Said;

const std::string kFile = testing::TempDir() + "torture." + std::to_string(::getpid());

/// Whether `bytes` are a whole file whose messages are the first of `wanted`; how many they are.
std::string beginningOf(const std::string& bytes, const std::vector<Said>& wanted) {
    const MemorySource source(bytes);
    const Reader reader(source);
    if (reader.damage()) return std::string("damaged: ") + reader.damage()->what();
    const auto said = recording_test::messagesOf(reader);
    if (said.size() > wanted.size()) return "more than was said";
    for (std::size_t i = 0; i < said.size(); ++i) {
        if (said[i].topic != wanted[i].topic || said[i].data != wanted[i].data) return "wrong";
    }
    return "good";
}

/// A writer that is given up at a failure.
struct Writing {
    MemorySink sink;
    std::optional<Writer> writer;
    bool hasFailed = false;

    static void write(Writing& w) {
        if (w.hasFailed) {
            if (w.writer) w.writer->closeEarly();
            return;
        }
        try {
            w.writer.emplace(w.sink, WriterOptions{true, 50});
            const auto text = w.writer->add(runChannels().front());
            const auto bytes = w.writer->add({"bytes", "raw"});
            for (const auto& one : recording_test::kSaid) {
                w.writer->write(one.topic == "text" ? text : bytes, one.time, one.data);
            }
            w.writer->flush();
            w.writer->close();
        } catch (...) {
            w.hasFailed = true;
            throw;
        }
    }
    std::string state() const {
        if (hasFailed && !writer) return "good";
        auto wanted = recording_test::kSaid;
        for (auto& one : wanted) {
            if (one.topic == "text") one.topic = nameOf(Topic::kCommands);
        }
        return beginningOf(sink.bytes, wanted);
    }
};

/// What reads a file, in any state.
struct Reading {
    std::string whole = recording_test::sample(true);
    std::string open = recording_test::sample(false, false);
    std::string damaged = [this] {
        auto bytes = whole;
        bytes[bytes.size() / 2] ^= 1;
        return bytes;
    }();
    std::string said;
    MemorySink sink;

    static void read(Reading& r, const std::string& bytes) {
        const MemorySource source(bytes);
        std::vector<Said> all;
        const Reader reader(source);
        recording_test::readInto(all, reader);
        r.said = std::to_string(all.size()) + (reader.damage() ? " damaged" : " whole");
    }
    static void repairInto(Reading& r, const std::string& bytes) {
        r.sink.bytes.clear();
        const MemorySource source(bytes);
        r.said = std::to_string(repair(source, r.sink).messages);
    }
    std::string state() const { return said + ' ' + std::to_string(sink.bytes.size()); }
};

/// A run of two frames with a line of three points.
std::string film() {
    MemorySink sink;
    Writer writer(sink);
    for (const auto& channel : runChannels()) writer.add(channel);
    std::uint64_t time = 1'700'000'000'000'000'000;
    const auto say = [&](Topic topic, const std::string& data) {
        writer.write(static_cast<std::uint16_t>(topic), time += 1'000'000'000, data);
    };
    for (const char* frame : {"0", "1"}) {
        say(Topic::kCommands, R"({"seq":1,"cmd":"beginFrame","whole":true})");
        say(Topic::kCommands, R"({"seq":1,"cmd":"create","id":1,"type":"figure"})");
        say(Topic::kCommands, R"({"seq":1,"cmd":"create","id":2,"type":"axes","parent":1})");
        say(Topic::kCommands, R"({"seq":1,"cmd":"create","id":3,"type":"line","parent":2})");
        const double numbers[] = {1, 2, 3, 4, 5, 6};
        std::string block("\4\0\0\0\0\0\0\0", 8);
        block.append(sizeof numbers, '\0');
        std::memcpy(block.data() + 8, numbers, sizeof numbers);
        say(Topic::kBlocks, block);
        say(Topic::kCommands, R"({"seq":1,"cmd":"data","id":3,"data":"4 0","first":0,"count":3,)"
                              R"("columns":[["x","f64"],["y","f64"]]})");
        say(Topic::kFrames, std::string(R"({"frame":)") + frame + R"(,"kind":"whole"})");
    }
    writer.close();
    return std::move(sink.bytes);
}

struct Export {
    const std::string bytes = film();
    const MemorySource source{bytes};
    std::optional<recording_tool::Recording> run;
    std::string made;
    MemorySink page;

    ~Export() { std::remove(kFile.c_str()); }
    static void open(Export& e) { e.run.emplace(e.source); }
    std::string state() const { return made + std::to_string(page.bytes.size() / 1000); }
};

/// A recorder that is used by the main thread.
struct Recorded {
    /// A disk that outlives its recorder, and exposes the recorder's thread when it is wanted.
    struct Disk : Sink {
        explicit Disk(MemorySink& to) : fTo(to) {}

      private:
        void doWrite(std::string_view bytes) override {
            const Spared spared;
            fTo.write(bytes);
        }
        void doTruncate(std::uint64_t size) override { fTo.truncate(size); }
        void doClose() override { fTo.close(); }
        MemorySink& fTo;
    };
    MemorySink sink;
    std::unique_ptr<Recorder> recorder;
    bool exposesThread = false;

    static void make(Recorded& r) {
        RecorderOptions options;
        options.writer.chunkSize = 100;
        options.now = [&r, main = std::this_thread::get_id()] {
            if (r.exposesThread && std::this_thread::get_id() != main) exposeThread(true);
            return RecorderOptions::systemNow();
        };
        r.recorder = std::make_unique<Recorder>(std::make_unique<Disk>(r.sink), runChannels(),
                                                std::move(options));
    }
    static void add(Recorded& r) {
        r.recorder->add(1, std::string(10, 'c'));
        r.recorder->addCopy(1, "a text that is copied, and is not a short one");
    }
    static void stop(Recorded& r) { r.recorder->stop(); }
    std::string state() const {
        if (recorder == nullptr) return "none";
        recorder->stop();
        const auto cause = recorder->status().cause;
        if (!cause.empty() && cause != "no memory") return cause;
        const Said a{"commands", 0, std::string(10, 'c')};
        const Said b{"commands", 0, "a text that is copied, and is not a short one"};
        return beginningOf(sink.bytes, {a, b, a, b, a, b});
    }
};

/// The recorder's own thread gets no memory.
bool recordWithout(Failure failure) {
    Recorded r;
    r.exposesThread = true;
    Recorded::make(r);
    arm(failure, false);
    for (int i = 0; i < 3; ++i) Recorded::add(r);
    const auto state = r.state();
    if (state != "good") finding("the recorder's thread leaves: " + state);
    return disarm();
}

}  // namespace

void addRecordings(Scenarios& all) {
    const auto a = [&all](auto&& one) { all.push_back(one); };
    a(scenario<Writing>("recording: write", kBadAlloc, {&Writing::write}));
    a(scenario<Reading>("recording: read", kBadAlloc,
                        {[](Reading& r) { Reading::read(r, r.whole); }}));
    a(scenario<Reading>("recording: read without an index", kBadAlloc,
                        {[](Reading& r) { Reading::read(r, r.open); }}));
    a(scenario<Reading>("recording: read what is damaged", kBadAlloc,
                        {[](Reading& r) { Reading::read(r, r.damaged); }}));
    a(scenario<Reading>("recording: repair", kBadAlloc,
                        {[](Reading& r) { Reading::repairInto(r, r.open); },
                         [](Reading& r) { Reading::repairInto(r, r.damaged); }}));
    a(scenario<Recorded>(
        "recorder: make, add, stop", kBadAlloc | kSystem | kSilent,
        {&Recorded::make, &Recorded::add, &Recorded::add, &Recorded::add, &Recorded::stop}));
    all.push_back({"recorder: its thread", [](Failure failure) {
                       return expectNoLeak([failure] { return recordWithout(failure); });
                   }});
    a(scenario<Export>("export: tables", kBadAlloc,
                       {&Export::open, [](Export& e) {
                            const auto tables = tablesAt(*e.run, e.run->timeOf({}));
                            e.made = tables.at(0).first + tables.at(0).second;
                        }}));
    a(scenario<Export>("export: a part", kBadAlloc, {&Export::open, [](Export& e) {
                                                         e.made = std::to_string(
                                                             cut(*e.run, {}, 1'000'000).frames);
                                                     }}));
    a(scenario<Export>("export: key frames", kBadAlloc,
                       {&Export::open, [](Export& e) {
                            e.made = std::to_string(thinned(*e.run, {}, 1'000'000).frames);
                        }}));
    a(scenario<Export>("export: a single file", kBadAlloc, {[](Export& e) {
                           e.page.bytes.clear();
                           recording_tool::writeSingleFile(e.page, e.bytes, 1);
                       }}));
    a(scenario<Export>("export: a file in its place", kBadAlloc | kSystem, {[](Export& e) {
                           recording_tool::Draft draft(kFile);
                           FileSink(draft.path()).write(e.bytes);
                           draft.keep();
                           e.made = std::to_string(FileSource(kFile).size());
                       }}));
}

}  // namespace torture
