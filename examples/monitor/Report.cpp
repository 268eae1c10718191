#include "Report.hpp"

#include <chrono>
#include <iomanip>
#include <sstream>
namespace monitor {

namespace {

using std::chrono::microseconds;

std::string bothPercentiles(const std::deque<engine::Latency>& latencies,
                            microseconds engine::Latency::*part) {
    if (latencies.empty()) return "-";
    std::vector<microseconds> values;
    values.reserve(latencies.size());
    for (const auto& latency : latencies) values.push_back(latency.*part);
    using Milliseconds = std::chrono::duration<double, std::milli>;
    std::ostringstream text;
    text << std::fixed << std::setprecision(3)
         << Milliseconds(engine::percentile(values, 0.5)).count() << " ms / "
         << Milliseconds(engine::percentile(values, 0.99)).count() << " ms";
    return text.str();
}

std::uint64_t sumOf(const WarningLog::Counts& counts) {
    std::uint64_t sum = 0;
    for (const auto& [what, count] : counts) sum += count;
    return sum;
}

std::uint64_t countOf(const WarningLog::Counts& counts, const std::string& key,
                      const std::string& about) {
    const auto found = counts.find({key, about});
    return found == counts.end() ? 0 : found->second;
}

/// Collects complaints.
class Judgement {
  public:
    void require(bool holds, const std::string& complaint) {
        if (!holds) fComplaints.push_back(complaint);
    }
    void equal(std::uint64_t a, const std::string& whatA, std::uint64_t b,
               const std::string& whatB) {
        require(a == b,
                std::to_string(a) + ' ' + whatA + ", but " + std::to_string(b) + ' ' + whatB);
    }
    [[nodiscard]] std::vector<std::string> take() { return std::move(fComplaints); }

  private:
    std::vector<std::string> fComplaints;
};

void judgeTraffic(const Run& run, Judgement& judgement) {
    const auto& sent = run.traffic;
    const auto& received = run.client.received;
    judgement.equal(sent.commands, "commands sent", received.commands, "received");
    judgement.equal(sent.commandBytes, "bytes of commands sent", received.commandBytes, "received");
    judgement.equal(sent.blocks, "blocks sent", received.streamBlocks + received.textBlocks,
                    "received");
    judgement.equal(sent.blockBytes, "bytes of blocks sent", received.blockBytes, "received");
    // Without a frame there was no flush that could wait.
    judgement.require(run.engine.frames == 0 || run.backlog.commands > 0, "there was no backlog");
}

void judgeFrames(const Run& run, Judgement& judgement) {
    const auto& engine = run.engine;
    judgement.equal(engine.frames, "frames", engine.complete + engine.timedOut,
                    "complete or timed out");
    judgement.equal(engine.complete, "frames complete", run.client.tokensAnswered,
                    "tokens answered");
    judgement.equal(engine.endedByReconnection, "frames ended by reconnection",
                    run.client.reconnections, "reconnections");
    judgement.equal(engine.endedByNewView, "frames ended by a new view", run.client.newViews,
                    "new views");
    if (run.script.reconnectAt && engine.frames > *run.script.reconnectAt) {
        judgement.require(run.client.reconnections == 1, "the client did not reconnect");
    }
    if (run.script.newViewAt && engine.frames > *run.script.newViewAt) {
        judgement.require(run.client.newViews == 1, "the client opened no new view");
    }
}

void judgeEnd(const Run& run, Judgement& judgement) {
    const auto& wanted = run.options.frames;
    judgement.require(!run.engine.interrupted,
                      "interrupted after " + std::to_string(run.engine.frames) +
                          (wanted ? " of " + std::to_string(*wanted) : "") + " frames");
}

/// Time-outs and failed blocks: as many as were injected, each with its reaction.
void judgeFaults(const Run& run, Judgement& judgement) {
    const bool silent = run.options.silent;
    const std::uint64_t lost = silent ? run.engine.frames : run.client.tokensDropped;
    const std::string tokens = silent ? "frames for a silent client" : "tokens dropped";
    const std::string cause =
        silent ? "a browser handshaking issue" : "an unresponsive browser client";
    judgement.require(!run.options.losesTokens() || lost > 0, "too few frames: no token was lost");
    judgement.equal(lost, tokens, run.engine.timedOut, "time-outs");
    const std::uint64_t timeoutWarnings = countOf(run.warnings, "timeoutDuringDrawnow", cause);
    judgement.equal(lost, tokens, timeoutWarnings, "warnings \"" + cause + '"');
    const std::uint64_t internal =
        countOf(run.warnings, "drawnowTimeout",
                silent ? "Client may not be connected." : "Client may be connected.");
    judgement.equal(lost, tokens, internal, "internal warnings");
    judgement.equal(lost, tokens, run.timeoutHooks, "calls of the time-out hook");

    const std::uint64_t failed = run.client.blocksFailed;
    judgement.require(run.options.failEvery == 0 || failed > 0, "too few frames: no block failed");
    judgement.equal(failed, "blocks failed", run.client.received.textBlocks, "blocks as text");
    const std::uint64_t sendWarnings =
        countOf(run.warnings, "GraphicsBinarySendFailure", run.commandChannel);
    judgement.equal(failed, "blocks failed", sendWarnings, "warnings of a failed send");

    judgement.equal(sumOf(run.warnings), "warnings", timeoutWarnings + internal + sendWarnings,
                    "expected");
    judgement.equal(run.errorsLogged, "errors logged", 0, "expected");
}

template <typename Value>
void row(std::ostream& out, const std::string& name, const Value& value) {
    constexpr int kWidth = 28;
    out << std::left << std::setw(kWidth) << name << value << '\n';
}

std::string trafficText(const engine::Traffic& traffic) {
    return std::to_string(traffic.commands) + " commands, " + std::to_string(traffic.blocks) +
           " blocks, " + std::to_string(traffic.commandBytes + traffic.blockBytes) + " bytes";
}

void printWarnings(std::ostream& out, const Run& run) {
    row(out, "warnings", sumOf(run.warnings));
    for (const auto& [what, count] : run.warnings) {
        out << "  " << count << " x " << what.first;
        if (!what.second.empty()) out << " (" << what.second << ')';
        out << '\n';
    }
}

}  // namespace

std::vector<std::string> judge(const Run& run) {
    Judgement judgement;
    judgeEnd(run, judgement);
    // Both ends can be compared only when no frame was cut in two.
    if (!run.engine.interrupted) {
        if (!run.options.silent) judgeTraffic(run, judgement);
        judgeFrames(run, judgement);
        judgeFaults(run, judgement);
    }
    const client::Findings& findings = run.client.findings;
    if (!findings.none()) {
        judgement.require(false, "the client found faults; the first of them:");
        for (const std::string& text : findings.texts()) judgement.require(false, "  " + text);
    }
    return judgement.take();
}

std::string tableText(const Run& run) {
    const auto& engine = run.engine;
    const auto& client = run.client;
    const std::uint64_t received = client.received.streamBlocks + client.received.textBlocks;
    const std::uint64_t blocks = run.traffic.blocks;
    const std::uint64_t repeated = engine.endedByReconnection + engine.endedByNewView;
    std::ostringstream out;
    row(out, "frames", engine.frames);
    row(out, "  complete", engine.complete);
    row(out, "  failed", engine.failed);
    row(out, "  ended by time-out", engine.timedOut);
    row(out, "frames begun again", repeated);
    row(out, "  after a reconnection", engine.endedByReconnection);
    row(out, "  after a new view", engine.endedByNewView);
    row(out, "commands", run.traffic.commands);
    row(out, "blocks", blocks);
    row(out, "  received by stream", client.received.streamBlocks);
    row(out, "  received as text", client.received.textBlocks);
    row(out, "  not received", blocks > received ? blocks - received : 0);
    row(out, "bytes", run.traffic.commandBytes + run.traffic.blockBytes);
    row(out, "  of commands", run.traffic.commandBytes);
    row(out, "  of blocks", run.traffic.blockBytes);
    row(out, "backlog at ready", trafficText(run.backlog));
    row(out, "flush latency p50 / p99", bothPercentiles(engine.latencies, &engine::Latency::total));
    row(out, "at the client, of that",
        bothPercentiles(engine.latencies, &engine::Latency::atClient));
    row(out, "tokens dropped", client.tokensDropped);
    row(out, "blocks failed", client.blocksFailed);
    row(out, "picks", client.picks);
    if (run.options.record) row(out, "bytes recorded", run.recordedBytes);
    printWarnings(out, run);
    row(out, "missing", client.findings.missing());
    row(out, "out of order", client.findings.outOfOrder());
    row(out, "wrong content", client.findings.wrong());
    return out.str();
}

std::string summaryText(const engine::EngineResult& result) {
    std::ostringstream out;
    out << result.frames << " frames: " << result.complete << " drawn, " << result.failed
        << " failed, " << result.timedOut << " timed out, " << result.clientsGone
        << " without a client at the end; " << result.endedByNewView
        << " attempts ended by a new view, " << result.endedByReconnection << " by a reconnection"
        << (result.interrupted ? "; interrupted" : "");
    return out.str();
}

bool isAllDrawn(const Options& options, const engine::EngineResult& result) {
    return result.complete == result.frames && !(result.interrupted && options.hasEnd());
}

}  // namespace monitor
