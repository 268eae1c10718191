// Recordings that the page makes, and its reader of all recordings.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, test } from "node:test";

import { CHANNELS } from "../../client/page/recording/channels.mjs";
import { textOf } from "../../client/page/recording/json.mjs";
import { Reader, RecordingError } from "../../client/page/recording/reader.mjs";
import { Recorder } from "../../client/page/recording/recorder.mjs";
import { Writer } from "../../client/page/recording/writer.mjs";
import { Scene } from "../../client/page/worker/scene.mjs";
import { readJson } from "../../client/wire.mjs";
import { Random } from "./figures/support/random.mjs";
import { Builder } from "./figures/support/scenes.mjs";
import { fzstd, mcap } from "./support/packages.mjs";

const folder = mkdtempSync(join(tmpdir(), "recording-"));
after(() => rmSync(folder, { recursive: true }));

const EPOCH = 1_700_000_000_000_000_000n;
const zstd = (bytes, size) => fzstd().decompress(bytes, new Uint8Array(size));

/** A source that keeps the largest size it was asked for. */
function sourceOf(bytes) {
    const source = {
        size: bytes.length,
        largest: 0,
        read: async (offset, length) => {
            source.largest = Math.max(source.largest, length);
            return bytes.subarray(offset, offset + length);
        },
    };
    return source;
}

const open = (bytes, options) => Reader.open(sourceOf(bytes), { decompress: { zstd }, ...options });

async function bytesOf(blob) {
    return new Uint8Array(await blob.arrayBuffer());
}

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
function engines(...options) {
    const file = join(folder, ["run", ...options, "mcap"].join("."));
    execFileSync(process.env.KIROWEB_RECORDING_SAMPLE, [file, ...options]);
    return Uint8Array.from(readFileSync(file));
}

/** As plain values. */
const plain = ({ channel, channelId, sequence, time, logTime, data }) => [
    channel ?? channelId,
    sequence,
    time ?? logTime,
    [...data],
];

async function allOf(reader) {
    const messages = [];
    for (const chunk of reader.chunks) messages.push(...(await reader.read(chunk)));
    return messages.map(plain);
}

/** What another program finds, by the index and then by going through. */
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
    return { indexed, messages };
}

test("Others read what the page writes, and the page what it and the engine write", async () => {
    const sizes = Array.from({ length: 60 }, (_, i) => (i === 33 ? 9000 : i * 7));
    const page = await write(sizes, 2000);
    const { indexed } = await foundByOthers(page);
    const { statistics, chunkIndexes, header } = indexed;
    assert.equal(header.profile, "kiroweb");
    assert.deepEqual(
        [statistics.messageStartTime, statistics.messageEndTime, statistics.chunkCount],
        [EPOCH, EPOCH + 59n, chunkIndexes.length],
    );
    assert.deepEqual(
        [...statistics.channelMessageCounts.values()],
        [8n, 8n, 8n, 8n, 7n, 7n, 7n, 7n],
    );
    // The large one has its own, and no other is much larger than wanted.
    const large = chunkIndexes.filter((chunk) => chunk.uncompressedSize > 6000n);
    assert.deepEqual(
        large.map((chunk) => [chunk.messageStartTime, chunk.messageEndTime]),
        [[EPOCH + 33n, EPOCH + 33n]],
    );
    for (const bytes of [page, engines(), engines("plain")]) {
        const { messages } = await foundByOthers(bytes);
        const reader = await open(bytes);
        assert.equal(reader.damage, null);
        assert.deepEqual(await allOf(reader), messages);
        // Without its index, too.
        const scanned = await open(bytes.subarray(0, -1));
        assert.match(scanned.damage.message, /^offset \d+: there is no index$/);
        assert.deepEqual(await allOf(scanned), messages);
        const described = [...reader.channels].map(([id, { topic, encoding, schema }]) => [
            id,
            topic,
            encoding,
            JSON.parse(reader.schemas.get(schema)),
        ]);
        assert.deepEqual(
            described,
            CHANNELS.map(({ topic, encoding, schema }, i) => [
                i + 1,
                topic,
                encoding,
                JSON.parse(schema),
            ]),
        );
    }
    assert.equal((await open(await bytesOf(new Writer(CHANNELS).end()))).damage, null);
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

test("A file without an index and with a gap is read up to there", async () => {
    const bytes = await write(Array(40).fill(300), 2000);
    const { chunks } = await open(bytes);
    const gap = Buffer.concat([
        bytes.subarray(0, chunks[1].offset),
        bytes.subarray(chunks[2].offset, -1),
    ]);
    const reader = await open(gap);
    assert.equal(reader.chunks.length, 1);
    assert.match(reader.damage.message, /messages are missing/);
    assert.equal(reader.damage.offset, chunks[1].offset);
});

test("No more memory is asked for than the limits allow", async () => {
    const bytes = await write([10, 20], 1000);
    const [{ offset }] = (await open(bytes)).chunks;
    const cut = bytes.slice(0, -1);
    const LENGTH_AT = 1;
    const FIRST_AT = 9;
    const SIZE_AT = 9 + 16;
    for (const [at, value, reason] of [
        [LENGTH_AT, 2n ** 40n, /ends within a record/],
        [LENGTH_AT, 2n ** 63n, /beyond all files/],
        [FIRST_AT, 2n ** 63n, /does not fit its chunk/],
        [SIZE_AT, 2n ** 40n, /larger than 5000 bytes/],
    ]) {
        const hostile = cut.slice();
        new DataView(hostile.buffer).setBigUint64(offset + at, value, true);
        const source = sourceOf(hostile);
        const { damage } = await Reader.open(source, { limits: { chunk: 5000 } });
        assert.match(damage.message, reason);
        assert.equal(damage.offset, offset);
        assert.ok(source.largest <= bytes.length);
    }
    for (const [limits, reason] of [
        [{ index: 100 }, /too much about channels/],
        [{ chunks: 0 }, /too many chunks/],
        [{ chunk: 100 }, /larger than 100 bytes/],
    ]) {
        const reader = await open(bytes, { limits });
        const met = reader.damage ?? (await reader.read(reader.chunks[0]).catch((error) => error));
        assert.match(met.message, reason);
    }
});

/** The messages of a recording by their topics: texts read, others as they are. */
async function topicsOf(file) {
    const reader = await open(await bytesOf(file));
    assert.equal(reader.damage, null);
    const messages = [];
    let last = 0n;
    for (const chunk of reader.chunks) {
        for (const { channel, time, data } of await reader.read(chunk)) {
            assert.ok(time > last);
            last = time;
            const { topic, encoding } = reader.channels.get(channel);
            const isText = encoding === "json";
            messages.push([topic, isText ? readJson(new TextDecoder().decode(data)) : data]);
        }
    }
    return messages;
}

/** A snapshot's message, taken apart. */
function readSnapshot(data) {
    const view = new DataView(data.buffer, data.byteOffset, data.length);
    let at = 4 + view.getUint32(0, true);
    const text = readJson(new TextDecoder().decode(data.subarray(4, at)));
    const blocks = new Map();
    while (at < data.length) {
        const begin = at + 8;
        const end = begin + Number(view.getBigUint64(at, true));
        const name = `${view.getUint32(begin, true)} ${view.getUint32(begin + 4, true)}`;
        blocks.set(name, data.slice(begin + 8, end));
        at = end;
    }
    return { ...text, blocks };
}

const frame = (number, commands, isWhole = false) => ({ number, attempt: 1, isWhole, commands });

/** What a scene has, and how many elements of each object are gone. */
const contentOf = (scene) =>
    scene.items.map(({ id, type, parent, properties, columns, given }) => {
        const kept = Object.entries(columns).map(([name, { elements, offset, begin, end }]) => {
            const values = elements.subarray(begin - offset, end - offset);
            return [name, values.constructor.name, [...values]];
        });
        return [id, type, parent?.id, properties, kept.sort(), given];
    });

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

    let file;
    const recorder = new Recorder({ now: () => 1, most: 1e6, ended: (blob) => (file = blob) });
    recorder.begin("a title", scene, 17);
    recorder.end();
    const [[, begin], [topic, data], ...more] = await topicsOf(file);
    assert.deepEqual(begin, { event: "begin", vocabulary: "kirofigures/1", title: "a title" });
    assert.deepEqual([topic, more], ["snapshots", []]);
    const { frame: number, seq, commands, blocks } = readSnapshot(data);
    assert.deepEqual([number, seq], [5, 17]);
    assert.deepEqual(
        commands.map((command) => command.seq),
        commands.map((_, i) => i + 1),
    );
    const again = new Scene();
    for (const command of commands) {
        again.apply(command, blocks.get(command.data) ?? null);
    }
    assert.deepEqual(contentOf(again), contentOf(scene));
    assert.deepEqual([again.frame, again.keys], [5, true]);
    assert.equal(contentOf(again)[2][5], 6);
});

test("Frames, blocks and tokens are recorded in order; a snapshot follows when it pays", async () => {
    let file;
    let clock = 10e6;
    const recorder = new Recorder({ now: () => clock, most: 1e6, ended: (blob) => (file = blob) });
    const { scene } = new Builder();
    recorder.begin("", scene, 0);
    const block = Uint8Array.from({ length: 300 }, (_, i) => i);
    const whole = [{ cmd: "beginFrame", seq: 1, whole: true }, null];
    const data = (seq) => [{ cmd: "data", seq, id: 3, data: "258 1", at: NaN }, block];
    recorder.frame(frame(0, [whole, data(2)], true), scene);
    // Not: before there was as much as everything is, soon after, outside of a frame.
    clock += 2e6;
    recorder.frame(frame(1, [[{ cmd: "remove", seq: 3 }, null]]), scene);
    clock -= 1;
    recorder.frame(frame(1, [data(4)]), scene);
    clock += 1;
    recorder.frame(frame(-1, [data(5)]), scene);
    recorder.frame(frame(2, [data(6)]), scene);
    recorder.frame(frame(3, [data(7)]), scene);
    const token = { command: { serverSendTS: 7 }, received: 8 };
    recorder.token({ ...frame(3, []), token, begun: 9, error: new Error("why") }, "failed", 10);
    recorder.end();
    recorder.error("behind the end");

    const messages = await topicsOf(file);
    const pair = ["blocks", "commands"];
    assert.deepEqual(
        messages.map(([topic]) => topic),
        [
            ...[
                "connections",
                "commands",
                ...pair,
                "frames",
                "commands",
                "frames",
                ...pair,
                "frames",
            ],
            ...[...pair, ...pair, "frames", "snapshots", ...pair, "frames", "tokens"],
        ],
    );
    const all = (wanted) => messages.filter(([topic]) => topic === wanted).map(([, one]) => one);
    assert.deepEqual([...all("blocks")[0]], [2, 1, 0, 0, 1, 0, 0, 0, ...block]);
    assert.deepEqual(all("commands")[1], data(2)[0]);
    const sizeOf = (...given) => given.reduce((sum, one) => sum + textOf(one[0]).length, 0) + 308;
    assert.deepEqual(all("frames")[0], {
        ...{ frame: 0, attempt: 1, kind: "whole", seq: 2 },
        bytes: sizeOf(whole, data(2)),
    });
    assert.deepEqual([all("frames")[1].kind, all("frames")[3].seq], ["changes", 6]);
    assert.equal(readSnapshot(all("snapshots")[0]).seq, 6);
    assert.deepEqual(all("tokens"), [
        {
            ...{ frame: 3, attempt: 1, outcome: "failed", reason: "why" },
            ...{ serverSend: 7, clientReceive: 8, clientPaint: 9, clientSend: 10 },
            serverReceive: 0,
        },
    ]);
});

test("A recording that has its size ends, once, and is whole up to there", async () => {
    const ends = [];
    const most = 20_000;
    const recorder = new Recorder({ now: () => 1, most, ended: (...end) => ends.push(end) });
    recorder.begin("", new Scene(), 0);
    for (let i = 0; i < 1000; ++i) recorder.error("x".repeat(100));
    recorder.end();
    assert.equal(ends.length, 1);
    const [[file, reason]] = ends;
    assert.match(reason, /MiB/);
    const messages = await topicsOf(file);
    assert.ok(messages.length > 100);
    assert.ok(messages.length * 141 < most);
});

test("What cannot be recorded ends the recording, and nothing else", async () => {
    const ends = [];
    const recorder = new Recorder({ now: () => 1, most: 1e6, ended: (...end) => ends.push(end) });
    recorder.begin("", new Scene(), 0);
    recorder.frame(frame(0, [[{ cmd: "data", seq: 1 }, new Uint8Array(1)]]), new Scene());
    recorder.error("behind the end");
    const [[file, reason], ...more] = ends;
    assert.match(reason, /Error/);
    assert.deepEqual([(await topicsOf(file)).length, more], [1, []]);
});
