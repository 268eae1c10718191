// Recordings that the engine and the page write, read by the page and by a program that knows nothing
// of them but the format.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, test } from "node:test";

import { CHANNELS } from "../../client/page/recording/channels.mjs";
import { commandsOf } from "../../client/page/recording/following.mjs";
import { Decoder, Encoder, crcOf } from "../../client/page/recording/format.mjs";
import { textOf } from "../../client/page/recording/json.mjs";
import { Reader, RecordingError } from "../../client/page/recording/reader.mjs";
import { Recorder } from "../../client/page/recording/recorder.mjs";
import { Writer } from "../../client/page/recording/writer.mjs";
import { Scene } from "../../client/page/worker/scene.mjs";
import { readJson } from "../../client/wire.mjs";
import { Random } from "./figures/support/random.mjs";
import { Builder, contentOf } from "./figures/support/scenes.mjs";
import { mcap } from "./support/packages.mjs";
import { bytesOf, messagesOf, open, sourceOf, zstd } from "./support/recordings.mjs";

const folder = mkdtempSync(join(tmpdir(), "recording-"));
after(() => rmSync(folder, { recursive: true }));

const EPOCH = 1_700_000_000_000_000_000n;

/** A file by the page's writer with messages of these sizes, in turn in each channel. */
async function write(sizes, chunkSize, channels = CHANNELS) {
    const writer = new Writer(channels, chunkSize);
    sizes.forEach((size, i) => {
        const data = Uint8Array.from({ length: size }, (_, k) => i + k);
        const middle = size >> 1;
        const pieces = [data.subarray(0, middle), data.subarray(middle)];
        writer.add(1 + (i % channels.length), EPOCH + BigInt(i), pieces);
    });
    return bytesOf(writer.end());
}

/** The file of the engine's own writer. */
function enginesFile(...options) {
    const file = join(folder, ["run", ...options, "mcap"].join("."));
    execFileSync(process.env.KIROWEB_RECORDING_SAMPLE, [file, ...options]);
    return file;
}
const engines = (...options) => Uint8Array.from(readFileSync(enginesFile(...options)));

/** As plain values. */
const plain = ({ channel, channelId, sequence, time, logTime, data }) => [
    channel ?? channelId,
    sequence,
    time ?? logTime,
    [...data],
];
const allOf = async (reader) => (await messagesOf(reader)).map(plain);

/** What another program finds, by the index and then by going through: the same. */
async function foundByOthers(bytes) {
    const { McapIndexedReader, McapStreamReader } = mcap();
    const decompressHandlers = { zstd: (packed, size) => zstd(packed, Number(size)) };
    const readable = {
        size: async () => BigInt(bytes.length),
        read: async (offset, size) => bytes.subarray(Number(offset), Number(offset + size)),
    };
    const indexed = await McapIndexedReader.Initialize({ readable, decompressHandlers });
    const messages = [];
    for await (const message of indexed.readMessages()) messages.push(plain(message));
    const stream = new McapStreamReader({ decompressHandlers, validateCrcs: true });
    stream.append(bytes);
    const seen = [];
    for (let record; (record = stream.nextRecord());) {
        if (record.type === "Message") seen.push(plain(record));
    }
    assert.ok(stream.done());
    assert.deepEqual(seen, messages);

    const { statistics, chunkIndexes, header } = indexed;
    assert.equal(header.profile, "kiroweb");
    assert.ok([...indexed.schemasById.values()].every((one) => one.encoding === "jsonschema"));
    const counted = new Map();
    for (const [channel] of messages) counted.set(channel, (counted.get(channel) ?? 0n) + 1n);
    const { channelMessageCounts, ...all } = statistics;
    assert.deepEqual([...channelMessageCounts].sort(), [...counted].sort());
    assert.deepEqual(
        [all.messageStartTime, all.messageEndTime, all.messageCount, all.chunkCount],
        [messages[0][2], messages.at(-1)[2], BigInt(messages.length), chunkIndexes.length],
    );
    assert.ok(chunkIndexes.length > 2);
    return { chunkIndexes, messages };
}

test("Others read what the page and the engine write, and so does the page", async () => {
    const sizes = Array.from({ length: 60 }, (_, i) => (i === 33 ? 9000 : i * 7));
    const page = await write(sizes, 2000);
    // The large one has its own chunk, and no other is much larger than wanted.
    const { chunkIndexes } = await foundByOthers(page);
    const large = chunkIndexes.filter((chunk) => chunk.uncompressedSize > 6000n);
    const times = large.map((chunk) => [chunk.messageStartTime, chunk.messageEndTime]);
    assert.deepEqual(times.flat(), [EPOCH + 33n, EPOCH + 33n]);
    for (const [bytes, count] of [
        [page, 60],
        [engines(), 300],
        [engines("plain"), 300],
    ]) {
        const { messages } = await foundByOthers(bytes);
        assert.equal(messages.length, count);
        const reader = await open(bytes);
        assert.equal(reader.damage, null);
        assert.deepEqual(await allOf(reader), messages);
        // Without its index, too.
        const scanned = await open(bytes.subarray(0, -1));
        assert.match(scanned.damage.message, /^offset \d+: there is no index$/);
        assert.deepEqual(await allOf(scanned), messages);
        const described = [...reader.channels].map(([id, { topic, encoding, schema }]) => {
            return [id, topic, encoding, JSON.parse(reader.schemas.get(schema))];
        });
        const wanted = CHANNELS.map(({ topic, encoding, schema }, i) => {
            return [i + 1, topic, encoding, JSON.parse(schema)];
        });
        assert.deepEqual(described, wanted);
        if (bytes === page) continue;
        const last = messages.slice(-3).map(([channel, sequence, time, data]) => {
            return [CHANNELS[channel - 1].topic, sequence, time, Buffer.from(data).toString()];
        });
        assert.deepEqual(last, [
            ["blocks", 99, EPOCH + 298n, "\x04\0\0\0\0\0\0\0cyz"],
            ["commands", 99, EPOCH + 299n, '{"frame":99,"seq":99,"cmd":"beginFrame"}'],
            ["frames", 99, EPOCH + 300n, '{"frame":99}'],
        ]);
    }
    assert.equal((await open(await bytesOf(new Writer(CHANNELS).end()))).damage, null);
});

test("The program in the documentation reads it", () => {
    const client = new URL("../../client/", import.meta.url);
    const page = readFileSync(new URL("../docs/recording.md", client), "utf8");
    const [, program] = page.match(/```js\n(.*?)```/s);
    assert.ok(program.trim().split("\n").length <= 10);
    const options = ["--input-type=module", "-e", program, enginesFile()];
    const out = execFileSync(process.execPath, options, { cwd: client, encoding: "utf8" });
    const lines = out.trim().split("\n");
    assert.equal(lines.length, 100);
    assert.match(lines[99], /frame: 99/);
});

/** Whatever is read is right, in its order; what is not read is said to be damaged. */
async function assertHonest(bytes, wanted, what, isCovered = true) {
    let isTold = false;
    const read = [];
    const meet = (error) => {
        assert.ok(error instanceof RecordingError, `${what}: ${error.stack}`);
        assert.match(error.message, /^offset \d+: ./);
        assert.ok(error.offset <= bytes.length);
        isTold = true;
    };
    try {
        const reader = await open(bytes);
        if (reader.damage) meet(reader.damage);
        for (const chunk of reader.chunks) {
            await reader.read(chunk).then((messages) => read.push(...messages.map(plain)), meet);
        }
    } catch (error) {
        meet(error);
    }
    for (const message of read) assert.ok(wanted.has(String(message)), `${what}: ${message}`);
    const isAll = read.length === wanted.size;
    assert.ok(isTold || (isAll && !isCovered), `${what}: ${read.length} messages`);
}

test("A damaged file gives nothing that is wrong, and says where", async () => {
    const channels = ["a", "b"].map((topic) => ({ topic, encoding: "json", schema: "{}" }));
    const random = new Random(7);
    const small = await write([5, 0, 30, 50, 7, 8, 9, 10, 11], 100, channels);
    for (const [bytes, step] of [
        [small, 1],
        [engines(), 53],
    ]) {
        const reader = await open(bytes);
        const wanted = new Set((await allOf(reader)).map(String));
        const end = bytes.length - 28;
        const summary = Number(new DataView(bytes.buffer).getBigUint64(end, true));
        // Not the header's second text, message indexes and the data's end; and there are bits
        // that mean nothing to zstd.
        const chunks = reader.chunks.filter(({ compression }) => compression === "");
        const isCovered = (at) =>
            at >= summary ||
            chunks.some(({ offset, length }) => at >= offset && at < offset + length);
        for (let at = 0; at < bytes.length; at += step) {
            await assertHonest(bytes.subarray(0, at), wanted, `cut at ${at}`);
            const flipped = bytes.slice();
            flipped[at] ^= 1 << random.below(8);
            await assertHonest(flipped, wanted, `byte ${at}`, isCovered(at));
        }
    }
});

test("A gap is found without an index, and no more memory is asked for than the limits allow", async () => {
    const long = await write(Array(40).fill(300), 2000);
    const [, second, third] = (await open(long)).chunks;
    const pieces = [long.subarray(0, second.offset), long.subarray(third.offset, -1)];
    const { chunks, damage } = await open(Buffer.concat(pieces));
    assert.equal(chunks.length, 1);
    assert.match(damage.message, /messages are missing/);
    assert.equal(damage.offset, second.offset);

    const bytes = await write([10, 20], 1000);
    const [{ offset }] = (await open(bytes)).chunks;
    const [LENGTH_AT, FIRST_AT, SIZE_AT, CRC_AT] = [1, 9, 9 + 16, 9 + 24];
    for (const [at, value, limits, reason] of [
        [LENGTH_AT, 2n ** 40n, {}, /ends within a record/],
        [LENGTH_AT, 2n ** 63n, {}, /beyond all files/],
        [FIRST_AT, 2n ** 63n, {}, /does not fit its chunk/],
        [SIZE_AT, 2n ** 40n, { chunk: 5000 }, /larger than 5000 bytes/],
        [CRC_AT, 0n, {}, /the chunk has no checksum/],
        [null, 0n, { index: 100 }, /too much about channels/],
        [null, 0n, { chunks: 0 }, /too many chunks/],
        [null, 0n, { chunk: 100 }, /larger than 100 bytes/],
    ]) {
        const hostile = at === null ? bytes : bytes.slice(0, -1);
        if (at !== null) new DataView(hostile.buffer).setBigUint64(offset + at, value, true);
        let most = 0;
        const source = sourceOf(hostile, (length) => (most = Math.max(most, length)));
        const reader = await Reader.open(source, { limits });
        const met = reader.damage ?? (await reader.read(reader.chunks[0]).catch((error) => error));
        assert.match(met.message, reason);
        if (at !== null) assert.equal(met.offset, offset);
        assert.ok(most <= bytes.length);
    }

    // An index that is sealed, by whoever means harm.
    const changed = Buffer.from(await write(Array(40).fill(300), 2000));
    const place = changed.lastIndexOf(new Encoder().u64(second.offset).bytes);
    changed.writeBigUInt64LE(BigInt(chunks[0].offset + 1), place);
    const last = changed.length - 12;
    const summary = Number(changed.readBigUInt64LE(last - 16));
    changed.writeUInt32LE(crcOf(changed.subarray(summary, last)), last);
    const nested = await open(changed);
    assert.match(nested.damage.message, /the index names chunks that lie in each other/);
    assert.equal((await messagesOf(nested)).length, 40);
});

/** The messages of a recording by their topics: texts read, others as they are. */
async function topicsOf(file) {
    const reader = await open(await bytesOf(file));
    assert.equal(reader.damage, null);
    let last = 0n;
    return (await messagesOf(reader)).map(({ channel, time, data }) => {
        assert.ok(time > last);
        last = time;
        const { topic, encoding } = reader.channels.get(channel);
        return [topic, encoding === "json" ? readJson(new TextDecoder().decode(data)) : data];
    });
}

/** What a snapshot says of itself. */
const headOf = (snapshot) => readJson(new Decoder(snapshot).text());

const frame = (number, commands, isWhole = false) => ({ number, attempt: 1, isWhole, commands });

/** A recorder that has begun, with what may be set of its clock, and its ends. */
function recording(scene, { title = "", sequence = 0, most = 1e6 } = {}) {
    const made = { clock: 10e6, ends: [] };
    const ended = (...end) => made.ends.push(end);
    made.recorder = new Recorder({ now: () => made.clock, most, ended });
    made.recorder.begin(title, scene, sequence);
    return made;
}

test("A recording begins with all that there is, as commands that make it again", async () => {
    const builder = new Builder({ x: { limits: [1, 2], label: "t" }, title: "ä" });
    const line = builder.create("line", { keep: 3, regular: [0, 2] }, { y: [1, NaN, 3, 4, 5] });
    builder.data(line, 5, { y: [6] });
    builder.create("scatter", { color: "#123456" }, { x: [1], y: Float32Array.of(2), value: [3] });
    builder.create("image", { rows: 1, columns: 3 }, { z: Uint8Array.of(1, 2, 3) });
    builder.create("reference", { at: -Infinity, span: [NaN, 2] });
    builder.create("of another vocabulary", { new: true });
    builder.create("line", { visible: false }, { x: [], y: [] });
    const { scene } = builder;
    scene.apply({ cmd: "beginFrame", frame: 5, keys: true }, null);

    const { recorder, ends } = recording(scene, { title: "a title", sequence: 17 });
    recorder.end();
    const [[, begin], [topic, data], ...more] = await topicsOf(ends[0][0]);
    assert.deepEqual(begin, { event: "begin", vocabulary: "kirofigures/1", title: "a title" });
    assert.deepEqual([topic, more], ["snapshots", []]);
    const { frame: number, seq, commands } = headOf(data);
    assert.deepEqual([number, seq], [5, 17]);
    assert.ok(commands.every((command, i) => command.seq === i + 1));
    const again = new Scene();
    for (const command of commandsOf(data)) again.apply(...command);
    assert.deepEqual(contentOf(again), contentOf(scene));
    assert.deepEqual([again.frame, again.keys], [5, true]);
    assert.equal(again.find(line).given, 6);
});

test("Frames, blocks and tokens are recorded in order; a snapshot follows when it pays", async () => {
    const { scene } = new Builder();
    const made = recording(scene);
    const { recorder } = made;
    const block = Uint8Array.from({ length: 300 }, (_, i) => i);
    const whole = [{ cmd: "beginFrame", seq: 1, whole: true }, null];
    const data = (seq) => [{ cmd: "data", seq, id: 3, data: "258 1", at: NaN }, block];
    recorder.frame(frame(0, [whole, data(2)], true), scene);
    // Not: before there was as much as everything is, soon after, outside of a frame.
    made.clock += 2e6;
    recorder.frame(frame(1, [[{ cmd: "remove", seq: 3 }, null]]), scene);
    made.clock -= 1;
    recorder.frame(frame(1, [data(4)]), scene);
    made.clock += 1;
    recorder.frame(frame(-1, [data(5)]), scene);
    recorder.frame(frame(2, [data(6)]), scene);
    recorder.frame(frame(3, [data(7)]), scene);
    const token = { command: { serverSendTS: 7 }, received: 8 };
    recorder.token({ ...frame(3, []), token, begun: 9, error: new Error("why") }, "failed", 10);
    recorder.end();
    recorder.error("behind the end");

    const messages = await topicsOf(made.ends[0][0]);
    const order = [
        "connections commands blocks commands frames commands frames blocks commands frames",
        "blocks commands blocks commands frames snapshots blocks commands frames tokens",
    ];
    assert.equal(messages.map(([topic]) => topic).join(" "), order.join(" "));
    const all = (wanted) => messages.filter(([topic]) => topic === wanted).map(([, one]) => one);
    assert.deepEqual([...all("blocks")[0]], [2, 1, 0, 0, 1, 0, 0, 0, ...block]);
    assert.deepEqual(all("commands")[1], data(2)[0]);
    const bytes = textOf(whole[0]).length + textOf(data(2)[0]).length + block.length + 8;
    assert.deepEqual(all("frames")[0], { frame: 0, attempt: 1, kind: "whole", bytes, seq: 2 });
    assert.equal(headOf(all("snapshots")[0]).seq, 6);
    const client = { clientReceive: 8, clientPaint: 9, clientSend: 10 };
    const times = { serverSend: 7, ...client, serverReceive: 0 };
    const answer = { frame: 3, attempt: 1, outcome: "failed", reason: "why", ...times };
    assert.deepEqual(all("tokens"), [answer]);
});

test("A recording that has its size, or meets what cannot be recorded, ends once, and is whole up to there", async () => {
    const most = 20_000;
    const full = recording(new Scene(), { most });
    for (let i = 0; i < 1000; ++i) full.recorder.error("x".repeat(100));
    const odd = recording(new Scene());
    odd.recorder.frame(frame(0, [[{ cmd: "data", seq: 1 }, new Uint8Array(1)]]), new Scene());
    odd.recorder.error("behind the end");
    for (const [{ recorder, ends }, why, least, many] of [
        [full, /MiB/, 100, most / 141],
        [odd, /Error/, 1, 1],
    ]) {
        recorder.end();
        const [[file, reason], ...more] = ends;
        assert.match(reason, why);
        const { length } = await topicsOf(file);
        assert.ok(length >= least && length <= many, `${length} messages`);
        assert.deepEqual(more, []);
    }
});
